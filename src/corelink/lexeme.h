// Recognises one corelink token in a text.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <qvlib/scanner.h>

#include "escapes.h"
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

// An opening quote without its closing one, or with a backslash at the end of a line before it, is a
// character that means nothing.
inline lexeme string_lexeme(const char *text, const char *end)
{
    const contents_end found = find_closing_quote<text_block>(text + 1, end);
    if (!found.closed)
        return {'"', text, text + 1, found.at, 0};
    return {CLPARSE_TOKEN_STRING, text, found.at + 1, found.at, found.escapes};
}

// The end of a word.
template <class block> const char *behind_word(const char *at, const char *end)
{
    for (; by_words && end - at >= block::size; at += block::size)
        if (const auto behind = block(at).places_behind_word())
            return at + first_place_in<block>(behind);
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): a NUL ends what has been read
    while (is_class(*at, letter | digit))
        at++;
    return at;
}

inline bool is_boolean(const char *text, const char *after)
{
    return (after - text == 4 && memcmp(text, "true", 4) == 0) ||
           (after - text == 5 && memcmp(text, "false", 5) == 0);
}

template <class block = text_block> lexeme word_lexeme(const char *text, const char *end)
{
    const char *const after = behind_word<block>(text, end);
    return {is_boolean(text, after) ? CLPARSE_TOKEN_BOOLEAN : CLPARSE_TOKEN_IDENTIFIER, text, after, after,
            0};
}

// How many of a word's first seven characters are decimal digits.
inline int leading_digits(uint64_t word)
{
    const uint64_t digits = places_between(word & ~every_place, '0', '9') & ~word;
    return first_place((~digits & every_place) | UINT64_C(1) << 63);
}

// The number that the first `count` characters of a word write, which are digits.
inline uint64_t number_of_digits(uint64_t word, int count)
{
    // In front of them come zeros; then pairs are joined, pairs of pairs, and both halves.
    word = (word & eight_of(0x0f)) << 8 << (56 - 8 * count);
    word = (word * 10) + (word >> 8);
    constexpr uint64_t pairs = UINT64_C(0x000000ff000000ff);
    return ((word & pairs) * (100 + (UINT64_C(1000000) << 32)) +
            ((word >> 16) & pairs) * (1 + (UINT64_C(10000) << 32))) >>
           32;
}

constexpr uint32_t powers_of_ten[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000};

// The number that a decimal one's first digits write, as many as can't overflow. Returns behind them.
template <class block> const char *read_digits(const char *at, const char *end, uint64_t &number)
{
    for (int part = 0, count = 7; by_words && part < 2 && count == 7 && end - at >= 8; part++, at += count) {
        const uint64_t word = load_word(at);
        count = leading_digits(word);
        number = number * powers_of_ten[count] + number_of_digits(word, count);
    }
    return at;
}

#if defined(__SSE2__)
// The number that eight digits write; zeros stand for those that are missing in front.
inline uint64_t number_of_eight(uint64_t word)
{
    word = (word & eight_of(0x0f)) * (1 + (UINT64_C(10) << 8)) >> 8;
    word = (word & UINT64_C(0x00ff00ff00ff00ff)) * (1 + (UINT64_C(100) << 16)) >> 16;
    return (word & UINT64_C(0x0000ffff0000ffff)) * (1 + (UINT64_C(10000) << 32)) >> 32;
}

// All of them are counted at once.
template <> inline const char *read_digits<vector_block>(const char *at, const char *end, uint64_t &number)
{
    if (!by_words || end - at < vector_block::size)
        return read_digits<word_block>(at, end, number);
    const int count = vector_block(at).leading_digits(), behind_eight = count - 8;
    if (behind_eight <= 0)
        number = number_of_eight(load_word(at) << (-8 * behind_eight));
    else
        number = number_of_eight(load_word(at)) * powers_of_ten[behind_eight] +
                 number_of_eight(load_word(at + 8) << (64 - 8 * behind_eight));
    return at + count;
}
#endif

inline unsigned int digit_value(char c)
{
    return static_cast<unsigned int>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
}

// `text` begins with a digit. A number that is too large becomes the largest one, with the C library's errno
// for it.
template <class block = text_block> lexeme number_lexeme(const char *text, const char *end)
{
    const char *at = text;
    unsigned int base = 10;
    int digits = digit;
    uint64_t number = 0;
    if (at[0] == '0' && (at[1] == 'x' || at[1] == 'X')) {
        if (!is_class(at[2], hex_digit))
            return {CLPARSE_TOKEN_NUMBER, text, text + 1, text + 2, 0};
        at += 2;
        base = 16;
        digits = hex_digit;
    } else {
        at = read_digits<block>(at, end, number);
    }
    bool overflow = false;
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): a NUL ends what has been read
    for (; is_class(*at, digits); at++) {
        overflow |= __builtin_mul_overflow(number, base, &number);
        overflow |= __builtin_add_overflow(number, digit_value(*at), &number);
    }
    if (overflow) {
        number = UINT64_MAX;
        errno = ERANGE;
    }
    return {CLPARSE_TOKEN_NUMBER, text, at, at, number};
}

// Behind blanks. By branches, not by counting the blanks of a word: the lines of pretty text begin alike, and
// what is foreseen is not waited for.
inline const char *skip_blanks(const char *at, const char *end)
{
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): a NUL ends what has been read
    while (is_class(*at, blank)) {
        at++;
        while (by_words && end - at >= 8 && load_word(at) == eight_of(' '))
            at += 8;
        if (by_words && end - at >= 4 && memcmp(at, "    ", 4) == 0)
            at += 4;
    }
    return at;
}

// The next token at or behind `at`; a NUL ends the text at `end`. At the end the kind is 0. Quotes in front
// of `lonely` are known to open no string: what was looked at in vain for one that does not end escapes them
// all.
inline lexeme next_lexeme(const char *at, const char *end, const char *lonely)
{
    at = skip_blanks(at, end);
    if (is_class(*at, letter))
        return word_lexeme(at, end);
    if (*at == '"')
        return at < lonely ? lexeme{'"', at, at + 1, lonely, 0} : string_lexeme(at, end);
    if (is_class(*at, digit))
        return number_lexeme(at, end);
    if (at == end)
        return {CLPARSE_TOKEN_END, at, at, at, 0};
    // A NUL byte must not pass for the end of the text; flex looks behind one, too.
    if (*at == '\0')
        return {CLPARSE_TOKEN_INVALID, at, at + 1, at + 1, 0};
    return {static_cast<unsigned char>(*at), at, at + 1, at, 0};
}

} // namespace qv
