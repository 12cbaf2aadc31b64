// The SAX XML reader: a state machine over a constant table of rows. The first row that applies to a byte in
// the current state gives the action and the next state. The compiler unfolds the rows into one transition
// for each state and byte, or each state and column of bytes in a firmware build.
//
// Two ways lead through the table, with the same result. `take` deals with any byte, and is where callbacks
// are called. `skip_quiet` deals with runs of bytes that the stream has read ahead, as long as they call
// nothing back: it is what makes the reader fast. It runs under the stream's lock; nothing that waits or
// calls back does.
//
// At any callback the stream stands behind the byte that brought it about, and every text ends in a NUL.
#include <qvlib/sax.h>

#include "guard.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <pthread.h>

namespace
{

constexpr size_t buffer_size = 256;
constexpr size_t message_size = 256;

// What the attributes of one tag may take: a document without an end must not take all memory.
constexpr size_t most_attribute_bytes = size_t{16} << 20;

// Messages tell the numbers.
enum state : uint8_t {
    in_text = 0,
    after_open = 1, // "<"
    element_name = 2,
    end_tag = 3,
    in_tag = 4,
    attribute_name = 5,
    after_equals = 6,
    attribute_value = 7,
    after_slash = 8, // "/" of an empty element
    entity = 9,
    instruction = 10,
    declaration = 11, // "<!D"
    after_mark = 12,  // "<!"
    after_mark_dash = 13,
    comment = 14,
    comment_dash = 15,
    comment_end = 16,
    state_count
};

// The appending actions are the numbers of their buffers.
enum action : uint8_t {
    to_element_name,
    to_attribute_name,
    to_attribute_value,
    to_characters,
    to_comment,
    to_entity_name,
    buffer_count,
    nothing = buffer_count,
    flush_characters,
    start_element,
    end_element,
    empty_element,
    end_attribute,
    end_comment,
    end_entity,
    illegal_state, // reserved, as is unsupported
    invalid_document,
    unsupported,
    no_row
};

// Applies to the byte `first`, to bytes from first to last, or, when first is 0, to any.
struct row {
    state current;
    char first, last;
    state next;
    action act;
};

constexpr row rows[] = {
    {in_text, '<', 0, after_open, flush_characters},
    {in_text, '&', 0, entity, nothing},
    {in_text, '>', 0, in_text, invalid_document},
    {in_text, 0, 0, in_text, to_characters},

    {after_open, ' ', 0, after_open, nothing},
    {after_open, 'a', 'z', element_name, to_element_name},
    {after_open, 'A', 'Z', element_name, to_element_name},
    {after_open, '0', '9', element_name, to_element_name},
    {after_open, '/', 0, end_tag, nothing},
    {after_open, '!', 0, after_mark, nothing},
    {after_open, '?', 0, instruction, nothing},

    {after_mark, '-', 0, after_mark_dash, nothing},
    {after_mark, 'D', 0, declaration, nothing},

    {instruction, '>', 0, in_text, nothing},
    {instruction, 0, 0, instruction, nothing},

    {entity, ';', 0, in_text, end_entity},
    {entity, 'a', 'z', entity, to_entity_name},
    {entity, '0', '9', entity, to_entity_name},

    {declaration, '>', 0, in_text, nothing},
    {declaration, 0, 0, declaration, nothing},

    {element_name, 'a', 'z', element_name, to_element_name},
    {element_name, 'A', 'Z', element_name, to_element_name},
    {element_name, '0', '9', element_name, to_element_name},
    {element_name, ' ', 0, in_tag, nothing},
    {element_name, '>', 0, in_text, start_element},
    {element_name, '/', 0, after_slash, nothing},

    {end_tag, 'a', 'z', end_tag, to_element_name},
    {end_tag, 'A', 'Z', end_tag, to_element_name},
    {end_tag, '0', '9', end_tag, to_element_name},
    {end_tag, '>', 0, in_text, end_element},

    {in_tag, ' ', 0, in_tag, nothing},
    {in_tag, '\t', 0, in_tag, nothing},
    {in_tag, '\n', 0, in_tag, nothing},
    {in_tag, 'a', 'z', attribute_name, to_attribute_name},
    {in_tag, 'A', 'Z', attribute_name, to_attribute_name},

    {attribute_name, 'a', 'z', attribute_name, to_attribute_name},
    {attribute_name, 'A', 'Z', attribute_name, to_attribute_name},
    {attribute_name, '-', 0, attribute_name, to_attribute_name},
    {attribute_name, '=', 0, after_equals, nothing},

    {after_equals, '"', 0, attribute_value, nothing},

    {in_tag, '/', 0, after_slash, nothing},
    {in_tag, '>', 0, in_text, start_element},

    {after_slash, '>', 0, in_text, empty_element},

    {attribute_value, '"', 0, in_tag, end_attribute},
    {attribute_value, 0, 0, attribute_value, to_attribute_value},

    {after_mark_dash, '-', 0, comment, nothing},
    {after_mark_dash, 0, 0, in_text, invalid_document},

    {comment, '-', 0, comment_dash, to_comment},
    {comment, 0, 0, comment, to_comment},

    {comment_dash, '-', 0, comment_end, nothing},
    {comment_dash, 0, 0, comment, to_comment},

    {comment_end, '>', 0, in_text, end_comment},
    {comment_end, 0, 0, in_text, invalid_document},
};
static_assert(std::size(rows) == 53);

struct transition {
    state next;
    action act;

