// The scanner's record, and the reading of one token from its current buffer.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <qvlib/scanner.h>

#include "../tracked.h"
#include "lexeme.h"

// One buffer of a scanner: a text in memory, or what was read of a stream so far.
struct yy_buffer_state {
    FILE *stream;
    char *base;   // the text, with two NULs behind it
    size_t room;  // bytes of text that fit
    size_t count; // bytes of text
    size_t at;    // where the next token begins, while the buffer is not the scanner's current one
    bool owned;   // base is released with the buffer
    bool refills; // there is a stream behind it
    bool by_line; // the stream is a terminal
    bool doomed;  // its scanner is being released
    enum { fresh, reading, ended } status;
    int line, column; // kept for the caller
};

namespace qv
{

inline constexpr char no_text[] = "";

struct token_scanner {
    char *at = const_cast<char *>(no_text);  // where the next token begins
    char *end = const_cast<char *>(no_text); // of the text in the current buffer
    char *text = nullptr;                    // the last token
    size_t length = 0;                       // of the last token
    char held = '\0';                        // the character at `at` when a NUL stands there
    bool terminated = false;                 // that NUL ends the last token's text
    const char *lonely = nullptr;            // quotes before it open no string
    bool begun = false;                      // a token was asked for
    yy_buffer_state **buffers = nullptr;     // a stack; the slot at its top may be empty
    size_t top = 0;
    size_t buffer_room = 0;
    FILE *in = nullptr;
    FILE *out = nullptr;
    void *user_data = nullptr;
    clparse_token *value = nullptr;
    int debug = 0;

    yy_buffer_state *buffer() const
    {
        return buffers ? buffers[top] : nullptr;
    }
};

inline char *allocate_text(size_t length, allocator plain)
{
    return static_cast<char *>(allocate_tracked(length + 1, "yylex", __LINE__, plain));
}

// A tracked copy; null when memory is short.
inline char *copy_word(const char *text, size_t length, allocator plain = malloc)
{
    char *copy = allocate_text(length, plain);
    if (copy) {
        copy_short(copy, text, length);
        copy[length] = '\0';
    }
    return copy;
}

// The same of what stands between a string's quotes, where `escapes` pairs stand for one character.
inline char *copy_string(const char *text, size_t length, size_t escapes, allocator plain = malloc)
{
    if (escapes == 0)
        return copy_word(text, length, plain);
    char *copy = allocate_text(length - escapes, plain);
    if (copy) {
        unescape<text_block>(copy, copy + (length - escapes), text, text + length);
        copy[length - escapes] = '\0';
    }
    return copy;
}

// The same of what read_string read from `text`, with the buffer that it wrote to.
inline char *copy_string(const char *text, const read_contents &contents, const char *buffer, allocator plain)
{
    const auto escapes = static_cast<size_t>(contents.found.escapes);
    const size_t length = static_cast<size_t>(contents.found.at - text) - escapes;
    if (escapes == 0)
        return copy_word(text, length, plain);
    char *copy = allocate_text(length, plain);
    if (copy) {
        memcpy(copy, buffer, contents.length);
        unescape<text_block>(copy + contents.length, copy + length, contents.rest, contents.found.at);
        copy[length] = '\0';
    }
    return copy;
}

// Reads a token that is no punctuation.
int read_longer_token(token_scanner *scanner, clparse_token *value);

// Reads the next token without marking its end in the text.
inline int read_token(token_scanner *scanner, clparse_token *value)
{
    // Half of a document's tokens are punctuation, some behind a space: a call for each took a tenth of the
    // time of a parse.
    char *at = scanner->at;
    if (__builtin_expect_with_probability(*at == ' ', 1, 0.5))
        at++;
    if (!is_class(*at, punctuation))
        return read_longer_token(scanner, value);
    scanner->text = at;
    scanner->length = 1;
    scanner->at = at + 1;
    return *at;
}

// Gives the text back the character that marks the last token's end.
inline void unmark_token(token_scanner *scanner)
{
    if (scanner->terminated)
        *scanner->at = scanner->held;
    scanner->terminated = false;
}

// Makes the last token a text of its own, for yyget_text.
inline void mark_token(token_scanner *scanner)
{
    scanner->held = *scanner->at; // NOLINT(clang-analyzer-core.uninitialized.Assign): within the buffer
    *scanner->at = '\0';
    scanner->terminated = true;
}

// Makes sure that there is a buffer to read from: one over the input stream unless the caller gave one.
bool has_buffer(token_scanner *scanner);

} // namespace qv
