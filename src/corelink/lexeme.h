// Recognises one corelink token in a text.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <qvlib/scanner.h>

#include "words.h"

namespace qv
{

struct lexeme {
    int kind;           // a token's kind; characters are their own
    const char *text;   // where it begins
    const char *after;  // behind its last character
    const char *looked; // the last character that was looked at to decide it
    uint64_t number;    // a number's value, or how many pairs of a string stand for one character
};

enum char_class : unsigned char { blank = 1, letter = 2, digit = 4, hex_digit = 8, punctuation = 16 };

constexpr std::array<unsigned char, 256> char_classes = [] {
    std::array<unsigned char, 256> classes{};
    for (const char c : {' ', '\t', '\r', '\n'})
        classes[static_cast<unsigned char>(c)] = blank;
    for (int c = '0'; c <= '9'; c++)
        classes[static_cast<size_t>(c)] = digit | hex_digit;
    for (int c = 'a'; c <= 'z'; c++) {
        const unsigned char hex = c <= 'f' ? hex_digit : 0;
        classes[static_cast<size_t>(c)] = classes[static_cast<size_t>(c) - 'a' + 'A'] = letter | hex;
    }
    classes['_'] = letter;
    for (const char c : {',', '=', '.', '{', '}', '[', ']'})
        classes[static_cast<unsigned char>(c)] = punctuation;
    return classes;
}();

inline bool is_class(char c, int classes)
{
    return char_classes[static_cast<unsigned char>(c)] & classes;
}

// The first quote or backslash, or `end`.
inline const char *find_quote_or_backslash(const char *at, const char *end)
{
    for (; end - at >= 8; at += 8) {
        const uint64_t word = load_word(at);
        if (const uint64_t places = places_of(word, '"') | places_of(word, '\\'))
            return at + first_place(places);
    }
    while (at < end && *at != '"' && *at != '\\')
        at++;
    return at;
}

// An opening quote without its closing one, or with a backslash at the end of a line before it, is a
// character that means nothing.
inline lexeme string_lexeme(const char *text, const char *end)
{
    uint64_t escapes = 0;
    const char *at = text + 1;
    while ((at = find_quote_or_backslash(at, end)) < end && *at == '\\') {
        if (end - at < 2 || at[1] == '\n') {
            at++;
            return {'"', text, text + 1, at < end ? at : end, 0};
        }
        escapes += at[1] == '"' || at[1] == '\\';
        at += 2;
    }
    if (at == end)
        return {'"', text, text + 1, end, 0};
    return {CLPARSE_TOKEN_STRING, text, at + 1, at, escapes};
}

inline lexeme word_lexeme(const char *text)
{
    const char *at = text + 1;
    while (is_class(*at, letter | digit)) // NOLINT(clang-analyzer-core.CallAndMessage): a NUL ends the text
        at++;
    const auto length = at - text;
    const bool boolean =
        (length == 4 && memcmp(text, "true", 4) == 0) || (length == 5 && memcmp(text, "false", 5) == 0);
    return {boolean ? CLPARSE_TOKEN_BOOLEAN : CLPARSE_TOKEN_IDENTIFIER, text, at, at, 0};
}

constexpr uint64_t eight_spaces = UINT64_C(0x2020202020202020);

inline unsigned int digit_value(char c)
{
    return static_cast<unsigned int>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
}

// A number that is too large becomes the largest one, with the C library's errno for it.
inline lexeme number_lexeme(const char *text)
{
    const char *at = text;
    unsigned int base = 10;
    int digits = digit;
    if (at[0] == '0' && (at[1] == 'x' || at[1] == 'X')) {
        if (!is_class(at[2], hex_digit))
            return {CLPARSE_TOKEN_NUMBER, text, text + 1, text + 2, 0};
        at += 2;
        base = 16;
        digits = hex_digit;
    }
    uint64_t number = 0;
    bool overflow = false;
    for (; is_class(*at, digits); at++) { // NOLINT(clang-analyzer-core.CallAndMessage): as in words
        overflow |= __builtin_mul_overflow(number, base, &number);
        overflow |= __builtin_add_overflow(number, digit_value(*at), &number);
    }
    if (overflow) {
        number = UINT64_MAX;
        errno = ERANGE;
    }
    return {CLPARSE_TOKEN_NUMBER, text, at, at, number};
}

// The next token at or behind `at`; a NUL ends the text at `end`. At the end the kind is 0. Quotes in front
// of `lonely` are known to open no string: what was looked at in vain for one that does not end escapes them
// all.
inline lexeme next_lexeme(const char *at, const char *end, const char *lonely)
{
    while (is_class(*at, blank)) { // NOLINT(clang-analyzer-core.CallAndMessage): as in words
        at++;
        while (end - at >= 8 && load_word(at) == eight_spaces)
            at += 8;
    }
    if (is_class(*at, letter))
        return word_lexeme(at);
    if (*at == '"')
        return at < lonely ? lexeme{'"', at, at + 1, lonely, 0} : string_lexeme(at, end);
    if (is_class(*at, digit))
        return number_lexeme(at);
    if (at == end)
        return {CLPARSE_TOKEN_END, at, at, at, 0};
    // A NUL byte must not pass for the end of the text; flex looks behind one, too.
    if (*at == '\0')
        return {CLPARSE_TOKEN_INVALID, at, at + 1, at + 1, 0};
    return {static_cast<unsigned char>(*at), at, at + 1, at, 0};
}

} // namespace qv
