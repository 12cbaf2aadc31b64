// The reentrant scanner's exported interface: buffers over texts and streams, their stack, and the accessors.
//
// It keeps the contract of flex's reentrant scanners, but never ends the process where those do: what can't
// go on is logged, and a buffer that can't grow ends the input.

#include "scanner.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <unistd.h>
#include <utility>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>

#include "../guard.h"

static_assert(sizeof(union clparse_token) == 8);

namespace qv
{

namespace
{

constexpr size_t largest_buffer = size_t{1} << 29; // a token's length is an int
constexpr int smallest_buffer = 16;
constexpr int stream_buffer = 16384;
constexpr size_t largest_read = 8192;

void panic(const char *message)
{
    __qv_log(QV_LOG_ERROR, "panic: %s", message);
}

// ---- Buffers

// Empties a buffer; its stream is read again.
void empty(yy_buffer_state *buffer)
{
    buffer->count = buffer->at = 0;
    buffer->base[0] = buffer->base[1] = '\0';
    buffer->status = yy_buffer_state::fresh;
}

void attach_stream(yy_buffer_state *buffer, FILE *stream)
{
    const errno_guard kept;
    empty(buffer);
    buffer->stream = stream;
    buffer->refills = true;
    buffer->by_line = stream && isatty(fileno(stream));
}

// Keeps the scanner's place in its current buffer.
void save_place(token_scanner *scanner)
{
    unmark_token(scanner);
    if (yy_buffer_state *buffer = scanner->buffer()) {
        buffer->at = static_cast<size_t>(scanner->at - buffer->base);
        buffer->count = static_cast<size_t>(scanner->end - buffer->base);
    }
}

// Goes on in the buffer that is on top of the stack now, if any.
void load_place(token_scanner *scanner)
{
    yy_buffer_state *buffer = scanner->buffer();
    scanner->terminated = false;
    scanner->length = 0;
    scanner->lonely = nullptr;
    if (!buffer) {
        scanner->at = scanner->end = const_cast<char *>(no_text);
        scanner->text = nullptr;
        return;
    }
    scanner->at = scanner->text = buffer->base + buffer->at;
    scanner->end = buffer->base + buffer->count;
    scanner->in = buffer->stream;
}

// Makes room for one more buffer in the stack.
bool has_stack_room(token_scanner *scanner)
{
    constexpr size_t step = 8;
    if (scanner->top + 1 < scanner->buffer_room)
        return true;
    const size_t room = scanner->buffer_room + step;
    void *moved = realloc(scanner->buffers, room * sizeof(yy_buffer_state *));
    if (!moved) {
        panic("out of dynamic memory in yyensure_buffer_stack()");
        return false;
    }
    scanner->buffers = static_cast<yy_buffer_state **>(moved);
    memset(scanner->buffers + scanner->buffer_room, 0, step * sizeof(yy_buffer_state *));
    scanner->buffer_room = room;
    return true;
}

// Makes room for more behind `kept` bytes.
bool grow(yy_buffer_state *buffer, size_t kept)
{
    size_t room = buffer->room > 0 ? buffer->room : size_t{smallest_buffer};
    while (room <= kept + 1)
        room *= 2;
    if (room == buffer->room)
        return true;
    void *moved = buffer->owned && room <= largest_buffer ? realloc(buffer->base, room + 2) : nullptr;
    if (!moved) {
        panic("fatal error - scanner input buffer overflow");
        return false;
    }
    buffer->base = static_cast<char *>(moved);
    buffer->room = room;
    return true;
}

size_t read_line(FILE *stream, char *to, size_t room)
{
    size_t count = 0;
    for (int c = 0; count < room && c != '\n'; count++) {
        c = getc(stream);
        if (c == EOF)
            break;
        to[count] = static_cast<char>(c);
    }
    return count;
}

size_t read_stream(const yy_buffer_state *buffer, FILE *stream, char *to, size_t room)
{
    if (!stream)
        return 0;
    for (;;) {
        errno = 0;
        const size_t count = buffer->by_line ? read_line(stream, to, room) : fread(to, 1, room, stream);
        if (count > 0 || !ferror(stream))
            return count;
        if (errno != EINTR) {
            panic("input in flex scanner failed");
            return 0;
        }
        clearerr(stream);
    }
}

// Reads more of the stream behind the current buffer for the token that begins at `from` and may go on behind
// the text. False when the token is all there is.
bool refill(token_scanner *scanner, const char *from)
{
    yy_buffer_state *buffer = scanner->buffer();
    if (!buffer || !buffer->refills)
        return false;
    if (buffer->status == yy_buffer_state::fresh) {
        buffer->stream = scanner->in;
        buffer->status = yy_buffer_state::reading;
    }
    const auto kept = static_cast<size_t>(scanner->end - from);
    size_t count = 0;
    const bool reads = buffer->status == yy_buffer_state::reading;
    if (reads) {
        memmove(buffer->base, from, kept);
        if (grow(buffer, kept))
            count = read_stream(buffer, scanner->in, buffer->base + kept,
                                std::min(buffer->room - kept - 1, largest_read));
        scanner->lonely = nullptr;
        scanner->text = scanner->at = buffer->base;
        scanner->end = buffer->base + kept + count;
        scanner->end[0] = scanner->end[1] = '\0';
    }
    // Behind its end a stream is read again, in case it has grown, but only when its last token was given.
    if (count == 0 && kept > 0)
        buffer->status = yy_buffer_state::ended;
    else if (count == 0)
        yyrestart(scanner->in, scanner);
    return reads && kept + count > 0;
}

void release_buffer(yy_buffer_state *buffer)
{
    if (buffer->owned)
        free(buffer->base);
    free(buffer);
}

// A buffer over memory; null, with a message, when there is no memory for its record.
yy_buffer_state *allocate_buffer(char *base, size_t room, bool owned, const char *failure)
{
    auto *buffer = static_cast<yy_buffer_state *>(calloc(1, sizeof(yy_buffer_state)));
    if (!buffer) {
        panic(failure);
        return nullptr;
    }
    buffer->base = base;
    buffer->room = room;
    buffer->owned = owned;
    return buffer;
}

// Makes a buffer over the input stream unless there is one.
bool add_missing_buffer(token_scanner *scanner)
{
    if (scanner->buffer())
        return true;
    if (!has_stack_room(scanner))
        return false;
    scanner->buffers[scanner->top] = yy_create_buffer(scanner->in, stream_buffer, scanner);
    return scanner->buffer();
}

token_scanner *scanner_of(void *handle)
{
    return static_cast<token_scanner *>(handle);
}

[[noreturn]] void end_process(const char *message)
{
    fprintf(stderr, "%s\n", message);
    exit(2);
}

} // namespace

int read_longer_token(token_scanner *scanner, clparse_token *value)
{
    lexeme token;
    do
        token = next_lexeme(scanner->at, scanner->end, scanner->lonely);
    while (token.looked >= scanner->end && refill(scanner, token.text));
    if (token.kind == CLPARSE_TOKEN_END) {
        scanner->text = scanner->at = scanner->end;
        scanner->length = 0;
        return token.kind;
    }
    scanner->text = const_cast<char *>(token.text);
    scanner->length = static_cast<size_t>(token.after - token.text);
    scanner->at = const_cast<char *>(token.after);
    switch (token.kind) {
    case CLPARSE_TOKEN_IDENTIFIER:
        value->str = copy_word(token.text, scanner->length);
        return value->str ? token.kind : CLPARSE_TOKEN_INVALID;
    case CLPARSE_TOKEN_STRING:
        value->str = copy_string(token.text + 1, scanner->length - 2, static_cast<size_t>(token.number));
        return value->str ? token.kind : CLPARSE_TOKEN_INVALID;
    case CLPARSE_TOKEN_NUMBER:
        value->num = token.number;
        return token.kind;
    case CLPARSE_TOKEN_BOOLEAN:
        value->boolean = *token.text == 't';
        return token.kind;
    case '"':
        scanner->lonely = token.looked;
        return token.kind;
    default:
        return token.kind;
    }
}

bool has_buffer(token_scanner *scanner)
{
    if (scanner->begun && scanner->buffer())
        return true;
    if (!scanner->in)
        scanner->in = stdin;
    if (!scanner->begun && !scanner->out)
        scanner->out = stdout;
    scanner->begun = true;
    if (!add_missing_buffer(scanner))
        return false;
    load_place(scanner); // the stream of the first buffer comes before one that was set since
    return true;
}

} // namespace qv

