/*
 * The reentrant scanner and parser behind clparse_start, for programs that need tokens or positions.
 *
 * The functions are those of flex's reentrant scanners: a scanner is made by yylex_init, given text by
 * yy_scan_string, yy_scan_bytes, yy_scan_buffer or a stream by yyset_in, read token by token with yylex, and
 * released by yylex_destroy, with all buffers that are still in its stack. Buffers can be stacked (yypush_buffer_state,
 * yypop_buffer_state).
 *
 * Tokens: identifiers and strings are handed over as tracked copies, which the caller of yylex releases with
 * qv_memcheck_free. Punctuation and stray characters are their own kinds (1 to 255). Lines are not counted: take
 * the position from yyget_text, which points into the buffer.
 *
 * Errors: scanner faults (memory, a failed read) are logged at level 3 as "panic: TEXT" and end the input;
 * functions that make a buffer return NULL. yyset_lineno and yyset_column without a buffer print a message on
 * standard error and end the process with status 2.
 *
 * Threads: each scanner is independent; one thread at a time uses it.
 */
#ifndef QVLIB_SCANNER_H
#define QVLIB_SCANNER_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <qvlib/compiler.h>
#include <qvlib/corelink.h>

QV_BEGIN_DECLS

/* Token kinds; 0 ends the text, CLPARSE_TOKEN_INVALID is a NUL byte or a token that could not be copied. */
enum {
    CLPARSE_TOKEN_END = 0,
    CLPARSE_TOKEN_INVALID = 257,
    CLPARSE_TOKEN_IDENTIFIER = 258,
    CLPARSE_TOKEN_STRING = 259,
    CLPARSE_TOKEN_NUMBER = 260,
    CLPARSE_TOKEN_BOOLEAN = 261
};

/* A token's value: identifiers and strings use str. */
union clparse_token {
    char *str;
    uint64_t num;
    unsigned char boolean;
};

struct yy_buffer_state;

/*
 * Parses the scanner's text into the tree of a head. A head without a cursor, as clparse_init_head makes it, gets
 * one for the call.
 *
 * Returns 0, 1 for a syntax error, 2 when the parser's stack of at most 10000 entries or memory is exhausted; the
 * error is printed to the memory debugger's console. After an error yyget_text gives the offending token.
 */
int yyparse(void *scanner, clparse_head *head);

/* Prints an error of the parser and the place in the tree to the memory debugger's console. */
void yyerror(void *scanner, clparse_head *head, const char *message);

/* Returns the kind of the next token and stores its value; `value` may not be NULL. */
int yylex(union clparse_token *value, void *scanner);

/* Make and release a scanner. Return 0, or 1 with errno EINVAL (NULL) or ENOMEM. */
int yylex_init(void **scanner);
int yylex_init_extra(void *user_data, void **scanner);
int yylex_destroy(void *scanner);

/*
 * Scan a copy of a string or of bytes, or a caller's buffer in place, whose last two of `size` bytes are NUL. In it a
 * NUL stands behind the last token until the next one is read or another buffer is switched to; releasing the buffer
 * leaves the memory as it is, so that the caller may have released that before.
 */
struct yy_buffer_state *yy_scan_string(const char *text, void *scanner);
struct yy_buffer_state *yy_scan_bytes(const char *bytes, int length, void *scanner);
struct yy_buffer_state *yy_scan_buffer(char *base, size_t size, void *scanner);

/* Buffers over streams, and the stack of buffers. */
struct yy_buffer_state *yy_create_buffer(FILE *stream, int size, void *scanner);
void yy_delete_buffer(struct yy_buffer_state *buffer, void *scanner);
void yy_flush_buffer(struct yy_buffer_state *buffer, void *scanner);
void yy_switch_to_buffer(struct yy_buffer_state *buffer, void *scanner);
void yypush_buffer_state(struct yy_buffer_state *buffer, void *scanner);
void yypop_buffer_state(void *scanner);
void yyrestart(FILE *stream, void *scanner);

/* The scanner's own memory: the plain C allocator. */
void *yyalloc(size_t size, void *scanner);
void *yyrealloc(void *ptr, size_t size, void *scanner);
void yyfree(void *ptr, void *scanner);

/* What a scanner holds. */
void *yyget_extra(void *scanner);
FILE *yyget_in(void *scanner);
FILE *yyget_out(void *scanner);
int yyget_lineno(void *scanner);
int yyget_column(void *scanner);
int yyget_debug(void *scanner);
union clparse_token *yyget_lval(void *scanner);
int yyget_leng(void *scanner);
char *yyget_text(void *scanner);
void yyset_extra(void *user_data, void *scanner);
void yyset_in(FILE *stream, void *scanner);
void yyset_out(FILE *stream, void *scanner);
void yyset_lineno(int line, void *scanner);
void yyset_column(int column, void *scanner);
void yyset_debug(int on, void *scanner);
void yyset_lval(union clparse_token *value, void *scanner);

QV_END_DECLS

#endif
