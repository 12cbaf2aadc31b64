// No exception may pass through the library: what a callback could not keep is told when the reader is done.
#include "xml_events.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <qvlib/sax.h>

namespace qvl
{

namespace
{

struct listing {
    std::string lines, message;
    bool out_of_memory = false;
};

template <class Action> void keep(void *cookie, Action action)
{
    auto *kept = static_cast<listing *>(cookie);
    try {
        action(*kept);
    } catch (const std::bad_alloc &) {
        kept->out_of_memory = true;
    }
}

std::string quoted(std::string_view bytes)
{
    return "\"" + escaped(bytes) + "\"";
}

const char *name_of(const void *context)
{
    return static_cast<const char *>(context);
}

void on_start(void *context, const sax_attribute *attributes, void *cookie)
{
    keep(cookie, [=](listing &kept) {
        std::string written; // in the order of the document, which is not the list's
        for (const sax_attribute *each = attributes; each != nullptr; each = each->next)
            written = std::string(" ") + each->name + "=" + quoted(each->value) + written;
        kept.lines += std::string("start ") + name_of(context) + written + "\n";
    });
}

void on_end(void *context, void *cookie)
{
    keep(cookie, [=](listing &kept) { kept.lines += std::string("end ") + name_of(context) + "\n"; });
}

void on_characters(const char *text, size_t length, void *cookie)
{
    keep(cookie, [=](listing &kept) { kept.lines += "text " + quoted({text, length}) + "\n"; });
}

void on_comment(const char *text, void *cookie, void *)
{
    keep(cookie, [=](listing &kept) { kept.lines += "comment " + quoted(text) + "\n"; });
}

void on_error(const char *message, void *cookie)
{
    keep(cookie, [=](listing &kept) { kept.message = message; });
}

constexpr sax_callbacks callbacks = {on_start, on_end, nullptr, nullptr, on_characters, on_comment, on_error};

struct close_stream {
    void operator()(FILE *stream) const
    {
        fclose(stream);
    }
};

// The line of the last byte that was read.
std::size_t line_at(std::string_view content, long read)
{
    const std::string_view before = content.substr(0, read > 0 ? static_cast<std::size_t>(read) - 1 : 0);
    return static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1;
}

} // namespace

xml_events list_xml_events(const std::string &name, const std::string &content)
{
    if (content.empty())
        return {};
    const std::unique_ptr<FILE, close_stream> stream(
        fmemopen(const_cast<char *>(content.data()), content.size(), "r")); // "r" leaves the bytes alone
    if (!stream)
        throw plain_failure(name + ": " + strerror(errno));
    listing kept;
    errno = 0;
    const int result = sax_parse_file(stream.get(), &callbacks, &kept);
    if (kept.out_of_memory || (result != 0 && errno == ENOMEM))
        throw std::bad_alloc();
    if (result == 0)
        return {kept.lines, {}};
    return {kept.lines, failure_in_line(name, line_at(content, ftell(stream.get())), kept.message)};
}

} // namespace qvl