using namespace qv;

int yylex(union clparse_token *value, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!value || !s || !has_buffer(s))
        return CLPARSE_TOKEN_END;
    s->value = value;
    unmark_token(s);
    const int kind = read_token(s, value);
    mark_token(s);
    return kind;
}

int yylex_init(void **scanner)
{
    return yylex_init_extra(nullptr, scanner);
}

int yylex_init_extra(void *user_data, void **scanner)
{
    if (!scanner) {
        errno = EINVAL;
        return 1;
    }
    void *memory = malloc(sizeof(token_scanner));
    *scanner = memory;
    if (!memory) {
        errno = ENOMEM;
        return 1;
    }
    (new (memory) token_scanner{})->user_data = user_data;
    return 0;
}

int yylex_destroy(void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!s) {
        errno = EINVAL;
        return 1;
    }
    const std::span slots(s->buffers, s->buffers ? s->top + 1 : 0);
    for (yy_buffer_state *&slot : slots)
        if (slot && std::exchange(slot->doomed, true)) // it is in the stack twice
            slot = nullptr;
    for (yy_buffer_state *buffer : slots)
        if (buffer)
            release_buffer(buffer);
    free(s->buffers);
    free(s);
    return 0;
}

struct yy_buffer_state *yy_scan_string(const char *text, void *scanner)
{
    const size_t length = text ? strlen(text) : 0;
    if (!text || length > INT_MAX) {
        panic("out of dynamic memory in yy_scan_bytes()");
        return nullptr;
    }
    return yy_scan_bytes(text, static_cast<int>(length), scanner);
}

