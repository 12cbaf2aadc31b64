/*
 * The reentrant scanner and parser behind clparse_start, for programs that need tokens or positions.
 *
 * The functions are those of flex's reentrant scanners: a scanner is made by yylex_init, given text by
 * yy_scan_string, yy_scan_bytes, yy_scan_buffer or a stream by yyset_in, read token by token with yylex, and
 * released by yylex_destroy, with all buffers that are still in its stack. Buffers can be stacked
 * (yypush_buffer_state, yypop_buffer_state).
 *
 * Tokens: identifiers and strings are handed over as tracked copies, which the caller of yylex releases with
 * qv_memcheck_free. Punctuation and stray characters are their own kinds (1 to 255). Lines are not counted:
 * take the position from yyget_text, which points into the buffer.
 *
 * scanner  a scanner of yylex_init; with NULL nothing happens, and the result is that of a failure or 0
 * buffer   a buffer of this scanner; NULL is ignored
 * stream   an open stream, which stays the caller's; NULL in a new buffer is an empty text
 *
 * Errors: scanner faults (memory, a failed read) are logged at level 3 as "panic: TEXT" and end the input;
 * functions that make a buffer return NULL. errno is set where a function says so only.
 * Ownership: a scanner owns itself and the buffers in its stack, yylex_destroy releases them. A buffer that
 * was replaced by another one at the top of the stack is the caller's: release it with yy_delete_buffer.
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

/* Token kinds; others are the characters themselves. */
enum {
    CLPARSE_TOKEN_END = 0,       /* the end of the text */
    CLPARSE_TOKEN_INVALID = 257, /* a NUL byte, or a token that could not be copied */
    CLPARSE_TOKEN_IDENTIFIER = 258,
    CLPARSE_TOKEN_STRING = 259,
    CLPARSE_TOKEN_NUMBER = 260,
    CLPARSE_TOKEN_BOOLEAN = 261
};

/* A token's value. */
union clparse_token {
    char *str;             /* identifiers and strings: a tracked copy */
    uint64_t num;          /* numbers */
    unsigned char boolean; /* booleans, 0 or 1 */
};

/* One text or stream of a scanner. */
struct yy_buffer_state;

/* ---- Parsing ----------------------------------------------------------------------------------------- */

/*
 * Parses the scanner's text into the tree of a head. A head without a cursor, as clparse_init_head makes it,
 * gets one for the call.
 *
 * head  takes the members behind those it has; what was built before an error stays
 *
 * Returns 0, 1 for a syntax error and for a NULL argument, 2 when the parser's stack of at most 10000 entries
 * or memory is exhausted; the error is printed to the memory debugger's console. After an error yyget_text
 * gives the offending token.
 */
int yyparse(void *scanner, clparse_head *head);

/*
 * Prints an error of the parser and the place in the tree to the memory debugger's console.
 *
 * scanner  its user data is the text in front of the message; NULL shows "(null)"
 * head     the tree that is read: the tags of its cursor and the cursor's parent are shown; may be NULL
 * message  the error in words
 */
void yyerror(void *scanner, clparse_head *head, const char *message);

/* ---- Tokens ------------------------------------------------------------------------------------------ */

/*
 * Reads the next token. A scanner without a buffer reads its input stream, or standard input.
 *
 * value  takes the token's value: identifiers and strings, numbers, booleans have one. NULL ends the text.
 *
 * Returns the kind of the token, 0 at the end of the text.
 * Ownership: the copy of an identifier or a string is the caller's; release it with qv_memcheck_free. `value`
 * itself is kept for yyget_lval alone.
 */
int yylex(union clparse_token *value, void *scanner);

/*
 * Makes a scanner, without a buffer.
 *
 * user_data  kept for yyget_extra; yylex_init keeps NULL
 * scanner    takes the scanner; NULL when memory is short
 *
 * Returns 0, or 1 with errno EINVAL (scanner is NULL) or ENOMEM.
 * Ownership: release the scanner with yylex_destroy.
 */
int yylex_init(void **scanner);
int yylex_init_extra(void *user_data, void **scanner);

/*
 * Releases a scanner and the buffers in its stack. Streams stay open.
 *
 * Returns 0, or 1 with errno EINVAL for NULL.
 */
int yylex_destroy(void *scanner);

/* ---- Buffers over memory ----------------------------------------------------------------------------- */

/*
 * Scans a copy of a text, which takes the place of the current buffer.
 *
 * text    NUL-terminated, at most INT_MAX - 2 bytes
 * bytes   may hold NUL bytes; may be NULL when length is 0
 * length  bytes, 0 to INT_MAX - 2
 *
 * Returns the new buffer, or NULL after a log line: an argument is NULL or out of range, or memory is short.
 */
struct yy_buffer_state *yy_scan_string(const char *text, void *scanner);
struct yy_buffer_state *yy_scan_bytes(const char *bytes, int length, void *scanner);