    constexpr bool operator==(const transition &) const = default;
};

constexpr bool applies(const row &candidate, unsigned char byte)
{
    const auto first = static_cast<unsigned char>(candidate.first);
    const auto last = static_cast<unsigned char>(candidate.last);
    return first == 0 || byte == first || (last != 0 && byte >= first && byte <= last);
}

constexpr transition first_that_applies(unsigned current, unsigned byte)
{
    for (const row &candidate : rows) {
        if (candidate.current == current && applies(candidate, static_cast<unsigned char>(byte)))
            return {candidate.next, candidate.act};
    }
    return {static_cast<state>(current), no_row};
}

#if defined(QVLIB_FIRMWARE)

// Bytes that no row tells apart share a column: a tenth of the room, and one more table to look into.
constexpr bool same_column(unsigned one, unsigned other)
{
    unsigned current = 0;
    while (current < state_count && first_that_applies(current, one) == first_that_applies(current, other))
        current++;
    return current == state_count;
}

struct column_numbers {
    std::array<uint8_t, 256> of_byte;
    size_t count;
};

constexpr column_numbers number_columns()
{
    column_numbers made = {};
    for (unsigned byte = 0; byte < 256; byte++) {
        unsigned first = 0;
        while (!same_column(first, byte))
            first++;
        made.of_byte[byte] = static_cast<uint8_t>(first == byte ? made.count++ : made.of_byte[first]);
    }
    return made;
}

constexpr column_numbers columns = number_columns();
constexpr size_t column_count = columns.count;
constexpr std::array<uint8_t, 256> column_of = columns.of_byte;

#else

constexpr size_t column_count = 256;
constexpr struct {
    constexpr uint8_t operator[](uint8_t byte) const
    {
        return byte;
    }
} column_of;

#endif

// The steps of a state, by the byte.
class transitions_of_state
{
  public:
    constexpr const transition &operator[](uint8_t byte) const
    {
        return steps_[column_of[byte]];
    }
    constexpr void set(uint8_t byte, transition step)
    {
        steps_[column_of[byte]] = step;
    }

  private:
    std::array<transition, column_count> steps_ = {};
};

constexpr std::array<transitions_of_state, state_count> unfold_rows()
{
    std::array<transitions_of_state, state_count> unfolded = {};
    for (unsigned current = 0; current < state_count; current++) {
        for (unsigned byte = 0; byte < 256; byte++)
            unfolded[current].set(static_cast<uint8_t>(byte), first_that_applies(current, byte));
    }
    return unfolded;
}

constexpr std::array<transitions_of_state, state_count> transitions = unfold_rows();

struct entity_row {
    char name[5];
    char character;
};

constexpr entity_row entities[] = {{"quot", '"'}, {"amp", '&'}, {"apos", '\''}, {"lt", '<'}, {"gt", '>'}};

struct text_buffer {
    char text[buffer_size + 1];
    uint16_t length;
};

// Callbacks read the element's name at its beginning.
struct sax_context {
    text_buffer buffers[buffer_count];
    sax_attribute *attributes; // newest first
    size_t attribute_bytes;    // of their blocks
    const sax_callbacks *callbacks;
    void *cookie;
    state current;
    unsigned int line;
};
static_assert(offsetof(sax_context, buffers[to_element_name].text) == 0);

class context_guard
{
  public:
    explicit context_guard(sax_context *context) : context_(context)
    {
    }
    ~context_guard()
    {
        const qv::errno_guard kept;
        free(context_);
    }
    context_guard(const context_guard &) = delete;
    context_guard &operator=(const context_guard &) = delete;

