// The readers of qvl: documents with the places of their faults, bytes in hex, sense data, identification
// blocks, XML, and foreign texts on their way to a terminal.
//
//   scripts/fuzz 60 tool
//
// An input is the number of a reader, then what it reads.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "document.h"
#include "failing_alloc.h"
#include "failure.h"
#include "fuzz_input.h"
#include "input.h"
#include "leaf_walk.h"
#include "scsi.h"
#include "sfp.h"
#include "tree_model.h"
#include "utf8.h"
#include "writers.h"
#include "xml_events.h"

namespace
{

using fuzz::require;
using qvl::failure;

class memory_file
{
  public:
    explicit memory_file(std::string_view content) : fd_(memfd_create("input", MFD_CLOEXEC))
    {
        require(fd_ != -1, "no file");
        require(write(fd_, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
                "the file could not be filled");
    }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;
    ~memory_file()
    {
        close(fd_);
    }
    std::string path() const
    {
        return "/proc/self/fd/" + std::to_string(fd_);
    }

  private:
    int fd_;
};

// ---- What may reach a terminal

bool is_fit_for_a_terminal(std::string_view text, std::string_view allowed)
{
    while (!text.empty()) {
        const size_t length = qvl::utf8_sequence(text);
        const auto first = static_cast<unsigned char>(text[0]);
        const bool is_control = first < 0x20 || first == 0x7f ||
                                (length == 2 && first == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0);
        if (length == 0 || (is_control && allowed.find(text[0]) == allowed.npos))
            return false;
        text.remove_prefix(length);
    }
    return true;
}

// A fault stands in the text, and everything about it may be shown.
void check(const failure &fault, std::string_view content)
{
    require(is_fit_for_a_terminal(fault.text, ""), "control characters in a message");
    require(is_fit_for_a_terminal(fault.source_line, "\t"), "control characters in a source line");
    require(fault.caret_blanks.find_first_not_of(" \t") == std::string::npos, "a caret's blanks are none");
    if (!fault.has_source_line)
        return;
    const size_t second = fault.place.rfind(':'), first = fault.place.rfind(':', second - 1);
    const size_t line = std::stoul(fault.place.substr(first + 1)),
                 column = std::stoul(fault.place.substr(second + 1));
    const auto lines = static_cast<size_t>(std::count(content.begin(), content.end(), '\n')) + 1;
    require(line >= 1 && line <= lines && column >= 1, "a line that the text has not");
    size_t start = 0;
    for (size_t i = 1; i < line; i++)
        start = content.find('\n', start) + 1;
    require(start + column - 1 <= std::min(content.find('\n', start), content.size()),
            "a column that the line has not");
}

void show(std::string_view text)
{
    require(is_fit_for_a_terminal(qvl::shown(text), ""), "control characters in a short text");
    require(is_fit_for_a_terminal(qvl::escaped(text), ""), "control characters in an escaped text");
    require(is_fit_for_a_terminal(qvl::printable(text), "\n\t"), "control characters in a printed text");
    const std::string json = qvl::to_json_string(text);
    require(is_fit_for_a_terminal(json, "\x7f") || json.find("\xc2") != json.npos, "a JSON string");
    const failure fault = qvl::failure_at("f", text, text.size() / 2, "fault");
    check(fault, text);
}

// ---- Documents

// What corelink text can't say: names of array elements, and null ones.
bool is_kept(const tree_model::node &of)
{
    return std::all_of(of.children.begin(), of.children.end(), [&](const tree_model::node &child) {
        return is_kept(child) && !(of.type == CLPARSE_TYPE_ARRAY && child.is_tagged) &&
               !(child.type == CLPARSE_TYPE_STRING && child.text.find("\\\n") != std::string::npos);
    });
}

void write_again(const qvl::document &read)
{
    const tree_model::node tree = tree_model::value_of(read.root());
    for (const qvl::layout lines : {qvl::layout::compact, qvl::layout::pretty}) {
        const std::string json = qvl::to_json(read.root(), lines);
        require(std::all_of(json.begin(), json.end(), [](char c) { return (c & 0xe0) != 0 || c == '\n'; }),
                "control characters in JSON");
        qvl::to_paths(read.root(), lines);
        std::string text;
        try {
            text = qvl::to_corelink(read.root(), lines);
        } catch (const failure &) {
            require(!is_kept(tree), "a document can't be written");
            continue;
        }
        if (!is_kept(tree))
            continue;
        const std::unique_ptr<clparse_head, qvl::stop_tree> again(clparse_start(text.c_str()));
        require(again != nullptr, "what was written can't be read");
        require(tree_model::value_of(clparse_get_head(again.get())) == tree,
                "what was written is read as another document");
    }
    try {
        qvl::list_leaves(read, read.root());
    } catch (const failure &) {
    }
    try {
        qvl::check_xml_strings(read.root());
    } catch (const failure &) {
    }
}

void read_document(const std::string &text)
{
    const memory_file file(text);
    failing_alloc::live_blocks account; // of a document that is refused, some stay
    try {
        write_again(qvl::read_document(file.path()));
        require(account.count() == 0, "blocks of a document are left");
    } catch (const failure &fault) {
        require(fault.has_source_line, "a fault without a place");
        check(fault, text);
    }
}

// ---- Bytes

void explain(const std::vector<unsigned char> &bytes)
{
    failing_alloc::live_blocks account;
    try {
        require(is_fit_for_a_terminal(qvl::explain_sense_data("f", bytes), "\n"), "sense data in words");
    } catch (const failure &fault) {
        check(fault, "");
    }
    for (const qvl::sfp_form form : {qvl::sfp_form::corelink, qvl::sfp_form::json, qvl::sfp_form::table}) {
        try {
            const std::string text = qvl::describe_sfp("f", bytes, form);
            require(form == qvl::sfp_form::corelink || is_fit_for_a_terminal(text, "\n\x7f") ||
                        form == qvl::sfp_form::json,
                    "a transceiver in words");
        } catch (const failure &fault) {
            check(fault, "");
        }
    }
    require(account.count() == 0, "blocks of a report are left");
}

void read_hex(const std::string &text)
{
    try {
        explain(qvl::parse_hex("f", text));
    } catch (const failure &fault) {
        check(fault, text);
    }
}

void read_any_bytes(const std::string &content)
{
    const memory_file file(content);
    try {
        explain(qvl::read_bytes(file.path()));
    } catch (const failure &fault) {
        check(fault, content);
    }
}

void list_events(const std::string &content)
{
    const memory_file file(content);
    failing_alloc::live_blocks account; // of a tag that is cut short, some stay
    try {
        qvl::list_xml_events(file.path(), [](const std::string &lines) {
            require(is_fit_for_a_terminal(lines, "\n"), "control characters in events");
            require(lines.empty() || lines.back() == '\n', "events that are no lines");
        });
    } catch (const failure &fault) {
        check(fault, content);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    switch (in.below(8)) {
    case 0:
    case 1:
    case 2:
        read_document(in.rest());
        break;
    case 3:
        read_hex(in.rest());
        break;
    case 4:
        read_any_bytes(in.rest());
        break;
    case 5: {
        const std::string bytes = in.rest();
        explain({bytes.begin(), bytes.end()});
        break;
    }
    case 6:
        list_events(in.rest());
        break;
    default:
        show(in.rest());
        break;
    }
    return 0;
}
