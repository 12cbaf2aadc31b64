// Messages with positions. Lines end at a line feed; lines and columns count from 1, columns in bytes.
// Everything that comes from a file is escaped before it reaches the terminal.
#include "failure.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include "utf8.h"

namespace qvl
{

namespace
{

constexpr std::size_t longest_token = 40; // bytes of a token that a message repeats
constexpr std::size_t longest_line = 160; // bytes of a source line that is shown whole
constexpr std::size_t line_window = 60;   // bytes kept on either side of the caret in a longer one
constexpr std::string_view cut_mark = "...";

std::string escaped_byte(char c)
{
    constexpr char digits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    return {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
}

// One character of a source text as a terminal may have it, and the columns that it takes there.
struct cell {
    std::string text;
    std::size_t columns;
    std::size_t bytes;
};

cell next_cell(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t length = utf8_sequence(text);
    const bool second_control_set =
        first == 0xC2 && length == 2 && static_cast<unsigned char>(text[1]) < 0xA0;
    if (length == 0 || first < 0x20 || first == 0x7F || second_control_set) {
        const std::string escape = escaped_byte(text[0]);
        return {escape, escape.size(), 1};
    }
    return {std::string(text.substr(0, length)), 1, length};
}

struct position {
    std::size_t line, column, line_start, line_end;
};

position find_position(std::string_view content, std::size_t offset)
{
    const std::string_view before = content.substr(0, offset);
    const std::size_t last_break = before.rfind('\n');
    const std::size_t start = last_break == before.npos ? 0 : last_break + 1;
    std::size_t end = std::min(content.find('\n', offset), content.size());
    if (end > start && end > offset && content[end - 1] == '\r')
        --end;
    const auto breaks = std::count(before.begin(), before.end(), '\n');
    return {static_cast<std::size_t>(breaks) + 1, offset - start + 1, start, end};
}

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Fills in the shown line and the caret's blanks: a tab stays a tab in both, so they line up at any tab
// width.
void show_line(failure &fault, std::string_view content, std::size_t offset, const position &where)
{
    std::size_t start = where.line_start;
    std::size_t end = where.line_end;
    if (end - start > longest_line) {
        if (offset - start > line_window)
            start = offset - line_window;
        end = std::min(end, offset + line_window);
        while (start > where.line_start && start < offset && is_continuation(content[start]))
            ++start;
        while (end > offset && end < where.line_end && is_continuation(content[end]))
            --end;
    }
    if (start > where.line_start) {
        fault.source_line = cut_mark;
        fault.caret_blanks.assign(cut_mark.size(), ' ');
    }
    for (std::size_t at = start; at < end;) {
        // The offending byte begins a cell of its own, even inside of a character.
        const std::size_t stop = at < offset ? std::min(end, offset) : end;
        const cell one = content[at] == '\t' ? cell{"\t", 0, 1} : next_cell(content.substr(at, stop - at));
        fault.source_line += one.text;
        if (at < offset)
            fault.caret_blanks += content[at] == '\t' ? "\t" : std::string(one.columns, ' ');
        at += one.bytes;
    }
    if (end < where.line_end)
        fault.source_line += cut_mark;
}

bool wants_colour()
{
    const char *no_colour = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    return isatty(STDERR_FILENO) && (no_colour == nullptr || *no_colour == '\0') &&
           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
}

} // namespace

failure plain_failure(std::string text)
{
    return {"", std::move(text), "", ""};
}

failure failure_at(std::string_view file, std::string_view content, std::size_t offset, std::string text)
{
    const position where = find_position(content, offset);
    failure fault{std::string(file) + ":" + std::to_string(where.line) + ":" + std::to_string(where.column),
                  std::move(text), "", "", true};
    show_line(fault, content, offset, where);
    return fault;
}

failure failure_in_line(std::string_view file, std::size_t line, std::string text)
{
    return {std::string(file) + ":" + std::to_string(line), std::move(text), "", ""};
}

std::string place_in_words(std::string_view content, std::size_t offset)
{
    const position where = find_position(content, offset);
    return "line " + std::to_string(where.line) + ", column " + std::to_string(where.column);
}

std::string shown(std::string_view bytes)
{
    std::string text;
    for (std::size_t at = 0; at < bytes.size();) {
        if (at >= longest_token) {
            text += cut_mark;
            break;
        }
        if (bytes[at] == '\n' || bytes[at] == '\t') {
            text += bytes[at] == '\n' ? "\\n" : "\\t";
            ++at;
            continue;
        }
        const cell one = next_cell(bytes.substr(at));
        text += one.text;
        at += one.bytes;
    }
    return text;
}

std::string escaped(std::string_view bytes)
{
    constexpr std::string_view special = "\n\t\"\\";
    constexpr std::string_view letters = "nt\"\\";
    std::string text;
    while (!bytes.empty()) {
        const std::size_t found = special.find(bytes[0]);
        const cell one = found == special.npos ? next_cell(bytes) : cell{{'\\', letters[found]}, 2, 1};
        text += one.text;
        bytes.remove_prefix(one.bytes);
    }
    return text;
}

std::string printable(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const bool plain = bytes[0] == '\n' || bytes[0] == '\t';
        const cell one = plain ? cell{std::string(1, bytes[0]), 1, 1} : next_cell(bytes);
        text += one.text;
        bytes.remove_prefix(one.bytes);
    }
    return text;
}

void report(const failure &fault)
{
    const bool colour = wants_colour();
    const char *bold = colour ? "\033[1m" : "";
    const char *red = colour ? "\033[1;31m" : "";
    const char *plain = colour ? "\033[0m" : "";
    std::string message = std::string(bold) + (fault.place.empty() ? "qvl" : fault.place) + ":" + plain +
                          " " + red + fault.text + plain + "\n";
    if (fault.has_source_line)
        message += fault.source_line + "\n" + fault.caret_blanks + red + "^" + plain + "\n";
    fwrite(message.data(), 1, message.size(), stderr);
}

} // namespace qvl