  private:
    sax_context *context_;
};

bool fail(const sax_callbacks &callbacks, void *cookie, const char *message)
{
    if (callbacks.error)
        callbacks.error(message, cookie);
    return false;
}

bool fail(sax_context &context, const char *message)
{
    return fail(*context.callbacks, context.cookie, message);
}

bool fail_without_callback(sax_context &context)
{
    fail(context, "A required callback is missing");
    errno = EINVAL;
    return false;
}

bool fail_without_memory(const sax_callbacks &callbacks, void *cookie)
{
    fail(callbacks, cookie, "Cannot allocate memory");
    errno = ENOMEM;
    return false;
}

bool fail_without_row(sax_context &context, unsigned char byte)
{
    const bool printable = byte >= ' ' && byte <= '~';
    char message[message_size];
    snprintf(message, sizeof(message), printable ? "%s (%u: '%c') on line %u." : "%s (%u: %#.2x) on line %u.",
             "Invalid XML Document: Invalid State", static_cast<unsigned>(context.current), byte,
             context.line);
    return fail(context, message);
}

const char *text_of(text_buffer &buffer)
{
    buffer.text[buffer.length] = '\0';
    return buffer.text;
}

void empty(text_buffer &buffer)
{
    buffer.text[0] = '\0';
    buffer.length = 0;
}

void push(text_buffer &buffer, unsigned char byte)
{
    buffer.text[buffer.length++] = static_cast<char>(byte);
}

bool append(sax_context &context, action act, unsigned char byte)
{
    text_buffer &buffer = context.buffers[act];
    if (buffer.length >= buffer_size) {
        if (act != to_characters && act != to_comment)
            return fail(context, "XML identifier exceeded buffer");
        if (context.callbacks->characters)
            context.callbacks->characters(text_of(buffer), buffer.length, context.cookie);
        empty(buffer);
    }
    push(buffer, byte);
    return true;
}

bool flush(sax_context &context)
{
    text_buffer &buffer = context.buffers[to_characters];
    if (buffer.length == 0)
        return true;
    if (!context.callbacks->characters)
        return fail_without_callback(context);
    context.callbacks->characters(text_of(buffer), buffer.length, context.cookie);
    empty(buffer);
    return true;
}

void free_attributes(sax_context &context)
{
    while (sax_attribute *first = context.attributes) {
        context.attributes = first->next;
        free(first);
    }
    context.attribute_bytes = 0;
}

// Record, name and value are one block.
bool push_attribute(sax_context &context)
{
    text_buffer &name = context.buffers[to_attribute_name];
    text_buffer &value = context.buffers[to_attribute_value];
    const size_t name_size = name.length + 1u, value_size = value.length + 1u;
    const size_t size = sizeof(sax_attribute) + name_size + value_size;
    const bool fits = size <= most_attribute_bytes - context.attribute_bytes;
    auto *attribute = fits ? static_cast<sax_attribute *>(malloc(size)) : nullptr;
    if (!attribute)
        return fail_without_memory(*context.callbacks, context.cookie);
    context.attribute_bytes += size;
    char *texts = reinterpret_cast<char *>(attribute + 1);
    attribute->name = static_cast<char *>(memcpy(texts, text_of(name), name_size));
    attribute->value = static_cast<char *>(memcpy(texts + name_size, text_of(value), value_size));
    attribute->next = context.attributes;
    context.attributes = attribute;
    empty(name);
    empty(value);
    return true;
}

bool start(sax_context &context, bool with_end)
{
    text_buffer &name = context.buffers[to_element_name];
    text_of(name);
    if (context.callbacks->start)
        context.callbacks->start(&context, context.attributes, context.cookie);
    if (with_end && context.callbacks->end)
        context.callbacks->end(&context, context.cookie);
    empty(name);
    free_attributes(context);
    return true;
}

bool end(sax_context &context)
{
    text_buffer &name = context.buffers[to_element_name];
    text_of(name);
    if (!context.callbacks->end)
        return fail_without_callback(context);
    context.callbacks->end(&context, context.cookie);
    empty(name);
    return true;
}

bool complete_comment(sax_context &context)
{
    text_buffer &buffer = context.buffers[to_comment];
    if (context.callbacks->comment)
        context.callbacks->comment(text_of(buffer), context.cookie, &context);
    empty(buffer);
    return true;
}

// The name stays in its buffer, and later names are appended to it: only the first reference is decoded.
bool decode_entity(sax_context &context)
{
    const char *name = text_of(context.buffers[to_entity_name]);
    for (const entity_row &candidate : entities) {
        if (strcmp(candidate.name, name) == 0)
            return append(context, to_characters, static_cast<unsigned char>(candidate.character));
    }
    return true;
}

bool perform(sax_context &context, action act, unsigned char byte)
{
    switch (act) {
    case to_element_name:
    case to_attribute_name:
    case to_attribute_value:
    case to_characters:
    case to_comment:
    case to_entity_name:
        return append(context, act, byte);
    case nothing:
        return true;
    case flush_characters:
        return flush(context);
    case start_element:
        return start(context, false);
    case end_element:
        return end(context);
    case empty_element:
        return start(context, true);
    case end_attribute:
        return push_attribute(context);
    case end_comment:
        return complete_comment(context);
    case end_entity:
        return decode_entity(context);
    case illegal_state:
        return fail(context, "Illegal XML State");
    case invalid_document:
        return fail(context, "Invalid XML Document");
    case unsupported:
        return fail(context, "Unsupported XML Encountered");
    case no_row:
        break;
    }
    return fail_without_row(context, byte);
}

bool take(sax_context &context, unsigned char byte)
{
    context.line += byte == '\n';
    const transition &step = transitions[context.current][byte];
    if (!perform(context, step.act, byte))
        return false;
    context.current = step.next;
    return true;
}

// Takes bytes for as long as nothing is called back and nothing can fail; returns where that ends.
const unsigned char *skip_quiet(sax_context &context, const unsigned char *at, const unsigned char *end)
{
    state current = context.current;
    unsigned int line = context.line;
    while (at != end) {
        const transition step = transitions[current][*at];
        // A run of bytes ends where one has another step than the first.
        const transitions_of_state &following = transitions[step.next];
        if (step.act < buffer_count) {
            text_buffer &buffer = context.buffers[step.act];
            const auto room = static_cast<ptrdiff_t>(buffer_size - buffer.length);
            if (room == 0)
                break;
            const unsigned char *stop = at + std::min(end - at, room);
            char *to = buffer.text + buffer.length;
            do {
                line += *at == '\n';
                *to++ = static_cast<char>(*at++);
            } while (at != stop && following[*at] == step);
            buffer.length = static_cast<uint16_t>(to - buffer.text);
        } else if (step.act == nothing) {
            do
                line += *at++ == '\n';
            while (at != end && following[*at] == step);
        } else if (step.act == flush_characters && context.buffers[to_characters].length == 0) {
            at++;
        } else {
            break;
        }
        current = step.next;
    }
    context.current = current;
    context.line = line;
    return at;
}

#if defined(__GLIBC__) && !defined(__UCLIBC__) && !defined(QVLIB_PORTABLE_STREAMS)

// Takes what is quiet among the bytes that the stream has read ahead. Returns whether one that is not
// follows, which is then read from the stream into `byte`. Never waits.
bool next_loud(sax_context &context, FILE *stream, unsigned char &byte)
{
    flockfile(stream);
    // Programs read these members, too, wherever getc_unlocked is inlined into them.
    const auto *begin = reinterpret_cast<const unsigned char *>(stream->_IO_read_ptr);
    const auto *end = reinterpret_cast<const unsigned char *>(stream->_IO_read_end);
    const unsigned char *at = begin < end ? skip_quiet(context, begin, end) : begin;
    const bool found = at < end;
    if (found)
        byte = *at++;
    stream->_IO_read_ptr += at - begin;
    funlockfile(stream);
    return found;
}

#else

void unlock_file(void *stream)
{
    funlockfile(static_cast<FILE *>(stream));
}

// As above, but waits for bytes until one is not quiet or the stream ends.
bool next_loud(sax_context &context, FILE *stream, unsigned char &byte)
{
    bool found = false;
    flockfile(stream);
    pthread_cleanup_push(unlock_file, stream);
    for (int read; !found && (read = getc_unlocked(stream)) != EOF;) {
        byte = static_cast<unsigned char>(read);
        found = skip_quiet(context, &byte, &byte + 1) == &byte;
    }
    pthread_cleanup_pop(1);
    return found;
}

#endif

// getc waits, where next_loud doesn't: a thread that is cancelled meanwhile leaves the stream unlocked.
bool read_document(sax_context &context, FILE *stream)
{
    for (int read; (read = getc(stream)) != EOF;) {
        auto byte = static_cast<unsigned char>(read);
        do {
            if (!take(context, byte))
                return false;
        } while (next_loud(context, stream, byte));
    }
    return true;
}

} // namespace

int sax_parse_file(FILE *stream, const sax_callbacks *callbacks, void *cookie)
{
    if (!stream || !callbacks) {
        errno = EINVAL;
        return -1;
    }
    auto *context = static_cast<sax_context *>(calloc(1, sizeof(sax_context)));
    if (!context) {
        fail_without_memory(*callbacks, cookie);
        return -1;
    }
    const context_guard guard(context);
    context->callbacks = callbacks;
    context->cookie = cookie;
    // The attributes of a tag that is cut short stay allocated.
    return read_document(*context, stream) ? 0 : -1;
}
