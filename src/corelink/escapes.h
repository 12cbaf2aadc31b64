// The escapes in quoted strings: finding the end of one, undoing and making them. A block is one of words.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "words.h"

namespace qv
{

// The end of a string's contents, and how many of its pairs stand for one character.
struct contents_end {
    const char *at; // the closing quote, or where it was found that there is none
    bool closed;
    uint64_t escapes;
};

// The same character by character, with what was found before.
inline contents_end find_closing_quote_slowly(const char *at, const char *end, uint64_t escapes)
{
    for (; at < end && *at != '"'; at++) {
        if (*at != '\\')
            continue;
        if (end - at < 2 || at[1] == '\n')
            return {at + 1, false, 0};
        at++;
        escapes += *at == '"' || *at == '\\';
    }
    return {at, at < end, escapes};
}

template <class block> contents_end find_closing_quote(const char *at, const char *end)
{
    using places = typename block::places;
    uint64_t escapes = 0;
    while (by_words && end - at >= block::size) {
        const block characters(at);
        const places quotes = characters.places_of('"'), marks = quotes | characters.places_of('\\');
        int step = block::size;
        // By pairs: what follows a backslash means nothing by itself.
        for (places left = marks; left != 0;) {
            const places first = left & -left, second = first << block::bits_per_place;
            const int place = first_place_in<block>(first);
            if (quotes & first)
                return {at + place, true, escapes};
            if (place == block::size - 1) {
                step = place;
                break;
            }
            if (at[place + 1] == '\n')
                return {at + place + 1, false, 0};
            escapes += (marks & second) != 0;
            left &= ~(first | second);
        }
        at += step;
    }
    return find_closing_quote_slowly(at, end, escapes);
}

// The closing quote of contents without a backslash; null when there is one, or the text is too short to
// tell.
template <class block> const char *find_plain_end(const char *at, const char *end)
{
    for (; end - at >= block::size; at += block::size) {
        const block characters(at);
        if (const auto marks = characters.places_of('"') | characters.places_of('\\')) {
            at += first_place_in<block>(marks);
            return *at == '"' ? at : nullptr;
        }
    }
    return nullptr;
}

// Undoes escaped quotes and backslashes in a string's contents; every other pair stays as it is written.
// Writes what fits between `to` and `to_end`, which is all.
inline void unescape_slowly(char *to, const char *text, const char *end)
{
    while (text < end) {
        if (*text == '\\') {
            text++; // in a string a backslash always has a successor
            if (*text != '"' && *text != '\\')
                *to++ = '\\';
        }
        *to++ = *text++;
    }
}

template <class block> void unescape(char *to, const char *to_end, const char *text, const char *end)
{
    using places = typename block::places;
    // Runs are copied by whole blocks, of which the last may reach as far behind the block that is looked at.
    while (by_words && end - text >= 2 * block::size && to_end - to >= 2 * block::size) {
        const block characters(text);
        const places marks = characters.places_of('"') | characters.places_of('\\');
        int from = 0, step = block::size;
        for (places left = marks; left != 0;) {
            const places first = left & -left, second = first << block::bits_per_place;
            const int place = first_place_in<block>(first);
            if (place == block::size - 1) {
                step = place;
                break;
            }
            if (marks & second) {
                block(text + from).store(to);
                to += place - from;
                from = place + 1;
            }
            left &= ~(first | second);
        }
        block(text + from).store(to);
        to += step - from;
        text += step;
    }
    unescape_slowly(to, text, end);
}

// Both in one go: the end of a string's contents, and their beginning without escapes in front of what is
// left of a buffer. What did not fit in whole blocks is to be unescaped from `rest` on.
struct read_contents {
    contents_end found;
    const char *rest;
    size_t length; // of what was unescaped
};

template <class block> read_contents read_string(const char *text, const char *end, char *buffer, size_t size)
{
    using places = typename block::places;
    uint64_t escapes = 0;
    char *to = buffer;
    while (by_words && end - text >= 2 * block::size && buffer + size - to >= 2 * block::size) {
        const block characters(text);
        const places quotes = characters.places_of('"'), marks = quotes | characters.places_of('\\');
        int from = 0, step = block::size;
        for (places left = marks; left != 0;) {
            const places first = left & -left, second = first << block::bits_per_place;
            const int place = first_place_in<block>(first);
            if (quotes & first) {
                block(text + from).store(to);
                to += place - from;
                return {{text + place, true, escapes}, text + place, static_cast<size_t>(to - buffer)};
            }
            if (place == block::size - 1) {
                step = place;
                break;
            }
            if (text[place + 1] == '\n')
                return {{text + place + 1, false, 0}, text, 0};
            if (marks & second) {
                block(text + from).store(to);
                to += place - from;
                from = place + 1;
                escapes++;
            }
            left &= ~(first | second);
        }
        block(text + from).store(to);
        to += step - from;
        text += step;
    }
    contents_end found = find_closing_quote<block>(text, end);
    found.escapes += escapes;
    return {found, text, static_cast<size_t>(to - buffer)};
}

// Copies a text; each quote in it gets a backslash. There is room for nothing but quotes. Returns behind the
// copy.
template <class block> char *escape_quotes(char *to, const char *text, const char *end)
{
    // Runs are copied by whole blocks, of which the last may reach as far behind the block that is looked at.
    for (; by_words && end - text >= 2 * block::size; text += block::size) {
        int from = 0;
        for (auto quotes = block(text).places_of('"'); quotes != 0; quotes &= quotes - 1) {
            const int place = first_place_in<block>(quotes);
            block(text + from).store(to);
            to += place - from;
            *to++ = '\\';
            from = place;
        }
        block(text + from).store(to);
        to += block::size - from;
    }
    while (text < end) {
        const bool whole = by_words && end - text >= 8;
        if (whole && !places_of(load_word(text), '"')) {
            store_word(to, load_word(text));
            to += 8;
            text += 8;
            continue;
        }
        // Without a branch: quotes come where nothing can foresee them.
        for (const char *stop = whole ? text + 8 : end; text < stop; text++) {
            *to = '\\';
            to += *text == '"';
            *to++ = *text;
        }
    }
    return to;
}

// The same of what is mostly short and without quotes, which then is copied as its first and its last part.
template <class block> char *escape_few_quotes(char *to, const char *text, size_t length)
{
    if (length >= 8 && length <= 16) {
        const uint64_t first = load_word(text), last = load_word(text + length - 8);
        if (!(places_of(first, '"') | places_of(last, '"'))) {
            store_word(to, first);
            store_word(to + length - 8, last);
            return to + length;
        }
    } else if (length >= block::size && length <= 2 * block::size) {
        const block first(text), last(text + length - block::size);
        if (!(first.places_of('"') | last.places_of('"'))) {
            first.store(to);
            last.store(to + length - block::size);
            return to + length;
        }
    }
    return escape_quotes<block>(to, text, text + length);
}

} // namespace qv
