// qvl: reads corelink documents and writes, queries, merges and checks them; explains what devices hand out;
// talks to daemons.
//
// Every subcommand but listen, which never ends by itself, reads all of its input and builds all of its
// output before the first byte is written.
#include <CLI/CLI.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>
#include <qvlib/memcheck.h>
#include "device_commands.h"
#include "document.h"
#include "failure.h"
#include "leaf_walk.h"
#include "message_commands.h"
#include "output.h"
#include "writers.h"

namespace
{

using namespace qvl;

enum exit_status { success = 0, input_fault = 1, usage_fault = 2 };

enum class form { json, xml, corelink, paths };

struct write_options {
    std::string file = "-";
    std::string output;
    std::string root_name;
    bool pretty = false;
    bool raw = false;
};

struct get_options {
    std::string file;
    std::vector<std::string> paths;
    std::string output;
    bool type = false;
    bool json = false;
};

struct merge_options {
    std::string target, source;
    std::string output;
    bool update = false;
    bool insert = false;
    bool insert_sort = false;
    bool select = false;
    bool json = false;
    bool xml = false;
    bool pretty = false;
};

struct walk_options {
    std::string file;
    std::string path;
    std::string output;
};

std::string take_text(char *text)
{
    if (text == nullptr)
        throw std::bad_alloc();
    std::string copy(text);
    qv_memcheck_free(qv_free, text, "qvl");
    return copy;
}

std::string library_corelink(clparse_head *head, int paths)
{
    char *text = nullptr;
    if (clparse_get_corelink(head, &text, paths) != 0)
        throw std::bad_alloc();
    return take_text(text);
}

std::string library_xml(clparse_head *head, bool pretty, const std::string &root_name)
{
    char *text = nullptr;
    if (clparse_get_xml(head, &text, pretty, root_name.empty() ? nullptr : root_name.c_str()) != 0)
        throw std::bad_alloc();
    return take_text(text);
}

std::string library_text(const document &read, form wanted, const write_options &options)
{
    clparse_head *head = read.head.get();
    switch (wanted) {
    case form::json:
        return take_text(clparse_get_json(head));
    case form::xml:
        return library_xml(head, options.pretty, options.root_name);
    default:
        return library_corelink(head, wanted == form::paths);
    }
}

std::string careful_text(const document &read, form wanted, bool pretty, const std::string &root_name)
{
    const layout lines = pretty ? layout::pretty : layout::compact;
    switch (wanted) {
    case form::json:
        return to_json(read.root(), lines);
    case form::xml:
        check_xml_strings(read.root());
        return library_xml(read.head.get(), pretty, root_name);
    case form::corelink:
        return to_corelink(read.root(), lines);
    default:
        return to_paths(read.root(), lines);
    }
}

// A fault that a writer finds in a tree is told with the name of the file that the tree came from.
std::string careful_text_of(const std::string &name, const document &read, form wanted, bool pretty,
                            const std::string &root_name)
{
    try {
        return careful_text(read, wanted, pretty, root_name);
    } catch (const failure &fault) {
        throw plain_failure(name + ": " + fault.text);
    }
}

int run_writer(form wanted, const write_options &options)
{
    const document read = read_document(options.file);
    const std::string text =
        options.raw ? library_text(read, wanted, options)
                    : careful_text_of(read.name, read, wanted, options.pretty, options.root_name);
    write_output(options.output, text + "\n");
    return success;
}

std::string value_text(const clparse_node *node, const get_options &options)
{
    if (options.type)
        return type_name(node);
    if (options.json)
        return to_json(node, layout::compact);
    if (node->type == CLPARSE_TYPE_STRING)
        return node->value.str;
    return node->type == CLPARSE_TYPE_NULL ? "null" : to_corelink(node, layout::compact);
}

int run_get(const get_options &options)
{
    const document read = read_document(options.file);
    std::string text;
    bool missing = false;
    for (const std::string &path : options.paths) {
        const clparse_node *node = clparse_get_node(read.head.get(), path.c_str());
        if (node == nullptr) {
            report(plain_failure(read.name + ": no such path: " + path));
            missing = true;
            continue;
        }
        text += value_text(node, options) + "\n";
    }
    if (missing)
        return input_fault;
    write_output(options.output, text);
    return success;
}

std::string path_text(const clparse_node *node)
{
    return take_text(clparse_build_path(node));
}

int run_walk(const walk_options &options)
{
    const document read = read_document(options.file);
    const clparse_node *from = read.root();
    if (!options.path.empty()) {
        from = clparse_get_node(read.head.get(), options.path.c_str());
        if (from == nullptr)
            throw plain_failure(read.name + ": no such path: " + options.path);
    }
    write_output(options.output, list_leaves(read, from));
    return success;
}

// The source node at which an update stopped. The merge hands its actions no argument to keep it in.
const clparse_node *stopped_at;

int stop_update(clparse_node *, clparse_node *source)
{
    stopped_at = source;
    return -1;
}

int merge_trees(const merge_options &options, const document &target, const document &source)
{
    if (options.insert)
        return clparse_insert(target.head.get(), source.head.get());
    if (options.insert_sort)
        return clparse_insert_sort(target.head.get(), source.head.get());
    if (options.select)
        return clparse_select(target.head.get(), source.head.get());
    // clparse_update, with an action that remembers where it stopped.
    return clparse_search_tree(target.root(), source.root(), clparse_dfl_found_action, stop_update);
}

void check_merge(int result, const document &target, const document &source)
{
    if (result != 0 && stopped_at != nullptr)
        throw plain_failure(source.name + ": \"" + path_text(stopped_at) + "\" can't update " + target.name +
                            ", which has no such member");
    if (result != 0)
        throw plain_failure(source.name + ": can't be merged into " + target.name);
    if (const clparse_node *unnamed = find_unnamed_member(target.root()))
        throw plain_failure(source.name + ": \"" + path_text(unnamed->parent) +
                            "\" is an array, but a struct in " + target.name);
}

int run_merge(const merge_options &options)
{
    const document target = read_document(options.target);
    const document source = read_document(options.source);
    check_merge(merge_trees(options, target, source), target, source);
    const form wanted = options.json ? form::json : options.xml ? form::xml : form::corelink;
    write_output(options.output,
                 careful_text_of(target.name + ", " + source.name, target, wanted, options.pretty, "") +
                     "\n");
    return success;
}

int run_check(const std::vector<std::string> &files)
{
    int status = success;
    for (const std::string &file : files) {
        try {
            read_document(file);
        } catch (const failure &fault) {
            report(fault);
            status = input_fault;
        }
    }
    return status;
}

std::string check_xml_name(const std::string &name)
{
    auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
    bool good = !name.empty() && letter(name[0]);
    for (const char c : name)
        good = good && (letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.');
    return good ? "" : "\"" + name + "\" is no name: a letter or _, then letters, digits, _, - and .";
}

void add_output_option(CLI::App *command, std::string &output)
{
    command->add_option("-o,--output", output, "Replace FILE with the result, whole or not at all")
        ->type_name("FILE");
}

struct writer_command {
    form wanted;
    const char *name, *purpose, *pretty, *examples;
};

constexpr writer_command writer_commands[] = {
    {form::json, "json", "Write a document as JSON", "Indent, one value a line",
     "Examples:\n"
     "  qvl json --pretty appliance.cl\n"
     "  qvl json appliance.cl | python3 -m json.tool\n"
     "  qvl json -o appliance.json appliance.cl"},
    {form::xml, "xml", "Write a document as XML", "Indent, one element a line",
     "Examples:\n"
     "  qvl xml --pretty appliance.cl\n"
     "  qvl xml --root status status.cl       (a given root element drops the XML prolog)"},
    {form::corelink, "corelink", "Write a document as corelink text", "Indent, one value a line",
     "Examples:\n"
     "  qvl corelink appliance.cl             (all in one line, as daemons send it)\n"
     "  qvl corelink --pretty -o a.cl a.cl    (lay a file out anew)"},
    {form::paths, "paths", "Write a document as a list of paths and values", "One path a line",
     "Examples:\n"
     "  qvl paths --pretty appliance.cl | grep enabled\n"
     "  qvl paths - < appliance.cl"},
};

void add_writer(CLI::App &app, const writer_command &row, write_options &options)
{
    CLI::App *command = app.add_subcommand(row.name, row.purpose);
    command->add_option("FILE", options.file, "The document; - or nothing reads standard input")
        ->type_name("");
    CLI::Option *pretty = command->add_flag("-p,--pretty", options.pretty, row.pretty);
    CLI::Option *raw = command->add_flag("--raw", options.raw, "The library's own text, which escapes less");
    if (row.wanted != form::xml)
        raw->excludes(pretty);
    if (row.wanted == form::xml)
        command->add_option("--root", options.root_name, "Name of the root element, and no prolog")
            ->type_name("NAME")
            ->check(check_xml_name);
    add_output_option(command, options.output);
    command->footer(row.examples);
}

void add_get(CLI::App &app, get_options &options)
{
    CLI::App *command = app.add_subcommand("get", "Print values by path, one a line");
    command->add_option("FILE", options.file, "The document; - reads standard input")
        ->type_name("")
        ->required();
    command
        ->add_option("PATH", options.paths,
                     "Names and positions separated by dots: network.dns.0\n"
                     "Structs and arrays are printed as corelink text")
        ->type_name("")
        ->required();
    CLI::Option *type = command->add_flag("-t,--type", options.type, "Print the types' names instead");
    command->add_flag("-j,--json", options.json, "Print the values as JSON")->excludes(type);
    add_output_option(command, options.output);
    command->footer("Nothing is printed when a path is missing.\n\n"
                    "Examples:\n"
                    "  qvl get appliance.cl unit.name ports.fc1.wwpn\n"
                    "  qvl get --type appliance.cl network.dns\n"
                    "  qvl get --json appliance.cl events.0");
}

void add_walk(CLI::App &app, walk_options &options)
{
    CLI::App *command = app.add_subcommand("walk", "List the leaves that SNMP's get-next would visit");
    command->add_option("FILE", options.file, "The document; - reads standard input")
        ->type_name("")
        ->required();
    command
        ->add_option("PATH", options.path,
                     "Where to begin; the walk ends with the member of the\n"
                     "document that PATH is in. Without it, all are walked")
        ->type_name("");
    add_output_option(command, options.output);
    command->footer(
        "Members of the document that are no struct or array are not visited. Where a struct is left,\n"
        "siblings whose names differ from its own in the first character only are passed over.\n\n"
        "Examples:\n"
        "  qvl walk appliance.cl\n"
        "  qvl walk appliance.cl ports.fc1");
}

void add_merge(CLI::App &app, merge_options &options)
{
    CLI::App *command = app.add_subcommand("merge", "Merge SOURCE into TARGET and write the merged document");
    command->add_option("TARGET", options.target, "The document that is merged into; - reads standard input")
        ->type_name("")
        ->required();
    command
        ->add_option("SOURCE", options.source, "The document whose values are taken; - reads standard input")
        ->type_name("")
        ->required();
    command->add_flag("--update", options.update,
                      "Take values for members that TARGET has; fail at any other");
    command->add_flag("--insert", options.insert, "Also append the members that TARGET lacks");
    command->add_flag(
        "--insert-sort", options.insert_sort,
        "As --insert, then sort where something was appended, by the\nnumbers in names: m2 before m10");
    command->add_flag("--select", options.select, "Fill the members that TARGET names; ignore any other");
    CLI::Option *json = command->add_flag("--json", options.json, "Write JSON");
    command->add_flag("--xml", options.xml, "Write XML")->excludes(json);
    command->add_flag("-p,--pretty", options.pretty, "Indent, one value a line");
    add_output_option(command, options.output);
    command->footer(
        "One of --update, --insert, --insert-sort and --select is needed. TARGET itself is not changed,\n"
        "but -o may name it.\n\n"
        "Examples:\n"
        "  qvl merge --update -o appliance.cl appliance.cl change.cl\n"
        "  qvl merge --select --json query.cl appliance.cl\n"
        "  qvl merge --insert-sort --pretty appliance.cl maps.cl");
    command->final_callback([&options] {
        const int ways = options.update + options.insert + options.insert_sort + options.select;
        if (ways != 1)
            throw CLI::ValidationError("merge",
                                       "one of --update, --insert, --insert-sort and --select is needed");
        if (options.target == "-" && options.source == "-")
            throw CLI::ValidationError("merge", "standard input can be one document only");
    });
}

void add_check(CLI::App &app, std::vector<std::string> &files)
{
    CLI::App *command =
        app.add_subcommand("check", "Say where documents are wrong, nothing when they are right");
    command->add_option("FILE", files, "The documents; - reads standard input")->type_name("")->required();
    command->footer("Examples:\n"
                    "  qvl check *.cl\n"
                    "  generate-config | qvl check - && echo good");
}

// A descriptor that the caller closed would be given to the next file, and messages would end up in it.
void keep_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF)
            // Of the wrong direction, so that its use is an error; only messages may be lost.
            open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_WRONLY);
    }
}