/*
 * Scans a caller's text in place; the new buffer takes the place of the current one. A NUL stands behind the last
 * token until the next one is read or another buffer is switched to; releasing the buffer leaves the memory as it
 * is, so that the caller may have released that before.
 *
 * base  the text; its last two bytes are NUL and are not scanned
 * size  bytes with those two, at least 2 and at most INT_MAX
 *
 * Returns the new buffer, or NULL: an argument is NULL or out of range, the text does not end with two NULs,
 * or memory is short; the last alone is logged.
 * Ownership: the text stays the caller's, who keeps it until the last token was read, and may release it
 * before the buffer.
 */
struct yy_buffer_state *yy_scan_buffer(char *base, size_t size, void *scanner);

/* ---- Buffers over streams, and the stack of buffers -------------------------------------------------- */

/*
 * Makes a buffer over a stream. It is not used until it is handed to yy_switch_to_buffer or
 * yypush_buffer_state.
 *
 * size  room in bytes, taken as 16 when smaller; at most 512 MiB. It grows with long tokens.
 *
 * Returns the buffer, or NULL for a NULL scanner, and after a log line when memory is short.
 * Ownership: the caller's until it is in the stack; release it with yy_delete_buffer.
 */
struct yy_buffer_state *yy_create_buffer(FILE *stream, int size, void *scanner);

/* Releases a buffer. When it is the current one, the scanner has none afterwards. */
void yy_delete_buffer(struct yy_buffer_state *buffer, void *scanner);

/* Drops what a buffer holds; one over a stream goes on with what the stream gives next. */
void yy_flush_buffer(struct yy_buffer_state *buffer, void *scanner);

/*
 * Makes a buffer the current one, in the place of the one that is; that one keeps its position. A failure to
 * allocate is logged and changes nothing.
 */
void yy_switch_to_buffer(struct yy_buffer_state *buffer, void *scanner);

/*
 * Puts a buffer on top of the stack: it is read first. A failure to allocate is logged and changes nothing.
 * Ownership: the buffer is the scanner's from then on.
 */
void yypush_buffer_state(struct yy_buffer_state *buffer, void *scanner);

/* Releases the buffer on top of the stack and goes on in the one below. Nothing happens without one. */
void yypop_buffer_state(void *scanner);

/* Empties the current buffer, which is made when there is none, and reads a stream through it. */
void yyrestart(FILE *stream, void *scanner);

/* ---- Memory ------------------------------------------------------------------------------------------ */

/*
 * The scanner's own memory: malloc, realloc and free.
 *
 * size     bytes
 * ptr      a block of these functions, or NULL
 * scanner  not used; may be NULL
 *
 * Returns the block, or NULL with errno ENOMEM.
 * Ownership: release the block with yyfree. The memory debugger does not know it.
 * Threads: any thread may call them.
 */
void *yyalloc(size_t size, void *scanner);
void *yyrealloc(void *ptr, size_t size, void *scanner);
void yyfree(void *ptr, void *scanner);

/* ---- What a scanner holds ---------------------------------------------------------------------------- */

/*
 * Returns the scanner's user data, input stream, output stream or debug flag; NULL or 0 for a NULL scanner.
 * Streams that were not set are NULL until the first token is read, then standard input and output. Nothing
 * is written.
 */
void *yyget_extra(void *scanner);
FILE *yyget_in(void *scanner);
FILE *yyget_out(void *scanner);
int yyget_debug(void *scanner);

/*
 * Returns the line and the column that the caller gave the current buffer, else 1 and 0 for one over a stream
 * and 0 for one over memory; 0 without a buffer and for a NULL scanner. The scanner does not count.
 */
int yyget_lineno(void *scanner);
int yyget_column(void *scanner);

/* Returns where yylex last stored a token's value, or what yyset_lval gave; NULL at first. */
union clparse_token *yyget_lval(void *scanner);

/*
 * Returns the last token's text, which ends with a NUL, or the number of its bytes; NULL and 0 for a NULL
 * scanner and without a buffer.
 * Ownership: the text is the buffer's, and good until the next token is read or the buffers change.
 */
char *yyget_text(void *scanner);
int yyget_leng(void *scanner);

/*
 * Changes what a scanner holds.
 *
 * user_data  for yyget_extra and yyerror, which prints it as a text; NULL is allowed
 * stream     input: for the next buffer that is begun; output: kept, nothing is written to it
 * on         kept, without effect
 * value      for yyget_lval, until the next yylex
 */
void yyset_extra(void *user_data, void *scanner);
void yyset_in(FILE *stream, void *scanner);
void yyset_out(FILE *stream, void *scanner);
void yyset_debug(int on, void *scanner);
void yyset_lval(union clparse_token *value, void *scanner);

/*
 * Sets the line or the column of the current buffer, for yyget_lineno and yyget_column.
 *
 * line, column  kept as they are
 *
 * Errors: without a buffer, and for a NULL scanner, a message is printed on standard error and the process
 * ends with status 2.
 */
void yyset_lineno(int line, void *scanner);
void yyset_column(int column, void *scanner);

QV_END_DECLS

#endif