struct yy_buffer_state *yy_scan_bytes(const char *bytes, int length, void *scanner)
{
    if (!scanner || length < 0 || (!bytes && length > 0)) {
        panic("bad buffer in yy_scan_bytes()");
        return nullptr;
    }
    const size_t size = static_cast<size_t>(length) + 2;
    auto *copy = static_cast<char *>(length <= INT_MAX - 2 ? malloc(size) : nullptr);
    if (!copy) {
        panic("out of dynamic memory in yy_scan_bytes()");
        return nullptr;
    }
    if (length > 0)
        memcpy(copy, bytes, size - 2);
    copy[size - 2] = copy[size - 1] = '\0';
    yy_buffer_state *buffer = yy_scan_buffer(copy, size, scanner);
    if (!buffer) {
        free(copy);
        return nullptr;
    }
    buffer->owned = true;
    return buffer;
}

struct yy_buffer_state *yy_scan_buffer(char *base, size_t size, void *scanner)
{
    if (!scanner || !base || size < 2 || size > INT_MAX || base[size - 2] || base[size - 1])
        return nullptr;
    if (!has_stack_room(scanner_of(scanner)))
        return nullptr;
    yy_buffer_state *buffer =
        allocate_buffer(base, size - 2, false, "out of dynamic memory in yy_scan_buffer()");
    if (!buffer)
        return nullptr;
    buffer->count = size - 2;
    yy_switch_to_buffer(buffer, scanner);
    return buffer;
}

struct yy_buffer_state *yy_create_buffer(FILE *stream, int size, void *scanner)
{
    constexpr const char *failure = "out of dynamic memory in yy_create_buffer()";
    if (!scanner)
        return nullptr;
    const size_t room = size < smallest_buffer ? size_t{smallest_buffer} : static_cast<size_t>(size);
    yy_buffer_state *buffer = allocate_buffer(nullptr, room, true, failure);
    if (!buffer)
        return nullptr;
    buffer->base = static_cast<char *>(room <= largest_buffer ? malloc(room + 2) : nullptr);
    if (!buffer->base) {
        panic(failure);
        free(buffer);
        return nullptr;
    }
    buffer->line = 1;
    attach_stream(buffer, stream);
    return buffer;
}

