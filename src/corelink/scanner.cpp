// The corelink scanner: flex's tables and matching loop, and the reentrant interface around them.
//
// The generated scanner ends the process when it cannot go on. Here it never does: whatever a generated
// function needs is made before it is called (a slot in the stack of buffers, a buffer), functions that
// allocate are written out below, and a buffer that cannot grow ends the input. The generated functions carry
// the prefix "flex"; the exported ones are at the end.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/scanner.h>

static_assert(sizeof(union clparse_token) == 8);

// What a scanner holds beside the generated state.
struct scanner_extra {
    void *user_data;
    bool full; // the buffer could not grow to hold a token
};

namespace
{

int boolean_token(clparse_token &value, bool boolean)
{
    value.boolean = boolean;
    return CLPARSE_TOKEN_BOOLEAN;
}

// strtoull gives the largest value for a number that is too large.
int number_token(clparse_token &value, const char *text, int base)
{
    value.num = strtoull(text, nullptr, base);
    return CLPARSE_TOKEN_NUMBER;
}

char *allocate_text(size_t length)
{
    return static_cast<char *>(qv_memcheck_malloc(malloc, length + 1, "yylex", __LINE__));
}

int text_token(clparse_token &value, const char *text, int length)
{
    const auto size = static_cast<size_t>(length);
    value.str = allocate_text(size);
    if (!value.str)
        return CLPARSE_TOKEN_INVALID;
    memcpy(value.str, text, size);
    value.str[size] = '\0';
    return CLPARSE_TOKEN_IDENTIFIER;
}

// Only an escaped quote and an escaped backslash are undone; every other pair stays as it is written.
bool is_undone(const char *at, const char *end)
{
    return *at == '\\' && at + 1 < end && (at[1] == '"' || at[1] == '\\');
}

size_t unescaped_length(const char *text, const char *end)
{
    auto length = static_cast<size_t>(end - text);
    while ((text = static_cast<const char *>(memchr(text, '\\', static_cast<size_t>(end - text))))) {
        length -= is_undone(text, end);
        text += 2; // a backslash in a string always has a successor
    }
    return length;
}

void unescape(char *to, const char *text, const char *end)
{
    while (const auto *backslash =
               static_cast<const char *>(memchr(text, '\\', static_cast<size_t>(end - text)))) {
        const auto plain = static_cast<size_t>(backslash - text);
        memcpy(to, text, plain);
        to += plain;
        if (!is_undone(backslash, end))
            *to++ = '\\';
        *to++ = backslash[1];
        text = backslash + 2;
    }
    memcpy(to, text, static_cast<size_t>(end - text));
}

int string_token(clparse_token &value, const char *text, int length)
{
    const char *end = text + length;
    const size_t size = unescaped_length(text, end);
    value.str = allocate_text(size);
    if (!value.str)
        return CLPARSE_TOKEN_INVALID;
    unescape(value.str, text, end);
    value.str[size] = '\0';
    return CLPARSE_TOKEN_STRING;
}

// A character is its own kind, but a NUL byte must not pass for the end of the text.
int stray_token(char c)
{
    return c == '\0' ? int{CLPARSE_TOKEN_INVALID} : int{static_cast<unsigned char>(c)};
}

void panic(const char *message)
{
    __qv_log(QV_LOG_ERROR, "panic: %s", message);
}

int read_input(void *scanner, char *to, int room);

} // namespace

#define YYSTYPE union clparse_token
#define YY_FATAL_ERROR(message) panic(message)
#define YY_INPUT(buffer, result, room) (result) = read_input(yyscanner, (buffer), (room))

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wnull-dereference"
#pragma GCC diagnostic ignored "-Wunused-function"
#include "corelink.lex.inc"
#pragma GCC diagnostic pop

// The generated code calls its own functions by these names; the exported functions bear them from here on.
#undef yy_create_buffer
#undef yy_delete_buffer
#undef yy_scan_buffer
#undef yy_scan_string
#undef yy_scan_bytes
#undef yy_flush_buffer
#undef yy_switch_to_buffer
#undef yypush_buffer_state
#undef yypop_buffer_state
#undef yylex
#undef yyrestart
#undef yylex_init
#undef yylex_init_extra
#undef yylex_destroy
#undef yyget_debug
#undef yyset_debug
#undef yyget_extra
#undef yyset_extra
#undef yyget_in
#undef yyset_in
#undef yyget_out
#undef yyset_out
#undef yyget_leng
#undef yyget_text
#undef yyget_lineno
#undef yyset_lineno
#undef yyget_column
#undef yyset_column
#undef yyget_lval
#undef yyset_lval
#undef yyalloc
#undef yyrealloc
#undef yyfree

