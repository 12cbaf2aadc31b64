// Tokens that are recognised eight or sixteen characters at a time, against what they are character by
// character: with the widest blocks that this processor has, and with words, which all have.

#include "corelink/lexeme.h"

#include <cerrno>
#include <cstdlib>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "guarded_bytes.h"

namespace
{

constexpr int rounds = 20000;

std::mt19937_64 generator(7);

size_t random_below(size_t limit)
{
    return static_cast<size_t>(generator() % limit);
}

// Up to `longest` characters, most of them from `common`.
std::string random_text(size_t longest, std::string_view common)
{
    std::string text(random_below(longest + 1), '\0');
    for (char &c : text) {
        c = common[random_below(common.size())];
        if (random_below(20) == 0)
            c = static_cast<char>(1 + random_below(255));
    }
    return text;
}

// A text at the end of a page, with its NUL.
guarded_bytes guarded(const std::string &text)
{
    return guarded_bytes(std::string_view(text.c_str(), text.size() + 1));
}

template <class block> class WordLexeme : public testing::Test
{
};
using blocks = testing::Types<qv::text_block, qv::word_block>;
TYPED_TEST_SUITE(WordLexeme, blocks);

TYPED_TEST(WordLexeme, EndsBehindTheLastLetterOrDigit)
{
    for (int i = 0; i < rounds; i++) {
        std::string text = "a" + random_text(40, "azAZ_09mM5");
        if (random_below(4) == 0)
            text = (random_below(2) ? "true" : "false") + random_text(10, "e_ ,");
        guarded_bytes bytes = guarded(text);
        const char *begin = bytes.text(), *end = begin + text.size();
        size_t length = 0;
        while (qv::is_class(begin[length], qv::letter | qv::digit))
            length++;
        const std::string word = text.substr(0, length);
        const qv::lexeme found = qv::word_lexeme<TypeParam>(begin, end);
        ASSERT_EQ(found.after, begin + length) << text;
        ASSERT_EQ(found.looked, begin + length) << text;
        ASSERT_EQ(found.kind,
                  word == "true" || word == "false" ? CLPARSE_TOKEN_BOOLEAN : CLPARSE_TOKEN_IDENTIFIER)
            << text;
    }
}

TEST(CopyShort, CopiesAsManyCharactersAsAreToBeCopied)
{
    const std::string text = "abcdefghijklmnopqrstuvwxyz";
    for (size_t length = 0; length <= text.size(); length++) {
        guarded_bytes from(std::string_view(text).substr(0, length)), to(length);
        qv::copy_short(to.text(), from.text(), length);
        ASSERT_EQ(to.view(), text.substr(0, length));
        std::string around(length + 1, '#');
        qv::copy_short(around.data(), text.data(), length);
        ASSERT_EQ(around, text.substr(0, length) + '#');
    }
}

template <class block> class NumberLexeme : public testing::Test
{
};
TYPED_TEST_SUITE(NumberLexeme, blocks);

TYPED_TEST(NumberLexeme, HasTheValueOfStrtoull)
{
    for (int i = 0; i < rounds; i++) {
        std::string text = std::to_string(generator() >> random_below(64));
        if (random_below(5) == 0)
            text.insert(0, random_below(20), '0');
        if (random_below(5) == 0)
            text += std::to_string(generator());
        text += random_text(20, ",=/:a ");
        guarded_bytes bytes = guarded(text);
        errno = 0;
        const qv::lexeme found = qv::number_lexeme<TypeParam>(bytes.text(), bytes.text() + text.size());
        const int found_errno = errno;
        const bool hexadecimal = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        char *end = nullptr;
        errno = 0;
        const unsigned long long value = strtoull(bytes.text(), &end, hexadecimal ? 16 : 10);
        ASSERT_EQ(found.number, value) << text;
        ASSERT_EQ(found.after, end) << text;
        ASSERT_EQ(found_errno, errno) << text;
    }
}

TEST(SkipBlanks, EndsAtTheFirstOtherCharacter)
{
    for (int i = 0; i < rounds; i++) {
        const std::string text = random_text(40, random_below(2) ? "        \n" : " \t\r\n");
        guarded_bytes bytes = guarded(text);
        size_t count = text.find_first_not_of(" \t\r\n");
        count = count == std::string::npos ? text.size() : count;
        ASSERT_EQ(qv::skip_blanks(bytes.text(), bytes.text() + text.size()), bytes.text() + count) << text;
    }
}

template <class block> class StringLexeme : public testing::Test
{
};
TYPED_TEST_SUITE(StringLexeme, blocks);

TYPED_TEST(StringLexeme, EndsWhereItEndsCharacterByCharacter)
{
    for (int i = 0; i < rounds; i++) {
        const std::string text =
            random_text(80, random_below(2) ? "abcdefghijklmnopqrs\\" : "abcdef\\\\\"\n");
        guarded_bytes bytes = guarded(text);
        const char *begin = bytes.text(), *end = begin + text.size();
        const qv::contents_end expected = qv::find_closing_quote_slowly(begin, end, 0);
        const qv::contents_end found = qv::find_closing_quote<TypeParam>(begin, end);
        ASSERT_EQ(found.at, expected.at) << text;
        ASSERT_EQ(found.closed, expected.closed) << text;
        ASSERT_EQ(found.escapes, expected.escapes) << text;
    }
}

TYPED_TEST(StringLexeme, IsUnescapedAsCharacterByCharacter)
{
    int closed = 0;
    for (int i = 0; i < rounds; i++) {
        const std::string text =
            random_text(80, random_below(2) ? "abcdefghijklmn\\\\\"" : "abcdef\\\\") + "\"";
        guarded_bytes bytes = guarded(text);
        const char *begin = bytes.text(), *end = begin + text.size();
        const qv::contents_end contents = qv::find_closing_quote_slowly(begin, end, 0);
        if (!contents.closed)
            continue;
        closed++;
        const size_t size = static_cast<size_t>(contents.at - begin) - static_cast<size_t>(contents.escapes);
        std::string expected(size, '\0');
        qv::unescape_slowly(expected.data(), begin, contents.at);
        guarded_bytes found(size);
        qv::unescape<TypeParam>(found.text(), found.text() + size, begin, contents.at);
        ASSERT_EQ(found.view(), expected) << text;
    }
    EXPECT_GT(closed, rounds / 10);
}

TYPED_TEST(StringLexeme, IsReadInOneGoAsInTwo)
{
    int closed = 0;
    for (int i = 0; i < rounds; i++) {
        const std::string text =
            random_text(200, random_below(2) ? "abcdefghijklmn\\\"" : "abcdefghijklmnopqrs\\") + "\"" +
            random_text(40, "abc");
        guarded_bytes bytes = guarded(text);
        const char *begin = bytes.text(), *end = begin + text.size();
        const qv::contents_end expected = qv::find_closing_quote_slowly(begin, end, 0);
        if (const char *quote = qv::find_plain_end<TypeParam>(begin, end)) {
            ASSERT_EQ(quote, expected.at) << text;
            ASSERT_GE(text.find('\\'), static_cast<size_t>(quote - begin)) << text;
        }
        guarded_bytes buffer(random_below(250));
        const qv::read_contents found = qv::read_string<TypeParam>(begin, end, buffer.text(), buffer.size());
        ASSERT_EQ(found.found.at, expected.at) << text;
        ASSERT_EQ(found.found.closed, expected.closed) << text;
        if (!expected.closed)
            continue;
        closed++;
        ASSERT_EQ(found.found.escapes, expected.escapes) << text;
        ASSERT_LE(found.length, buffer.size());
        const auto size = static_cast<size_t>(expected.at - begin) - static_cast<size_t>(expected.escapes);
        std::string whole(size, '\0'), joined(buffer.view().substr(0, found.length));
        joined.resize(size);
        qv::unescape_slowly(whole.data(), begin, expected.at);
        qv::unescape_slowly(joined.data() + found.length, found.rest, expected.at);
        ASSERT_EQ(joined, whole) << text;
    }
    EXPECT_GT(closed, rounds / 10);
}

TYPED_TEST(StringLexeme, IsEscapedAsCharacterByCharacter)
{
    for (int i = 0; i < rounds; i++) {
        const std::string text = random_text(80, random_below(2) ? "abcdefghijklmno\"" : "abc\"");
        std::string expected;
        for (const char c : text)
            expected.append(c == '"' ? "\\" : "").append(1, c);
        guarded_bytes bytes{std::string_view(text)};
        guarded_bytes room(2 * text.size());
        const char *end = qv::escape_quotes<TypeParam>(room.text(), bytes.text(), bytes.text() + text.size());
        ASSERT_EQ(std::string(room.text(), static_cast<size_t>(end - room.text())), expected);
        end = qv::escape_few_quotes<TypeParam>(room.text(), bytes.text(), text.size());
        ASSERT_EQ(std::string(room.text(), static_cast<size_t>(end - room.text())), expected);
    }
}

} // namespace
