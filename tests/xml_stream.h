// A stream over bytes in memory that arrive in pieces, and what the library's XML reader calls back for it,
// written down as tests/models/xml_model.h does.
#ifndef QVLIB_TESTS_XML_STREAM_H
#define QVLIB_TESTS_XML_STREAM_H

#include <qvlib/sax.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "models/xml_model.h"

namespace xml_stream
{

// How a stream hands out its bytes.
struct manner {
    size_t piece = 4096;   // bytes that a read gives at most
    size_t buffer = 4096;  // of the stream, 0 for none
    size_t fails_at = ~0u; // offset from which reads fail
};

class memory_stream
{
  public:
    explicit memory_stream(std::string_view bytes, manner how = {}) : bytes_(bytes), how_(how)
    {
        stream = fopencookie(this, "r", {read_piece, nullptr, seek, nullptr});
        setvbuf(stream, nullptr, how.buffer == 0 ? _IONBF : _IOFBF, how.buffer);
    }
    ~memory_stream()
    {
        fclose(stream);
    }
    memory_stream(const memory_stream &) = delete;
    memory_stream &operator=(const memory_stream &) = delete;

    FILE *stream;

  private:
    static ssize_t read_piece(void *cookie, char *to, size_t room)
    {
        auto *self = static_cast<memory_stream *>(cookie);
        if (self->at_ >= self->how_.fails_at) {
            errno = EIO;
            return -1;
        }
        const size_t end = std::min(self->bytes_.size(), self->how_.fails_at);
        const size_t size = std::min({room, self->how_.piece, end - self->at_});
        if (size > 0)
            memcpy(to, self->bytes_.data() + self->at_, size);
        self->at_ += size;
        return static_cast<ssize_t>(size);
    }

    static int seek(void *cookie, off64_t *offset, int whence)
    {
        auto *self = static_cast<memory_stream *>(cookie);
        const off64_t from = whence == SEEK_SET   ? 0
                             : whence == SEEK_CUR ? static_cast<off64_t>(self->at_)
                                                  : static_cast<off64_t>(self->bytes_.size());
        if (from + *offset < 0 || from + *offset > static_cast<off64_t>(self->bytes_.size()))
            return -1;
        *offset += from;
        self->at_ = static_cast<size_t>(*offset);
        return 0;
    }

    std::string_view bytes_;
    manner how_;
    size_t at_ = 0;
};

struct record {
    FILE *stream;
    xml_model::outcome outcome;

    void tell(const std::string &event)
    {
        outcome.events.push_back(event + " @" + std::to_string(ftell(stream)));
    }
};

inline record &record_of(void *cookie)
{
    return *static_cast<record *>(cookie);
}

inline const char *name_of(void *context)
{
    return static_cast<const char *>(context);
}

inline void on_start(void *context, const sax_attribute *attributes, void *cookie)
{
    std::string event = std::string("start ") + name_of(context);
    for (; attributes; attributes = attributes->next)
        event += std::string(" ") + attributes->name + "=" + attributes->value;
    record_of(cookie).tell(event);
}

inline void on_end(void *context, void *cookie)
{
    record_of(cookie).tell(std::string("end ") + name_of(context));
}

inline void on_characters(const char *text, size_t length, void *cookie)
{
    record_of(cookie).tell("characters " + std::string(text, length) +
                           (text[length] == '\0' ? "" : " unterminated"));
}

inline void on_comment(const char *text, void *cookie, void *context)
{
    record_of(cookie).tell(std::string("comment ") + text + name_of(context)); // which is empty
}

inline void on_error(const char *message, void *cookie)
{
    record_of(cookie).tell(std::string("error ") + message);
}

inline sax_callbacks callbacks_for(xml_model::wanted callbacks)
{
    return {callbacks.start ? on_start : nullptr,
            callbacks.end ? on_end : nullptr,
            nullptr,
            nullptr,
            callbacks.characters ? on_characters : nullptr,
            callbacks.comment ? on_comment : nullptr,
            on_error};
}

inline xml_model::outcome read(FILE *stream, xml_model::wanted callbacks = {})
{
    record kept = {stream, {}};
    const sax_callbacks functions = callbacks_for(callbacks);
    kept.outcome.result = sax_parse_file(stream, &functions, &kept);
    kept.outcome.read = static_cast<size_t>(ftell(stream));
    return kept.outcome;
}

inline xml_model::outcome read(std::string_view document, xml_model::wanted callbacks = {}, manner how = {})
{
    const memory_stream bytes(document, how);
    return read(bytes.stream, callbacks);
}

} // namespace xml_stream

#endif