namespace
{

// A token of this size can't be held: the generated scanner doubles its buffer, in int arithmetic.
constexpr size_t largest_buffer = size_t{1} << 29;
constexpr int smallest_buffer = 16;

yyguts_t *guts_of(void *scanner)
{
    return static_cast<yyguts_t *>(scanner);
}

yy_buffer_state *current_buffer(const yyguts_t *guts)
{
    return guts->yy_buffer_stack ? guts->yy_buffer_stack[guts->yy_buffer_stack_top] : nullptr;
}

// Makes room for one more buffer in the stack, so that the generated code need not.
bool has_stack_room(yyguts_t *guts)
{
    if (guts->yy_buffer_stack && guts->yy_buffer_stack_top + 1 < guts->yy_buffer_stack_max)
        return true;
    const size_t count = guts->yy_buffer_stack_max + 8;
    void *moved = realloc(guts->yy_buffer_stack, count * sizeof(yy_buffer_state *));
    if (!moved) {
        panic("out of dynamic memory in yyensure_buffer_stack()");
        return false;
    }
    guts->yy_buffer_stack = static_cast<yy_buffer_state **>(moved);
    memset(guts->yy_buffer_stack + guts->yy_buffer_stack_max, 0, 8 * sizeof(yy_buffer_state *));
    guts->yy_buffer_stack_max = count;
    return true;
}

// Makes sure that there is a buffer to read from: one over the input stream unless the caller gave one.
bool has_buffer(yyguts_t *guts)
{
    if (current_buffer(guts))
        return true;
    if (!has_stack_room(guts))
        return false;
    if (!guts->yyin_r)
        guts->yyin_r = stdin;
    yy_buffer_state *buffer = yy_create_buffer(guts->yyin_r, YY_BUF_SIZE, guts);
    if (!buffer)
        return false;
    flex_switch_to_buffer(buffer, guts);
    return true;
}

int read_line(FILE *stream, char *to, int room)
{
    int count = 0;
    for (int c = 0; count < room && c != '\n'; count++) {
        c = getc(stream);
        if (c == EOF)
            break;
        to[count] = static_cast<char>(c);
    }
    return count;
}

int read_input(void *scanner, char *to, int room)
{
    yyguts_t *guts = guts_of(scanner);
    yy_buffer_state *buffer = current_buffer(guts);
    if (guts->yyextra_r.full) {
        guts->yyextra_r.full = false;
        buffer->yy_buf_size /= 2; // the doubling that failed
        return 0;
    }
    FILE *stream = guts->yyin_r;
    if (!stream)
        return 0;
    for (;;) {
        errno = 0;
        const int count = buffer->yy_is_interactive
                              ? read_line(stream, to, room)
                              : static_cast<int>(fread(to, 1, static_cast<size_t>(room), stream));
        if (count > 0 || !ferror(stream))
            return count;
        if (errno != EINTR) {
            panic("input in flex scanner failed");
            return 0;
        }
        clearerr(stream);
    }
}

yy_buffer_state *allocate_buffer(const char *failure)
{
    auto *buffer = static_cast<yy_buffer_state *>(calloc(1, sizeof(yy_buffer_state)));
    if (!buffer)
        panic(failure);
    return buffer;
}

[[noreturn]] void end_process(const char *message)
{
    fprintf(stderr, "%s\n", message);
    exit(2);
}

} // namespace

void *flexalloc(yy_size_t size, void *)
{
    return malloc(size);
}

// Called to grow a buffer. When that fails the old block stays in use, and read_input ends the input.
void *flexrealloc(void *ptr, yy_size_t size, void *scanner)
{
    void *moved = size <= largest_buffer ? realloc(ptr, size) : nullptr;
    if (moved)
        return moved;
    panic("fatal error - scanner input buffer overflow");
    guts_of(scanner)->yyextra_r.full = true;
    return ptr;
}

void flexfree(void *ptr, void *)
{
    free(ptr);
}

int yylex(union clparse_token *value, void *scanner)
{
    if (!value || !scanner || !has_buffer(guts_of(scanner)))
        return CLPARSE_TOKEN_END;
    return flexlex(value, scanner);
}

int yylex_init(void **scanner)
{
    return flexlex_init(scanner);
}

int yylex_init_extra(void *user_data, void **scanner)
{
    const int result = flexlex_init(scanner);
    if (result == 0)
        yyset_extra(user_data, *scanner);
    return result;
}

int yylex_destroy(void *scanner)
{
    if (!scanner) {
        errno = EINVAL;
        return 1;
    }
    // The generated function releases the buffer on top of the stack only.
    while (current_buffer(guts_of(scanner)))
        flexpop_buffer_state(scanner);
    return flexlex_destroy(scanner);
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
    buffer->yy_is_our_buffer = 1;
    return buffer;
}

