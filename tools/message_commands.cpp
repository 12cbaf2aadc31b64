// Messages are those of examples/unit_messages.h: param2 is the length of the body, and an answer carries the
// question's param1 back.
#include "message_commands.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <unistd.h>
#include "failure.h"
#include "input.h"
#include "message_port.h"
#include "output.h"
#include "unit_messages.h"
#include "writers.h"

namespace qvl
{

struct message_options {
    std::uint16_t port = 0;
    std::string file = "-";
    std::string query;
    std::string type = "update";
    std::string name = "qvl";
    std::uint32_t param1 = 0;
    unsigned long count = 0;
    double timeout = 5;
    bool update = false;
    bool insert = false;
    bool json = false;
};

void release_message_options::operator()(message_options *options) const
{
    delete options;
}

namespace
{

constexpr std::size_t longest_body = 64 << 20; // far more than a receive buffer holds
constexpr double longest_timeout = 86400;      // seconds

struct type_row {
    const char *name;
    unsigned type;
};

constexpr type_row types[] = {{"query", UNIT_QUERY}, {"update", UNIT_UPDATE}, {"insert", UNIT_INSERT}};

// Returns the type that a text names, or -1.
int type_of(const std::string &text)
{
    for (const type_row &row : types) {
        if (text == row.name)
            return static_cast<int>(row.type);
    }
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != text.npos)
        return -1;
    const int number = std::stoi(text);
    return number <= 255 ? number : -1;
}

int run_send(const message_options &options)
{
    const std::string body = read_input(options.file, longest_body);
    message_port port(0);
    port.send(options.port, static_cast<unsigned>(type_of(options.type)), options.param1, options.name, body);
    return 0;
}

// Messages that do not follow the convention may leave param2 at 0.
bool is_damaged(const message &read)
{
    return read.header.param2 != 0 && (read.is_cut() || read.is_joined());
}

std::string json_line(const message &read)
{
    const char *damage = !is_damaged(read) ? "null" : read.is_cut() ? "\"cut\"" : "\"joined\"";
    return "{\"from\":" + std::to_string(read.from) + ",\"type\":" + std::to_string(read.type()) +
           ",\"param1\":" + std::to_string(read.header.param1) + ",\"name\":" + to_json_string(read.name()) +
           ",\"param2\":" + std::to_string(read.header.param2) +
           ",\"length\":" + std::to_string(read.body.size()) + ",\"damage\":" + damage +
           ",\"body\":" + to_json_string(read.body) + "}\n";
}

std::string text_lines(const message &read)
{
    std::string text = "from port " + std::to_string(read.from) + ", type " + std::to_string(read.type()) +
                       ", param1 " + std::to_string(read.header.param1) + ", name \"" + shown(read.name()) +
                       "\", param2 " + std::to_string(read.header.param2) + ", " +
                       std::to_string(read.body.size()) + " bytes\n";
    if (is_damaged(read))
        text += "damaged: " + read.damage() + "\n";
    text += printable(read.body);
    if (!read.body.empty() && read.body.back() != '\n')
        text += '\n';
    return text;
}

int run_listen(const message_options &options)
{
    message_port port(options.port);
    fprintf(stderr, "listening on port %u\n", static_cast<unsigned>(port.number()));
    int status = 0;
    for (unsigned long done = 0; options.count == 0 || done < options.count; ++done) {
        const message read = port.receive();
        if (is_damaged(read))
            status = 1;
        write_output("", options.json ? json_line(read) : text_lines(read));
    }
    return status;
}

std::string seconds_text(double seconds)
{
    char text[32];
    snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

// Waits for the answer to a question; what answers another one came too late for it and is passed over.
message wait_for_answer(message_port &port, const message_options &options, std::uint32_t question)
{
    const auto timeout = std::chrono::microseconds(std::llround(options.timeout * 1e6));
    const auto deadline = message_port::clock::now() + timeout;
    while (std::optional<message> read = port.receive_until(deadline)) {
        if ((read->type() & UNIT_ANSWER) != 0 && read->header.param1 == question)
            return std::move(*read);
    }
    throw plain_failure("port " + std::to_string(options.port) + ": no answer within " +
                        seconds_text(options.timeout));
}

int run_ask(const message_options &options)
{
    const std::string body = options.query == "-" ? read_input("-", longest_body) : options.query;
    const char *operation = options.update ? "update" : options.insert ? "insert" : "query";
    unsigned type = static_cast<unsigned>(type_of(operation));
    if (options.json)
        type |= UNIT_JSON;
    const auto question = static_cast<std::uint32_t>(getpid());
    const std::string peer = "port " + std::to_string(options.port) + ": ";
    message_port port(0);
    port.connect_to(options.port);
    port.send(options.port, type, question, "qvl", body);
    const message answer = wait_for_answer(port, options, question);
    if (answer.is_cut() || answer.is_joined())
        throw plain_failure(peer + "the answer is damaged: " + answer.damage());
    if ((answer.type() & UNIT_FAULT) != 0)
        throw plain_failure(peer + printable(answer.body));
    write_output("", answer.body + "\n");
    return 0;
}

CLI::App *add_command(CLI::App &app, const char *name, const char *purpose, message_options &options,
                      std::uint16_t lowest_port, std::function<int()> &run,
                      int (*action)(const message_options &))
{
    CLI::App *command = app.add_subcommand(name, purpose);
    command->callback([&run, &options, action] { run = [&options, action] { return action(options); }; });
    command->add_option("PORT", options.port, "A UDP port of 127.0.0.1")
        ->type_name("")
        ->required()
        ->check(CLI::Range(static_cast<int>(lowest_port), 65535));
    return command;
}

void add_send(CLI::App &app, message_options &options, std::function<int()> &run)
{
    CLI::App *command = add_command(app, "send", "Send a message to a daemon; no answer is waited for",
                                    options, 1, run, run_send);
    command->add_option("FILE", options.file, "The body, sent as it is; - or nothing reads standard input")
        ->type_name("");
    command->add_option("-t,--type", options.type, "query, update (without this option), insert, or 0 to 255")
        ->type_name("TYPE")
        ->check([](const std::string &text) {
            return type_of(text) >= 0 ? std::string() : "\"" + text + "\" is no type of message";
        });
    command->add_option("--param1", options.param1, "A number to carry; 0 without this option")
        ->type_name("N");
    command->add_option("--name", options.name, "A name to carry, 32 bytes; qvl without this option")
        ->type_name("NAME");
    command->footer("The header's param2 is the length of the body.\n\n"
                    "Examples:\n"
                    "  qvl send 9000 change.cl\n"
                    "  echo 'unit.standby = true' | qvl send --type update 9000");
}

void add_listen(CLI::App &app, message_options &options, std::function<int()> &run)
{
    CLI::App *command =
        add_command(app, "listen", "Print the messages that come to a port", options, 0, run, run_listen);
    command->add_flag("-j,--json", options.json, "Print each message as a JSON object, one a line");
    command->add_option("-n,--count", options.count, "End after N messages, with status 1 if one was damaged")
        ->type_name("N")
        ->check(CLI::Range(1UL, std::numeric_limits<unsigned long>::max()));
    command->footer(
        "Port 0 takes a free one; the port is told on standard error. A message is damaged when its\n"
        "body has not the length that the header's param2 says, unless that is 0: a fragment was\n"
        "lost, and when it was the last one, the message is joined with the next.\n\n"
        "Examples:\n"
        "  qvl listen 9000\n"
        "  qvl listen --json --count 1 9000 | python3 -m json.tool");
}

void add_ask(CLI::App &app, message_options &options, std::function<int()> &run)
{
    CLI::App *command =
        add_command(app, "ask", "Ask a daemon and print its answer", options, 1, run, run_ask);
    command
        ->add_option("QUERY", options.query,
                     "The members that are asked for, as corelink text;\n- reads standard input")
        ->type_name("")
        ->required();
    CLI::Option *update =
        command->add_flag("--update", options.update, "QUERY holds values for members that the daemon has");
    command->add_flag("--insert", options.insert, "The same, also for members that it lacks")
        ->excludes(update);
    command->add_flag("-j,--json", options.json, "Ask for an answer in JSON");
    command
        ->add_option("--timeout", options.timeout, "How long to wait for the answer; 5 without this option")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, longest_timeout));
    command->footer("Single values are filled in; a struct is asked for by the members that it has.\n\n"
                    "Examples:\n"
                    "  qvl ask 9000 'unit.name, ports = { fc1 = { alias, wwpn } }'\n"
                    "  qvl ask --json 9000 unit.location\n"
                    "  qvl ask --update 9000 - < change.cl");
}

} // namespace

std::unique_ptr<message_options, release_message_options> add_message_commands(CLI::App &app,
                                                                               std::function<int()> &run)
{
    std::unique_ptr<message_options, release_message_options> options(new message_options);
    add_send(app, *options, run);
    add_listen(app, *options, run);
    add_ask(app, *options, run);
    return options;
}

} // namespace qvl
