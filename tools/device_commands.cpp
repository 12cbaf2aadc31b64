#include "device_commands.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/random.h>
#include <vector>
#include <qvlib/digest.h>
#include <qvlib/encoding.h>
#include <qvlib/scsi.h>
#include "failure.h"
#include "input.h"
#include "output.h"
#include "password.h"
#include "scsi.h"
#include "sfp.h"
#include "xml_events.h"

namespace qvl
{

struct device_options {
    std::string file, output;
    std::vector<std::string> files;
    bool json = false, table = false;
    std::string key, asc, ascq, code, stored;
};

void release_device_options::operator()(device_options *options) const
{
    delete options;
}

namespace
{

// Codes are hex, as data sheets and logs write them: 2a, 2A, 0x2a, 2Ah.
bool read_code(std::string text, unsigned long limit, unsigned long &value)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.erase(0, 2);
    else if (text.size() > 1 && (text.back() == 'h' || text.back() == 'H'))
        text.pop_back();
    if (text.empty() || text.find_first_not_of("0123456789abcdefABCDEF") != text.npos || text.size() > 8)
        return false;
    value = strtoul(text.c_str(), nullptr, 16);
    return value <= limit;
}

unsigned long code_of(const std::string &text)
{
    unsigned long value = 0;
    read_code(text, ULONG_MAX, value);
    return value;
}

CLI::Validator code_up_to(unsigned long limit)
{
    return CLI::Validator(
        [limit](std::string &text) {
            unsigned long value;
            if (read_code(text, limit, value))
                return std::string();
            char message[80];
            snprintf(message, sizeof(message), "is no hex number from 0 to %lX: ", limit);
            return message + shown(text);
        },
        "");
}

int run_sfp(const device_options &options)
{
    const sfp_form form = options.json    ? sfp_form::json
                          : options.table ? sfp_form::table
                                          : sfp_form::corelink;
    write_output(options.output, describe_sfp(input_name(options.file), read_bytes(options.file), form));
    return 0;
}

int run_sense(const device_options &options)
{
    write_output("", describe_sense(static_cast<unsigned int>(code_of(options.key)),
                                    static_cast<unsigned char>(code_of(options.asc)),
                                    static_cast<unsigned char>(code_of(options.ascq))));
    return 0;
}

int run_opcode(const device_options &options)
{
    write_output("", std::string(get_command_info(static_cast<unsigned char>(code_of(options.code)))) + "\n");
    return 0;
}

int run_status(const device_options &options)
{
    write_output("", std::string(get_status_info(static_cast<unsigned char>(code_of(options.code)))) + "\n");
    return 0;
}

int run_standard(const device_options &options)
{
    const char *text = get_scsi_standard(static_cast<unsigned int>(code_of(options.code)));
    if (text == nullptr)
        throw plain_failure("no version descriptor " + options.code + " in the list");
    write_output("", std::string(text) + "\n");
    return 0;
}

int run_decode(const device_options &options)
{
    write_output("", explain_sense_data(input_name(options.file), read_bytes(options.file)));
    return 0;
}

int run_crc32c(const device_options &options)
{
    std::string text;
    for (const std::string &file : options.files) {
        const std::string content = read_input(file, SIZE_MAX);
        const std::uint32_t carried = crc32c(content.data(), content.size());
        char codes[24];
        snprintf(codes, sizeof(codes), "%08x  %08x  ", __builtin_bswap32(carried), carried);
        text += codes + file + "\n";
    }
    write_output("", text);
    return 0;
}

int run_xml_events(const device_options &options)
{
    list_xml_events(options.file, [](const std::string &lines) { write_output("", lines); });
    return 0;
}

// The library takes its salt from random(), which the host has to seed.
void seed_salts()
{
    unsigned int seed;
    if (getrandom(&seed, sizeof(seed), 0) != sizeof(seed))
        throw plain_failure(std::string("random numbers: ") + strerror(errno));
    srandom(seed);
}

int run_ssha_make()
{
    secret password;
    read_password(password, true);
    seed_salts();
    char text[SSHA_TEXT_SIZE] = {};
    ssha_generate(password.text, text);
    write_output("", std::string(text) + "\n");
    return 0;
}

int run_ssha_check(const device_options &options)
{
    secret password;
    read_password(password, false);
    const int result = ssha_check(password.text, options.stored.c_str());
    if (result < 0)
        throw plain_failure("not a salted password: " + shown(options.stored));
    if (result != 0)
        throw plain_failure("the password does not match");
    return 0;
}

CLI::App *add_command(CLI::App &parent, const char *name, const char *purpose, std::function<int()> &run,
                      const std::function<int()> &action)
{
    CLI::App *command = parent.add_subcommand(name, purpose);
    command->callback([&run, action] { run = action; });
    return command;
}

void add_file(CLI::App *command, std::string &file, const char *purpose)
{
    command->add_option("FILE", file, purpose)->type_name("")->required();
}

void add_sfp(CLI::App &app, device_options &options, std::function<int()> &run)
{
    CLI::App *command = add_command(app, "sfp", "Describe a transceiver by its identification block", run,
                                    [&options] { return run_sfp(options); });
    add_file(command, options.file, "The block, binary or hex text; - reads standard input");
    CLI::Option *json = command->add_flag("-j,--json", options.json, "Write JSON instead of corelink text");
    command->add_flag("-t,--table", options.table, "Write a table for people")->excludes(json);
    command->add_option("-o,--output", options.output, "Replace FILE with the result, whole or not at all")
        ->type_name("FILE");
    command->footer("Hex text may be that of 'ethtool -m DEVICE hex on', i2cdump, xxd or hexdump -C.\n\n"
                    "Examples:\n"
                    "  ethtool -m eth0 hex on | qvl sfp --table -\n"
                    "  i2cdump -y 0 0x50 b | qvl sfp --json -");
}

void add_code_command(CLI::App &scsi, const char *name, const char *purpose, const char *argument,
                      unsigned long limit, device_options &options, std::function<int()> &run,
                      int (*action)(const device_options &))
{
    CLI::App *command = add_command(scsi, name, purpose, run, [&options, action] { return action(options); });
    command->add_option(argument, options.code, "The code in hex")
        ->type_name("")
        ->required()
        ->check(code_up_to(limit));
}

void add_scsi(CLI::App &app, device_options &options, std::function<int()> &run)
{
    CLI::App *scsi = app.add_subcommand("scsi", "Put SCSI codes and sense data into words");
    scsi->require_subcommand(1);
    CLI::App *sense = add_command(*scsi, "sense", "A sense key with additional code and qualifier", run,
                                  [&options] { return run_sense(options); });
    const struct {
        const char *name, *purpose;
        unsigned long limit;
        std::string *text;
    } codes[] = {{"KEY", "The sense key, 0 to F", 0xf, &options.key},
                 {"ASC", "The additional sense code", 0xff, &options.asc},
                 {"ASCQ", "Its qualifier", 0xff, &options.ascq}};
    for (const auto &[name, purpose, limit, text] : codes)
        sense->add_option(name, *text, purpose)->type_name("")->required()->check(code_up_to(limit));
    add_code_command(*scsi, "opcode", "A command by its operation code", "HH", 0xff, options, run,
                     run_opcode);
    add_code_command(*scsi, "status", "A status byte", "HH", 0xff, options, run, run_status);
    add_code_command(*scsi, "standard", "A version descriptor", "HHHH", 0xffff, options, run, run_standard);
    CLI::App *decode = add_command(*scsi, "decode", "Explain sense data, fixed or descriptor format", run,
                                   [&options] { return run_decode(options); });
    add_file(decode, options.file, "The sense data, binary or hex text; - reads standard input");
    scsi->footer("Codes are hex: 2a, 0x2a and 2Ah are the same.\n\n"
                 "Examples:\n"
                 "  qvl scsi sense 6 29 00\n"
                 "  qvl scsi opcode 2a\n"
                 "  echo 70 00 06 00 00 00 00 06 00 00 00 00 29 00 | qvl scsi decode -");
}

void add_crc32c(CLI::App &app, device_options &options, std::function<int()> &run)
{
    CLI::App *command = add_command(app, "crc32c", "Print CRC-32C checksums", run,
                                    [&options] { return run_crc32c(options); });
    command->add_option("FILE", options.files, "The files; - reads standard input")
        ->type_name("")
        ->required();
    command->footer(
        "Each line holds the checksum, the checksum with its bytes reversed, as iSCSI and SCTP carry it\n"
        "and crc32c() returns it, and the file's name.\n\n"
        "Examples:\n"
        "  qvl crc32c firmware.bin\n"
        "  printf 123456789 | qvl crc32c -");
}

void add_xml_events(CLI::App &app, device_options &options, std::function<int()> &run)
{
    CLI::App *command = add_command(app, "xml-events", "List what the library's XML reader reports", run,
                                    [&options] { return run_xml_events(options); });
    add_file(command, options.file, "The XML document; - reads standard input");
    command->footer(
        "Each line is an event: start with attributes, end, text or comment. Texts are in quotes; control\n"
        "characters, quotes and backslashes in them are escaped. An error is told as FILE:LINE: MESSAGE.\n\n"
        "Examples:\n"
        "  qvl xml-events device.xml\n"
        "  qvl xml --pretty appliance.cl | qvl xml-events -");
}

void add_ssha(CLI::App &app, device_options &options, std::function<int()> &run)
{
    CLI::App *ssha = app.add_subcommand("ssha", "Make and check salted passwords");
    ssha->require_subcommand(1);
    add_command(*ssha, "make", "Print a salted text for a password", run, run_ssha_make);
    CLI::App *check = add_command(*ssha, "check", "Say whether a password belongs to a salted text", run,
                                  [&options] { return run_ssha_check(options); });
    check->add_option("TEXT", options.stored, "The salted text, \"{SSHA}...\"")->type_name("")->required();
    ssha->footer(
        "The password is asked for on the terminal, without echo, or is the first line of standard input.\n"
        "It is never taken from the command line.\n\n"
        "Examples:\n"
        "  qvl ssha make\n"
        "  qvl ssha check \"$stored\" < password-file && echo welcome");
}

} // namespace

std::unique_ptr<device_options, release_device_options> add_device_commands(CLI::App &app,
                                                                            std::function<int()> &run)
{
    std::unique_ptr<device_options, release_device_options> options(new device_options);
    add_sfp(app, *options, run);
    add_scsi(app, *options, run);
    add_crc32c(app, *options, run);
    add_xml_events(app, *options, run);
    add_ssha(app, *options, run);
    return options;
}

} // namespace qvl
