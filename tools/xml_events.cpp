// No exception may pass through the library or the stream: the first one ends the document, and is thrown on
// when the reader is done. Neither the document nor its events are kept as a whole.
#include "xml_events.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>
#include <sys/types.h>
#include <vector>
#include <qvlib/sax.h>
#include "failure.h"
#include "input.h"

namespace qvl
{

namespace
{

std::size_t line_feeds(std::string_view bytes)
{
    return static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), '\n'));
}

class listing
{
  public:
    listing(const std::string &path, const std::function<void(const std::string &)> &write)
        : name_(input_name(path)), file_(path), write_(write)
    {
    }

    void read_document();

  private:
    static listing &of(void *cookie)
    {
        return *static_cast<listing *>(cookie);
    }

    template <class Action> void guarded(Action action)
    {
        if (failed_)
            return;
        try {
            action();
        } catch (...) {
            failed_ = std::current_exception();
        }
    }

    std::size_t read_piece(char *to, std::size_t room);
    void write_lines();
    std::size_t line_at(FILE *stream);

    static ssize_t on_read(void *cookie, char *to, std::size_t room);
    static void on_start(void *context, const sax_attribute *attributes, void *cookie);
    static void on_end(void *context, void *cookie);
    static void on_characters(const char *text, std::size_t length, void *cookie);
    static void on_comment(const char *text, void *cookie, void *context);
    static void on_error(const char *message, void *cookie);

    static constexpr sax_callbacks callbacks = {on_start,      on_end,     nullptr, nullptr,
                                                on_characters, on_comment, on_error};

    std::string name_;
    input_file file_;
    const std::function<void(const std::string &)> &write_;
    std::string piece_; // what the stream read last
    std::size_t line_feeds_before_piece_ = 0;
    std::string lines_, message_;
    bool ended_ = false;
    std::exception_ptr failed_;
};

void listing::write_lines()
{
    write_(lines_);
    lines_.clear();
}

// What has been found is written before the next piece is waited for.
std::size_t listing::read_piece(char *to, std::size_t room)
{
    write_lines();
    const std::size_t got = file_.read(to, room);
    line_feeds_before_piece_ += line_feeds(piece_);
    piece_.assign(to, got);
    return got;
}

ssize_t listing::on_read(void *cookie, char *to, std::size_t room)
{
    listing &self = of(cookie);
    std::size_t got = 0;
    if (!self.ended_)
        self.guarded([&] { got = self.read_piece(to, room); });
    return static_cast<ssize_t>(got);
}

std::string quoted(std::string_view bytes)
{
    return "\"" + escaped(bytes) + "\"";
}

const char *name_of(const void *context)
{
    return static_cast<const char *>(context);
}

void listing::on_start(void *context, const sax_attribute *attributes, void *cookie)
{
    listing &self = of(cookie);
    self.guarded([&] {
        std::vector<const sax_attribute *> newest_first;
        for (const sax_attribute *each = attributes; each != nullptr; each = each->next)
            newest_first.push_back(each);
        self.lines_ += std::string("start ") + name_of(context);
        for (auto each = newest_first.rbegin(); each != newest_first.rend(); ++each)
            self.lines_ += std::string(" ") + (*each)->name + "=" + quoted((*each)->value);
        self.lines_ += "\n";
    });
}

void listing::on_end(void *context, void *cookie)
{
    listing &self = of(cookie);
    self.guarded([&] { self.lines_ += std::string("end ") + name_of(context) + "\n"; });
}

void listing::on_characters(const char *text, std::size_t length, void *cookie)
{
    listing &self = of(cookie);
    self.guarded([&] { self.lines_ += "text " + quoted({text, length}) + "\n"; });
}

void listing::on_comment(const char *text, void *cookie, void *)
{
    listing &self = of(cookie);
    self.guarded([&] { self.lines_ += "comment " + quoted(text) + "\n"; });
}

void listing::on_error(const char *message, void *cookie)
{
    listing &self = of(cookie);
    self.guarded([&] { self.message_ = message; });
}

// The line of the byte that the stream stands behind, counted from 1. Drops what the stream has read ahead.
std::size_t listing::line_at(FILE *stream)
{
    ended_ = true;
    std::size_t read_ahead = 0;
    while (getc(stream) != EOF)
        read_ahead++;
    const std::size_t taken = piece_.size() - read_ahead;
    const std::string_view before(piece_.data(), taken > 0 ? taken - 1 : 0);
    return line_feeds_before_piece_ + line_feeds(before) + 1;
}

struct close_stream {
    void operator()(FILE *stream) const
    {
        fclose(stream);
    }
};

void listing::read_document()
{
    const std::unique_ptr<FILE, close_stream> stream(
        fopencookie(this, "r", {on_read, nullptr, nullptr, nullptr}));
    if (!stream)
        throw plain_failure(name_ + ": " + strerror(errno));
    const int result = sax_parse_file(stream.get(), &callbacks, this);
    if (failed_)
        std::rethrow_exception(failed_);
    write_lines();
    if (result != 0)
        throw failure_in_line(name_, line_at(stream.get()), message_);
}

} // namespace

void list_xml_events(const std::string &path, const std::function<void(const std::string &)> &write)
{
    listing(path, write).read_document();
}

} // namespace qvl