int run(int argc, char **argv)
{
    CLI::App app("Reads documents in the corelink language and writes, queries, merges and checks them.\n"
                 "Explains transceivers and SCSI codes; makes checksums and salted passwords.\n"
                 "Sends messages to daemons, asks them, and shows what is sent.",
                 "qvl");
    app.set_version_flag("-V,--version", "qvl " QVL_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.get_formatter()->column_width(26);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.footer("'qvl COMMAND --help' explains a command.\n"
               "Exit status: 0 success, 1 the input or the output is at fault, 2 wrong usage.\n\n"
               "Examples:\n"
               "  qvl check appliance.cl\n"
               "  qvl get appliance.cl unit.name\n"
               "  qvl json --pretty appliance.cl");
    write_options writer;
    get_options get;
    walk_options walk;
    merge_options merge;
    std::vector<std::string> files;
    for (const writer_command &row : writer_commands)
        add_writer(app, row, writer);
    add_get(app, get);
    add_walk(app, walk);
    add_merge(app, merge);
    add_check(app, files);
    std::function<int()> run_command;
    const auto device_options = add_device_commands(app, run_command);
    const auto message_options = add_message_commands(app, run_command);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        write_output("", app.help());
        return success;
    } catch (const CLI::CallForVersion &version) {
        write_output("", std::string(version.what()) + "\n");
        return success;
    } catch (const CLI::ParseError &error) {
        std::string command = "qvl";
        for (const CLI::App *at = &app; !at->get_subcommands().empty();) {
            at = at->get_subcommands().front();
            command += " " + at->get_name();
        }
        report(plain_failure(error.what()));
        fprintf(stderr, "'%s --help' shows how it is used.\n", command.c_str());
        return usage_fault;
    }

    if (run_command)
        return run_command();
    for (const writer_command &row : writer_commands) {
        if (app.got_subcommand(row.name))
            return run_writer(row.wanted, writer);
    }
    if (app.got_subcommand("get"))
        return run_get(get);
    if (app.got_subcommand("walk"))
        return run_walk(walk);
    if (app.got_subcommand("merge"))
        return run_merge(merge);
    return run_check(files);
}

} // namespace

int main(int argc, char **argv)
{
    keep_standard_descriptors();
    // A closed pipe and a file size limit are errors of write, told like any other.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    try {
        return run(argc, argv);
    } catch (const failure &fault) {
        report(fault);
    } catch (const std::bad_alloc &) {
        fputs("qvl: out of memory\n", stderr);
    }
    return input_fault;
}