void yy_delete_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!buffer || !s)
        return;
    // The last token's end stays marked: the memory of a yy_scan_buffer may be gone.
    if (buffer == s->buffer()) {
        s->buffers[s->top] = nullptr;
        load_place(s);
    }
    release_buffer(buffer);
}

void yy_flush_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!buffer || !s)
        return;
    empty(buffer);
    if (buffer == s->buffer())
        load_place(s);
}

void yy_switch_to_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!buffer || !s || buffer == s->buffer() || !has_stack_room(s))
        return;
    save_place(s);
    s->buffers[s->top] = buffer;
    load_place(s);
}

void yypush_buffer_state(struct yy_buffer_state *buffer, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!buffer || !s || !has_stack_room(s))
        return;
    save_place(s);
    if (s->buffer())
        s->top++;
    s->buffers[s->top] = buffer;
    load_place(s);
}

void yypop_buffer_state(void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!s || !s->buffer())
        return;
    yy_delete_buffer(s->buffer(), s);
    if (s->top > 0)
        s->top--;
    load_place(s);
}

void yyrestart(FILE *stream, void *scanner)
{
    token_scanner *s = scanner_of(scanner);
    if (!s || !add_missing_buffer(s))
        return;
    attach_stream(s->buffer(), stream);
    load_place(s);
}

void *yyalloc(size_t size, void *)
{
    return malloc(size);
}

void *yyrealloc(void *ptr, size_t size, void *)
{
    return realloc(ptr, size);
}

void yyfree(void *ptr, void *)
{
    free(ptr);
}

// ---- What a scanner holds

void *yyget_extra(void *scanner)
{
    return scanner ? scanner_of(scanner)->user_data : nullptr;
}

FILE *yyget_in(void *scanner)
{
    return scanner ? scanner_of(scanner)->in : nullptr;
}

FILE *yyget_out(void *scanner)
{
    return scanner ? scanner_of(scanner)->out : nullptr;
}

int yyget_lineno(void *scanner)
{
    const yy_buffer_state *buffer = scanner ? scanner_of(scanner)->buffer() : nullptr;
    return buffer ? buffer->line : 0;
}

int yyget_column(void *scanner)
{
    const yy_buffer_state *buffer = scanner ? scanner_of(scanner)->buffer() : nullptr;
    return buffer ? buffer->column : 0;
}

int yyget_debug(void *scanner)
{
    return scanner ? scanner_of(scanner)->debug : 0;
}

union clparse_token *yyget_lval(void *scanner)
{
    return scanner ? scanner_of(scanner)->value : nullptr;
}

int yyget_leng(void *scanner)
{
    return scanner ? static_cast<int>(scanner_of(scanner)->length) : 0;
}

char *yyget_text(void *scanner)
{
    return scanner ? scanner_of(scanner)->text : nullptr;
}

void yyset_extra(void *user_data, void *scanner)
{
    if (scanner)
        scanner_of(scanner)->user_data = user_data;
}

void yyset_in(FILE *stream, void *scanner)
{
    if (scanner)
        scanner_of(scanner)->in = stream;
}

void yyset_out(FILE *stream, void *scanner)
{
    if (scanner)
        scanner_of(scanner)->out = stream;
}

void yyset_lineno(int line, void *scanner)
{
    yy_buffer_state *buffer = scanner ? scanner_of(scanner)->buffer() : nullptr;
    if (!buffer)
        end_process("yyset_lineno called with no buffer");
    buffer->line = line;
}

void yyset_column(int column, void *scanner)
{
    yy_buffer_state *buffer = scanner ? scanner_of(scanner)->buffer() : nullptr;
    if (!buffer)
        end_process("yyset_column called with no buffer");
    buffer->column = column;
}

void yyset_debug(int on, void *scanner)
{
    if (scanner)
        scanner_of(scanner)->debug = on;
}

void yyset_lval(union clparse_token *value, void *scanner)
{
    if (scanner)
        scanner_of(scanner)->value = value;
}