struct yy_buffer_state *yy_scan_buffer(char *base, size_t size, void *scanner)
{
    if (!scanner || !base || size < 2 || size > INT_MAX || base[size - 2] || base[size - 1])
        return nullptr;
    yyguts_t *guts = guts_of(scanner);
    if (!has_stack_room(guts))
        return nullptr;
    yy_buffer_state *buffer = allocate_buffer("out of dynamic memory in yy_scan_buffer()");
    if (!buffer)
        return nullptr;
    buffer->yy_buf_size = buffer->yy_n_chars = static_cast<int>(size - 2);
    buffer->yy_buf_pos = buffer->yy_ch_buf = base;
    buffer->yy_at_bol = 1;
    buffer->yy_buffer_status = YY_BUFFER_NEW;
    flex_switch_to_buffer(buffer, guts);
    return buffer;
}

struct yy_buffer_state *yy_create_buffer(FILE *stream, int size, void *scanner)
{
    constexpr const char *failure = "out of dynamic memory in yy_create_buffer()";
    if (!scanner)
        return nullptr;
    if (size < smallest_buffer)
        size = smallest_buffer;
    yy_buffer_state *buffer = allocate_buffer(failure);
    if (!buffer)
        return nullptr;
    buffer->yy_ch_buf = static_cast<char *>(
        static_cast<size_t>(size) <= largest_buffer ? malloc(static_cast<size_t>(size) + 2) : nullptr);
    if (!buffer->yy_ch_buf) {
        panic(failure);
        free(buffer);
        return nullptr;
    }
    buffer->yy_buf_size = size;
    buffer->yy_is_our_buffer = 1;
    flex_init_buffer(buffer, stream, scanner);
    return buffer;
}

void yy_delete_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    if (scanner)
        flex_delete_buffer(buffer, scanner);
}

void yy_flush_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    if (scanner)
        flex_flush_buffer(buffer, scanner);
}

void yy_switch_to_buffer(struct yy_buffer_state *buffer, void *scanner)
{
    if (scanner && buffer && has_stack_room(guts_of(scanner)))
        flex_switch_to_buffer(buffer, scanner);
}

void yypush_buffer_state(struct yy_buffer_state *buffer, void *scanner)
{
    if (scanner && buffer && has_stack_room(guts_of(scanner)))
        flexpush_buffer_state(buffer, scanner);
}

void yypop_buffer_state(void *scanner)
{
    if (scanner)
        flexpop_buffer_state(scanner);
}

void yyrestart(FILE *stream, void *scanner)
{
    if (scanner && has_buffer(guts_of(scanner)))
        flexrestart(stream, scanner);
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

void *yyget_extra(void *scanner)
{
    return scanner ? guts_of(scanner)->yyextra_r.user_data : nullptr;
}

FILE *yyget_in(void *scanner)
{
    return scanner ? guts_of(scanner)->yyin_r : nullptr;
}

FILE *yyget_out(void *scanner)
{
    return scanner ? guts_of(scanner)->yyout_r : nullptr;
}

int yyget_lineno(void *scanner)
{
    const yy_buffer_state *buffer = scanner ? current_buffer(guts_of(scanner)) : nullptr;
    return buffer ? buffer->yy_bs_lineno : 0;
}

int yyget_column(void *scanner)
{
    const yy_buffer_state *buffer = scanner ? current_buffer(guts_of(scanner)) : nullptr;
    return buffer ? buffer->yy_bs_column : 0;
}

int yyget_debug(void *scanner)
{
    return scanner ? guts_of(scanner)->yy_flex_debug_r : 0;
}

union clparse_token *yyget_lval(void *scanner)
{
    return scanner ? guts_of(scanner)->yylval_r : nullptr;
}

int yyget_leng(void *scanner)
{
    return scanner ? guts_of(scanner)->yyleng_r : 0;
}

char *yyget_text(void *scanner)
{
    return scanner ? guts_of(scanner)->yytext_r : nullptr;
}

void yyset_extra(void *user_data, void *scanner)
{
    if (scanner)
        guts_of(scanner)->yyextra_r.user_data = user_data;
}

void yyset_in(FILE *stream, void *scanner)
{
    if (scanner)
        guts_of(scanner)->yyin_r = stream;
}

void yyset_out(FILE *stream, void *scanner)
{
    if (scanner)
        guts_of(scanner)->yyout_r = stream;
}

void yyset_lineno(int line, void *scanner)
{
    yy_buffer_state *buffer = scanner ? current_buffer(guts_of(scanner)) : nullptr;
    if (!buffer)
        end_process("yyset_lineno called with no buffer");
    buffer->yy_bs_lineno = line;
}

void yyset_column(int column, void *scanner)
{
    yy_buffer_state *buffer = scanner ? current_buffer(guts_of(scanner)) : nullptr;
    if (!buffer)
        end_process("yyset_column called with no buffer");
    buffer->yy_bs_column = column;
}

void yyset_debug(int on, void *scanner)
{
    if (scanner)
        guts_of(scanner)->yy_flex_debug_r = on;
}

void yyset_lval(union clparse_token *value, void *scanner)
{
    if (scanner)
        guts_of(scanner)->yylval_r = value;
}
