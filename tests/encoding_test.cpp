// Encodings, checksums, hashes and integer helpers. Where several paths give one result, each is run on every
// machine that can, the ones for any processor always.
#include <qvlib/encoding.h>

#include "base64.h"
#include "crc32c.h"
#include "fewer_instructions.h"
#include "guarded_bytes.h"
#include "processor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

using namespace std::string_view_literals;

namespace
{

const uint8_t *bytes_of(std::string_view text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

std::vector<uint8_t> random_bytes(std::mt19937 &random, size_t length)
{
    std::vector<uint8_t> bytes(length);
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

// ---- Base32

// Encodes with a zero byte behind the input, as callers must.
std::string to_base32(std::vector<uint8_t> bytes, int mode, size_t outsize = 100)
{
    bytes.push_back(0);
    std::vector<char> out(outsize + 1, '#');
    const int count = base32_encode(bytes.data(), bytes.size() - 1, out.data(), outsize, mode);
    EXPECT_EQ(out[outsize], '#');
    EXPECT_LT(static_cast<size_t>(count), outsize);
    EXPECT_EQ(out[static_cast<size_t>(count)], '\0');
    return {out.data(), static_cast<size_t>(count)};
}

// Symbol by symbol and bit by bit, from the definition alone.
std::string base32_reference(const std::vector<uint8_t> &bytes)
{
    std::string text;
    for (size_t bit = 0; bit < 8 * bytes.size(); bit += 5) {
        unsigned int value = 0;
        for (size_t i = bit; i < bit + 5 && i < 8 * bytes.size(); i++)
            value |= (bytes[i / 8] >> i % 8 & 1u) << (i - bit);
        text += "0123456789ABCDEFGHJKMNPQRSTVWXYZ"[value];
    }
    return text;
}

// ---- Base64

// The features of processors of which each takes another path, as far as this one and this build have them.
std::vector<uint32_t> available_base64_paths()
{
    std::vector<uint32_t> paths = {0};
    for (const uint32_t step : {qv::processor_shuffle, qv::processor_shuffle_32, qv::processor_shuffle_64}) {
        if ((qv::processor_features() & step) != 0)
            paths.push_back(paths.back() | step);
    }
    return paths;
}

const std::vector<uint32_t> base64_paths = available_base64_paths();

std::string to_base64(uint32_t features, std::string_view bytes, int wrap)
{
    guarded_bytes in(bytes), out(static_cast<size_t>(qv::base64_length(bytes.size(), wrap)));
    const int count = qv::base64_encode_by(features, in.data(), out.text(), in.size(), wrap);
    return std::string(out.view().substr(0, static_cast<size_t>(count)));
}

std::string from_base64(uint32_t features, std::string_view text)
{
    guarded_bytes in(text), out(text.size() / 4 * 3);
    const int count = qv::base64_decode_by(features, in.text(), out.data(), in.size());
    return std::string(out.view().substr(0, static_cast<size_t>(count)));
}

// Value by value with the arithmetic of the contract.
std::string base64_decode_reference(std::string_view text)
{
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    std::vector<unsigned int> group;
    for (const char c : text) {
        if (c != '=' && (c == '\0' || alphabet.find(c) == std::string::npos))
            continue;
        group.push_back(c == '=' ? 127 : static_cast<unsigned int>(alphabet.find(c)));
        if (group.size() < 4)
            continue;
        bytes += static_cast<char>(group[0] << 2 | group[1] >> 4);
        if (group[2] != 127)
            bytes += static_cast<char>(group[1] << 4 | group[2] >> 2);
        if (group[3] != 127)
            bytes += static_cast<char>(group[2] << 6 | group[3]);
        group.clear();
    }
    return bytes;
}

// ---- CRC-32C

struct crc_path {
    const char *name;
    uint32_t (*run)(uint32_t state, const uint8_t *bytes, size_t length);
    uint32_t needs;
};

const crc_path crc_paths[] = {
    {"tables", qv::crc32c_by_tables, 0},
#if defined(QV_CRC32C_WORDS)
    {"words", qv::crc32c_by_words, qv::processor_crc32},
#endif
#if defined(QV_CRC32C_WIDE_FOLDING)
    {"wide_folding", qv::crc32c_by_wide_folding, qv::processor_wide_folding},
#endif
};

uint32_t crc_state_reference(uint32_t state, const uint8_t *bytes, size_t length)
{
    for (size_t i = 0; i < length; i++) {
        state ^= bytes[i];
        for (int bit = 0; bit < 8; bit++)
            state = (state >> 1) ^ (state & 1 ? 0x82f63b78 : 0);
    }
    return state;
}

struct crc_row {
    const char *source;
    std::string_view bytes;
    uint32_t crc;
};

const crc_row published_crcs[] = {
    {"RFC 3720 B.4, 32 bytes of zeros", "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"sv,
     0xaa36918a},
    {"RFC 3720 B.4, 32 bytes of ones",
     "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"
     "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"sv,
     0x43aba862},
    {"RFC 3720 B.4, 32 bytes of incrementing 00..1f",
     "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f"
     "\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f"sv,
     0x4e79dd46},
    {"RFC 3720 B.4, 32 bytes of decrementing 1f..00",
     "\x1f\x1e\x1d\x1c\x1b\x1a\x19\x18\x17\x16\x15\x14\x13\x12\x11\x10"
     "\x0f\x0e\x0d\x0c\x0b\x0a\x09\x08\x07\x06\x05\x04\x03\x02\x01\x00"sv,
     0x5cdb3f11},
    {"RFC 3720 B.4, an iSCSI SCSI Read (10) command PDU",
     "\x01\xc0\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"
     "\x14\x00\x00\x00\x00\x00\x04\x00\x00\x00\x00\x14\x00\x00\x00\x18"
     "\x28\x00\x00\x00\x00\x00\x00\x00\x02\x00\x00\x00\x00\x00\x00\x00"sv,
     0x563a96d9},
    {"Catalogue of parametrised CRC algorithms, CRC-32/ISCSI, check", "123456789"sv, 0x839206e3},
};

} // namespace

// ---- Base32

TEST(Base32Encode, PacksTheLeastSignificantBitsFirst)
{
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 0), "10000000");
    EXPECT_EQ(to_base32({0, 0, 0, 0, 0x80}, 0), "0000000G");
    EXPECT_EQ(to_base32({0xe0, 3, 0, 0, 0}, 0), "0Z000000");
}

TEST(Base32Encode, AppendsTheCheckSymbolInModeThree)
{
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0, 0, 0}, 3), "1000000000001");
}

TEST(Base32Encode, CountsTheSymbolsThatAllBitsNeed)
{
    const size_t symbols[] = {0, 2, 4, 5, 7, 8, 10, 12, 13, 15, 16};
    for (size_t length = 0; length < std::size(symbols); length++)
        EXPECT_EQ(to_base32(std::vector<uint8_t>(length, 0xff), 0).size(), symbols[length]) << length;
}

TEST(Base32Encode, TakesTheLastBitsFromTheByteBehindTheInput)
{
    const uint8_t bytes[] = {0, 0x1f};
    char out[10];
    EXPECT_EQ(base32_encode(bytes, 1, out, sizeof(out), 0), 2);
    EXPECT_STREQ(out, "0R"); // bits 5 to 7 of the first byte, 0 and 1 of the second: 11000b
}

TEST(Base32Encode, ReadsNothingBehindAnInputThatFillsItsSymbols)
{
    guarded_bytes in("\xff\xff\xff\xff\xff"sv);
    char out[20];
    EXPECT_EQ(base32_encode(in.data(), in.size(), out, sizeof(out), 0), 8);
    EXPECT_STREQ(out, "ZZZZZZZZ");
}

TEST(Base32Encode, WritesNulBytesInTheDryRun)
{
    char out[16];
    memset(out, '#', sizeof(out));
    const uint8_t bytes[7] = {1};
    EXPECT_EQ(base32_encode(bytes, 7, out, sizeof(out), 1), 12);
    EXPECT_EQ(std::string_view(out, 13), std::string_view("\0\0\0\0\0\0\0\0\0\0\0\0\0", 13));
    EXPECT_EQ(out[13], '#');
}

TEST(Base32Encode, IsPlainInAnyOtherMode)
{
    for (const int mode : {0, 2, 4, -1, INT_MAX})
        EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, mode), "10000000") << mode;
}

TEST(Base32Encode, KeepsRoomForACheckSymbolAndTheNulWhateverTheMode)
{
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 0, 10), "10000000");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 0, 9), "1000000");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 3, 10), "100000001");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 3, 9), "10000001");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 3, 3), "11");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 3, 2), "0");
    EXPECT_EQ(to_base32({1, 0, 0, 0, 0}, 0, 2), "");
}

TEST(Base32Encode, WritesNoMoreThanTheNulIntoOneByteAndNothingIntoNone)
{
    EXPECT_EQ(to_base32({1, 0}, 3, 1), "");
    char untouched = '#';
    const uint8_t bytes[2] = {1, 0};
    EXPECT_EQ(base32_encode(bytes, 1, &untouched, 0, 3), 0);
    EXPECT_EQ(untouched, '#');
}

TEST(Base32Encode, TakesNullForAnEmptyInputAndWritesNothingToNull)
{
    char out[10];
    EXPECT_EQ(base32_encode(nullptr, 5, out, sizeof(out), 3), 1);
    EXPECT_STREQ(out, "0");
    const uint8_t bytes[2] = {1, 0};
    EXPECT_EQ(base32_encode(bytes, 1, nullptr, 10, 0), 0);
}

TEST(Base32Encode, GivesTheSymbolsOfTheDefinitionForAnyBytes)
{
    std::mt19937 random(2);
    for (size_t length = 0; length < 60; length++) {
        const std::vector<uint8_t> bytes = random_bytes(random, length);
        EXPECT_EQ(to_base32(bytes, 0), base32_reference(bytes));
    }
}

TEST(Base32Decode, VerifiesTheCheckSymbolInModeThree)
{
    uint8_t out[8];
    memset(out, 0xee, sizeof(out));
    EXPECT_EQ(base32_decode("1000000000001", out, 3), 7);
    EXPECT_EQ(memcmp(out, "\1\0\0\0\0\0\0\0", 8), 0);
    EXPECT_EQ(base32_decode("1000000000002", out, 3), -1);
}

TEST(Base32Decode, ReadsConfusableLettersInEitherCase)
{
    uint8_t out[2];
    for (const char *one : {"i0", "I0", "l0", "L0", "10"}) {
        EXPECT_EQ(base32_decode(one, out, 0), 7);
        EXPECT_EQ(out[0], 1) << one;
    }
    for (const char *zero : {"o0", "O0", "00"}) {
        EXPECT_EQ(base32_decode(zero, out, 0), 7);
        EXPECT_EQ(out[0], 0) << zero;
    }
    for (const char *v : {"u0", "U0", "v0", "V0"}) {
        EXPECT_EQ(base32_decode(v, out, 0), 7);
        EXPECT_EQ(out[0], 27) << v;
    }
}

TEST(Base32Decode, ReadsEverySymbolInEitherCase)
{
    const std::string symbols = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
    for (size_t value = 0; value < symbols.size(); value++) {
        uint8_t out[2];
        const char upper[] = {symbols[value], '0', '\0'};
        const char lower[] = {static_cast<char>(tolower(symbols[value])), '0', '\0'};
        base32_decode(upper, out, 0);
        EXPECT_EQ(out[0], value);
        base32_decode(lower, out, 0);
        EXPECT_EQ(out[0], value);
    }
}

TEST(Base32Decode, ReadsConfusableLettersAsTheCheckSymbolToo)
{
    uint8_t out[9];
    EXPECT_EQ(base32_decode("100000000000l", out, 3), 7);
    EXPECT_EQ(base32_decode("00o", out, 3), 7);
}

TEST(Base32Decode, LeavesTheLastSymbolOutInEveryMode)
{
    uint8_t out[2] = {0xee, 0xee};
    EXPECT_EQ(base32_decode("1Z", out, 0), 7);
    EXPECT_EQ(out[0], 1);
    EXPECT_EQ(out[1], 0xee);
}

TEST(Base32Decode, StoresTheBytesBehindTheFirstWithoutNeedingThemCleared)
{
    uint8_t out[9];
    memset(out, 0xff, sizeof(out));
    base32_decode("1000000000000", out, 0);
    EXPECT_EQ(memcmp(out, "\1\0\0\0\0\0\0\0\xff", 9), 0);
}

TEST(Base32Decode, TakesEveryValueAsZeroInTheDryRun)
{
    uint8_t out[9];
    memset(out, 0xff, sizeof(out));
    EXPECT_EQ(base32_decode("ZZZZZZZZZZZZZ", out, 1), 7);
    EXPECT_EQ(memcmp(out, "\0\0\0\0\0\0\0\0\xff", 9), 0);
}

TEST(Base32Decode, ReturnsSevenWhateverTheLength)
{
    uint8_t out[40];
    EXPECT_EQ(base32_decode("1", out, 0), 7);
    EXPECT_EQ(base32_decode("0", out, 3), 7);
    EXPECT_EQ(base32_decode(std::string(40, '1').c_str(), out, 0), 7);
}

TEST(Base32Decode, ReadsNothingBehindAnEmptyText)
{
    guarded_bytes empty("\0"sv);
    uint8_t out = 0xee;
    EXPECT_EQ(base32_decode(empty.text(), &out, 0), 7);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(base32_decode(empty.text(), &out, 3), -1);
}

TEST(Base32Decode, RefusesNull)
{
    uint8_t out;
    EXPECT_EQ(base32_decode(nullptr, &out, 0), -1);
    EXPECT_EQ(base32_decode("00", nullptr, 0), -1);
}

TEST(Base32Decode, TakesAnyCharacterWithoutHarm)
{
    for (int c = 1; c < 256; c++) {
        const char text[] = {static_cast<char>(c), static_cast<char>(c), '\0'};
        uint8_t out[2];
        EXPECT_EQ(base32_decode(text, out, 0), 7);
    }
}

TEST(Base32Decode, GivesBackWhatWasEncoded)
{
    std::mt19937 random(3);
    for (size_t length = 0; length <= 40; length += 1) {
        const std::vector<uint8_t> bytes = random_bytes(random, length);
        const std::string text = to_base32(bytes, 3);
        guarded_bytes out((text.size() - 1) * 5 / 8 + 1);
        EXPECT_EQ(base32_decode(text.c_str(), out.data(), 3), 7);
        EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), out.data()));
    }
}

// ---- Base64

struct base64_row {
    const char *bytes, *text;
};

const base64_row rfc_4648_section_10[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

#if defined(__x86_64__) || defined(__i386__) // other machines have none
class Base64Shuffles : public testing::TestWithParam<uint32_t>
{
};

TEST_P(Base64Shuffles, AreTestedBesideTheLoops)
{
    if ((qv::processor_features() & GetParam()) == 0)
        GTEST_SKIP() << "this processor or build has no such shuffles; the tests run the loops again";
}

INSTANTIATE_TEST_SUITE_P(Registers, Base64Shuffles,
                         testing::Values(qv::processor_shuffle, qv::processor_shuffle_32,
                                         qv::processor_shuffle_64));
#endif

TEST(Base64Encode, GivesTheVectorsOfRfc4648)
{
    for (const uint32_t path : base64_paths) {
        for (const base64_row &row : rfc_4648_section_10)
            EXPECT_EQ(to_base64(path, row.bytes, 0), row.text);
    }
}

TEST(Base64Encode, PadsTwoBytes)
{
    char out[4];
    EXPECT_EQ(base64_encode(bytes_of("Ma"), out, 2, 0), 4);
    EXPECT_EQ(std::string_view(out, 4), "TWE=");
}

TEST(Base64Encode, WritesNoNul)
{
    char out[5] = {'#', '#', '#', '#', '#'};
    EXPECT_EQ(base64_encode(bytes_of("foo"), out, 3, 0), 4);
    EXPECT_EQ(out[4], '#');
}

TEST(Base64Encode, UsesEverySymbol)
{
    std::string all;
    for (int value = 0; value < 64; value += 4) {
        all += static_cast<char>(value << 2 | (value + 1) >> 4);
        all += static_cast<char>((value + 1) << 4 | (value + 2) >> 2);
        all += static_cast<char>((value + 2) << 6 | (value + 3));
    }
    for (const uint32_t path : base64_paths)
        EXPECT_EQ(to_base64(path, all, 0),
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(Base64Encode, EndsEveryLineOf64CharactersWhenWrapping)
{
    const std::string line(64, 'A');
    for (const uint32_t path : base64_paths) {
        EXPECT_EQ(to_base64(path, std::string(48, '\0'), 1), line + "\n");
        EXPECT_EQ(to_base64(path, std::string(51, '\0'), 1), line + "\nAAAA");
        EXPECT_EQ(to_base64(path, std::string(96, '\0'), 7), line + "\n" + line + "\n");
        EXPECT_EQ(to_base64(path, std::string(45, '\0'), 1), std::string(60, 'A'));
    }
}

TEST(Base64Encode, EndsALineAlsoBehindAPaddedGroup)
{
    for (const uint32_t path : base64_paths) {
        EXPECT_EQ(to_base64(path, std::string(47, '\0'), 1), std::string(63, 'A') + "=\n");
        EXPECT_EQ(to_base64(path, std::string(46, '\0'), 1), std::string(62, 'A') + "==\n");
        EXPECT_EQ(to_base64(path, std::string(49, '\0'), 1), std::string(64, 'A') + "\nAA==");
    }
}

TEST(Base64Encode, Returns65For48WrappedBytes)
{
    char out[66];
    EXPECT_EQ(base64_encode(bytes_of(std::string(48, 'x')), out, 48, 1), 65);
    EXPECT_EQ(out[64], '\n');
}

TEST(Base64Encode, WritesNothingForNullOrAnImpossibleLength)
{
    char out[8];
    EXPECT_EQ(base64_encode(nullptr, out, 3, 0), 0);
    EXPECT_EQ(base64_encode(bytes_of("abc"), nullptr, 3, 0), 0);
    EXPECT_EQ(base64_encode(bytes_of("abc"), out, SIZE_MAX, 0), 0);
    EXPECT_EQ(base64_encode(bytes_of("abc"), out, size_t{INT_MAX} / 4 * 3 + 3, 0), 0);
    EXPECT_EQ(base64_encode(bytes_of("abc"), out, size_t{INT_MAX} / 65 * 48 + 48, 1), 0);
}

TEST(Base64Encode, CountsLineFeedsAgainstTheLongestOutputOnlyWhenWrapping)
{
    constexpr size_t longest = size_t{INT_MAX} / 4 * 3, longest_wrapped = size_t{INT_MAX} / 65 * 48;
    EXPECT_EQ(qv::base64_length(longest, 0), INT_MAX / 4 * 4);
    EXPECT_EQ(qv::base64_length(longest + 1, 0), 0);
    EXPECT_EQ(qv::base64_length(longest_wrapped, 1), INT_MAX / 65 * 65);
    EXPECT_EQ(qv::base64_length(longest, 1), 0);
    EXPECT_EQ(qv::base64_length(SIZE_MAX, 0), 0);
}

TEST(Base64Decode, GivesTheVectorsOfRfc4648)
{
    for (const uint32_t path : base64_paths) {
        for (const base64_row &row : rfc_4648_section_10)
            EXPECT_EQ(from_base64(path, row.text), row.bytes);
    }
}

TEST(Base64Decode, SkipsLineFeedsInsideAGroup)
{
    uint8_t out[3];
    EXPECT_EQ(base64_decode("TW\nE=", out, 5), 2);
    EXPECT_EQ(memcmp(out, "Ma", 2), 0);
}

TEST(Base64Decode, SkipsEveryCharacterOutsideTheAlphabet)
{
    std::string foreign;
    for (int c = 0; c < 256; c++) {
        if (c != '=' && c != '+' && c != '/' && !isalnum(c))
            foreign += static_cast<char>(c);
    }
    foreign += "\x80\xc1\xe1\xff";
    for (const uint32_t path : base64_paths) {
        EXPECT_EQ(from_base64(path, foreign), "");
        EXPECT_EQ(from_base64(path, "Zm9v" + foreign + "YmFy" + foreign), "foobar");
    }
}

TEST(Base64Decode, ReadsOnBehindAPad)
{
    for (const uint32_t path : base64_paths)
        EXPECT_EQ(from_base64(path, "Zg==Zm8=Zm9v"), "ffofoo");
}

TEST(Base64Decode, LeavesAnIncompleteGroupOut)
{
    for (const uint32_t path : base64_paths) {
        EXPECT_EQ(from_base64(path, "Zm9vYmF"), "foo");
        EXPECT_EQ(from_base64(path, "Z"), "");
    }
}

TEST(Base64Decode, KeepsTheArithmeticOfPadsInOddPlaces)
{
    for (const uint32_t path : base64_paths) {
        for (const std::string_view text : {"====", "=AAA", "A=AA", "AA=A", "AAA=", "//=/", "=/=/", "/==/"})
            EXPECT_EQ(from_base64(path, text), base64_decode_reference(text)) << text;
    }
}

TEST(Base64Decode, WritesNothingForNullOrAnImpossibleLength)
{
    uint8_t out[4];
    EXPECT_EQ(base64_decode(nullptr, out, 4), 0);
    EXPECT_EQ(base64_decode("Zm9v", nullptr, 4), 0);
    EXPECT_EQ(base64_decode("Zm9v", out, SIZE_MAX), 0);
}

TEST(Base64Decode, FindsEveryForeignCharacterAtEveryPlaceOfABlock)
{
    const std::string block = "Zm9vYmFyAAAA////";
    for (size_t place = 0; place < 64; place++) {
        for (int c = 0; c < 256; c++) {
            std::string text = block + block + block + block;
            text[place] = static_cast<char>(c);
            for (const uint32_t path : base64_paths)
                ASSERT_EQ(from_base64(path, text), base64_decode_reference(text)) << place << " " << c;
        }
    }
}

TEST(Base64Decode, GivesBackWhatWasEncodedWrappedOrNot)
{
    std::mt19937 random(4);
    for (size_t length = 0; length < 300; length++) {
        const std::vector<uint8_t> bytes = random_bytes(random, length);
        const std::string_view view(reinterpret_cast<const char *>(bytes.data()), length);
        for (const int wrap : {0, 1}) {
            const std::string text = to_base64(0, view, wrap);
            for (const uint32_t path : base64_paths) {
                ASSERT_EQ(to_base64(path, view, wrap), text);
                ASSERT_EQ(from_base64(path, text), view);
            }
        }
    }
}

TEST(Base64Decode, LeavesWhatFollowsItsBytesAlone)
{
    for (const uint32_t path : base64_paths) {
        for (size_t length = 4; length < 300; length += 4) {
            std::vector<uint8_t> out(length, 0x55);
            const std::string text(length, '/');
            const int count = qv::base64_decode_by(path, text.data(), out.data(), length);
            ASSERT_EQ(count, static_cast<int>(length / 4 * 3));
            ASSERT_EQ(std::count(out.begin() + count, out.end(), 0x55), static_cast<long>(length / 4));
        }
    }
}

TEST(Base64Decode, WorksInPlace)
{
    const std::string bytes(500, 'q');
    for (const uint32_t path : base64_paths) {
        std::string text = to_base64(0, bytes, 1);
        const int count =
            qv::base64_decode_by(path, text.data(), reinterpret_cast<uint8_t *>(text.data()), text.size());
        EXPECT_EQ(text.substr(0, static_cast<size_t>(count)), bytes);
    }
}

TEST(Base64, IsTheSameOnAProcessorWithFewerInstructions)
{
    const std::string bytes(200, 'q'), text = to_base64(0, bytes, 0);
    for (const uint32_t visible : base64_paths) {
        const fewer_instructions fewer(visible);
        std::string encoded(text.size(), '\0'), decoded(bytes.size(), '\0');
        base64_encode(bytes_of(bytes), encoded.data(), bytes.size(), 0);
        EXPECT_EQ(encoded, text);
        base64_decode(text.data(), reinterpret_cast<uint8_t *>(decoded.data()), text.size());
        EXPECT_EQ(decoded, bytes);
    }
}

TEST(Base64Decode, AgreesWithItsDefinitionOnRandomText)
{
    std::mt19937 random(5);
    const std::string_view likely = "ABCxyz019+/=\n ";
    for (int round = 0; round < 2000; round++) {
        // Every other text has few foreign characters and pads, so that whole blocks are met.
        const size_t symbols = round % 2 == 0 ? 9 : likely.size();
        std::string text(random() % 400, '\0');
        for (char &c : text)
            c = random() % 100 == 0 ? static_cast<char>(random()) : likely[random() % symbols];
        for (const uint32_t path : base64_paths)
            ASSERT_EQ(from_base64(path, text), base64_decode_reference(text));
    }
}

// ---- Hex

TEST(HexEncode, WritesTwoLowerCaseDigitsForEachByteAndANul)
{
    char out[9] = "########";
    EXPECT_EQ(hex_encode(bytes_of("\x00\x9a\xff"sv), 3, out), 6u);
    EXPECT_STREQ(out, "009aff");
    EXPECT_EQ(out[7], '#');
}

TEST(HexEncode, WritesEveryByteAsPrintfDoes)
{
    for (unsigned int value = 0; value < 256; value++) {
        const auto byte = static_cast<uint8_t>(value);
        char out[3], expected[3];
        snprintf(expected, sizeof(expected), "%02x", value);
        EXPECT_EQ(hex_encode(&byte, 1, out), 2u);
        EXPECT_STREQ(out, expected);
    }
}

TEST(HexEncode, WritesTheNulAloneForNoBytes)
{
    char out[2] = "#";
    EXPECT_EQ(hex_encode(nullptr, 0, out), 0u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(hex_encode(nullptr, 4, out), 0u);
    EXPECT_EQ(hex_encode(bytes_of("a"), 1, nullptr), 0u);
}

TEST(HexDecode, ReadsAnOddNumberOfDigitsBehindThePrefix)
{
    uint8_t out[3] = {0xee, 0xee, 0xee};
    EXPECT_EQ(hex_decode("0x1ab", out, 2), 2);
    EXPECT_EQ(memcmp(out, "\x01\xab\xee", 3), 0);
}

TEST(HexDecode, AdmitsOneByteMoreThanTheSize)
{
    uint8_t out[2];
    EXPECT_EQ(hex_decode("abc", out, 1), 2);
    EXPECT_EQ(memcmp(out, "\x0a\xbc", 2), 0);
    EXPECT_EQ(hex_decode("12", out, 0), 1);
    EXPECT_EQ(out[0], 0x12);
}

TEST(HexDecode, RefusesTwoBytesMoreThanTheSize)
{
    uint8_t out[2] = {0xee, 0xee};
    EXPECT_EQ(hex_decode("abcde", out, 1), -1);
    EXPECT_EQ(hex_decode("abc", out, 0), -1);
    EXPECT_EQ(out[0], 0xee);
}

TEST(HexDecode, RefusesAnEmptyText)
{
    uint8_t out[1];
    EXPECT_EQ(hex_decode("", out, 1), -1);
    EXPECT_EQ(hex_decode("0x", out, 1), -1);
}

TEST(HexDecode, TellsABadLowDigitFromABadHighDigit)
{
    uint8_t out[20];
    EXPECT_EQ(hex_decode("1g", out, 1), -2);
    EXPECT_EQ(hex_decode("g1", out, 1), -3);
    EXPECT_EQ(hex_decode("g", out, 1), -2);
    EXPECT_EQ(hex_decode("0X12", out, 2), -2);
}

TEST(HexDecode, ReportsTheFaultThatStandsFurthestToTheRight)
{
    uint8_t out[80];
    EXPECT_EQ(hex_decode("1gg111", out, 3), -3);
    EXPECT_EQ(hex_decode("g1g1111g", out, 4), -2);
    const std::string block(64, '0');
    EXPECT_EQ(hex_decode(("g" + block + "g" + block.substr(1)).c_str(), out, 80), -3);
}

TEST(HexDecode, HasWrittenTheBytesToTheRightOfTheFault)
{
    uint8_t out[4] = {0xee, 0xee, 0xee, 0xee};
    EXPECT_EQ(hex_decode("12g4abcd", out, 4), -3);
    EXPECT_EQ(out[0], 0xee);
    EXPECT_EQ(memcmp(out + 2, "\xab\xcd", 2), 0);
}

TEST(HexDecode, ReadsDigitsInEitherCase)
{
    uint8_t out[8];
    EXPECT_EQ(hex_decode("abcdefABCDEF", out, 6), 6);
    EXPECT_EQ(memcmp(out, "\xab\xcd\xef\xab\xcd\xef", 6), 0);
}

TEST(HexDecode, RefusesNull)
{
    uint8_t out[1];
    EXPECT_EQ(hex_decode(nullptr, out, 1), -1);
    EXPECT_EQ(hex_decode("12", nullptr, 1), -1);
}

TEST(HexDecode, FindsEveryForeignCharacterAtEveryPlaceOfABlock)
{
    for (size_t place = 0; place < 70; place++) {
        for (int c = 1; c < 256; c++) {
            std::string text(70, '5');
            text[place] = static_cast<char>(c);
            if (text.starts_with("0x"))
                continue;
            guarded_bytes in(std::string_view(text.c_str(), text.size() + 1)), out(35);
            const int expected = isxdigit(c) ? 35 : place % 2 == 1 ? -2 : -3;
            ASSERT_EQ(hex_decode(in.text(), out.data(), 35), expected) << place << " " << c;
        }
    }
}

TEST(HexDecode, GivesBackWhatWasEncoded)
{
    std::mt19937 random(6);
    for (size_t length = 1; length < 200; length++) {
        const std::vector<uint8_t> bytes = random_bytes(random, length);
        guarded_bytes in(std::string_view(reinterpret_cast<const char *>(bytes.data()), length));
        guarded_bytes text(2 * length + 1), out(length);
        ASSERT_EQ(hex_encode(in.data(), length, text.text()), 2 * length);
        ASSERT_EQ(hex_decode(text.text(), out.data(), length), static_cast<int>(length));
        ASSERT_EQ(memcmp(out.data(), bytes.data(), length), 0);
    }
}

// ---- CRC-32C

TEST(Crc32c, GivesPublishedValuesByteSwapped)
{
    for (const crc_row &row : published_crcs) {
        SCOPED_TRACE(row.source);
        EXPECT_EQ(crc32c(row.bytes.data(), row.bytes.size()), row.crc);
    }
}

TEST(Crc32c, OfNoBytesIsZero)
{
    EXPECT_EQ(crc32c("", 0), 0u);
    EXPECT_EQ(crc32c(nullptr, 5), 0u);
}

TEST(Crc32c, IsTheSameOnAProcessorWithFewerInstructions)
{
    for (const uint32_t visible : {0u, static_cast<uint32_t>(qv::processor_crc32)}) {
        const fewer_instructions fewer(visible);
        for (const crc_row &row : published_crcs)
            EXPECT_EQ(crc32c(row.bytes.data(), row.bytes.size()), row.crc) << row.source;
    }
}

// Each way to run over the bytes by itself.
class Crc32cPath : public testing::TestWithParam<crc_path>
{
  protected:
    void SetUp() override
    {
        if ((qv::processor_features() & GetParam().needs) != GetParam().needs)
            GTEST_SKIP() << "this processor has no instructions for " << GetParam().name;
    }
};

INSTANTIATE_TEST_SUITE_P(Every, Crc32cPath, testing::ValuesIn(crc_paths),
                         [](const auto &path) { return std::string(path.param.name); });

TEST_P(Crc32cPath, GivesPublishedValues)
{
    for (const crc_row &row : published_crcs) {
        SCOPED_TRACE(row.source);
        EXPECT_EQ(__builtin_bswap32(~GetParam().run(~0u, bytes_of(row.bytes), row.bytes.size())), row.crc);
    }
}

TEST_P(Crc32cPath, AgreesWithTheDefinitionForAnyLengthAndAlignment)
{
    std::mt19937 random(7);
    const std::vector<uint8_t> bytes = random_bytes(random, 9000);
    std::vector<size_t> lengths;
    for (size_t length = 0; length < 700; length++)
        lengths.push_back(length);
    for (const size_t length : {1023u, 1024u, 1025u, 2048u, 4031u, 4032u, 4033u, 4096u, 5040u, 8192u, 8999u})
        lengths.push_back(length);
    for (const size_t length : lengths) {
        const size_t offset = random() % (bytes.size() - length);
        const auto state = static_cast<uint32_t>(random());
        ASSERT_EQ(GetParam().run(state, bytes.data() + offset, length),
                  crc_state_reference(state, bytes.data() + offset, length))
            << length;
    }
}

TEST_P(Crc32cPath, ReadsNothingBehindItsBytes)
{
    for (const size_t length : {1u, 7u, 8u, 9u, 191u, 192u, 255u, 256u, 257u, 319u, 4096u, 4100u}) {
        guarded_bytes bytes(length);
        EXPECT_EQ(GetParam().run(~0u, bytes.data(), length), crc_state_reference(~0u, bytes.data(), length));
    }
}

TEST(Crc32cv, EqualsTheChecksumOfTheConcatenation)
{
    std::mt19937 random(8);
    for (int round = 0; round < 200; round++) {
        std::vector<uint8_t> bytes = random_bytes(random, random() % 1000);
        std::vector<struct iovec> entries;
        for (size_t done = 0; done < bytes.size();) {
            const size_t piece =
                random() % 3 == 0 ? 0 : std::min<size_t>(random() % 300, bytes.size() - done);
            entries.push_back({piece == 0 ? nullptr : bytes.data() + done, piece});
            done += piece;
        }
        ASSERT_EQ(crc32cv(entries.data(), static_cast<int>(entries.size())),
                  crc32c(bytes.data(), bytes.size()));
    }
}

TEST(Crc32cv, SkipsEmptyEntries)
{
    char digits[] = "123456789";
    const struct iovec entries[] = {{digits, 0}, {digits, 4}, {nullptr, 0}, {digits + 4, 5}, {digits, 0}};
    EXPECT_EQ(crc32cv(entries, 5), 0x839206e3);
}

TEST(Crc32cv, OfAnEmptyVectorIsZero)
{
    const struct iovec entries[] = {{nullptr, 0}};
    EXPECT_EQ(crc32cv(entries, 0), 0u);
    EXPECT_EQ(crc32cv(entries, -1), 0u);
    EXPECT_EQ(crc32cv(nullptr, 1), 0u);
    EXPECT_EQ(crc32cv(entries, 1), 0u);
}

// ---- FNV-1a

struct fnv_row {
    const char *text;
    uint32_t hash;
    uint64_t hash64;
};

// The reference vectors of the FNV authors, test_fnv.c and draft-eastlake-fnv, appendix C.
const fnv_row published_hashes[] = {
    {"", 0x811c9dc5, 0xcbf29ce484222325},       {"a", 0xe40c292c, 0xaf63dc4c8601ec8c},
    {"b", 0xe70c2de5, 0xaf63df4c8601f1a5},      {"c", 0xe60c2c52, 0xaf63de4c8601eff2},
    {"fo", 0x6222e842, 0x08985907b541d342},     {"foo", 0xa9f37ed7, 0xdcb27518fed9d577},
    {"foob", 0x3f5076ef, 0xdd120e790c2512af},   {"fooba", 0x39aaa18a, 0xcac165afa2fef40a},
    {"foobar", 0xbf9cf968, 0x85944171f73967e8},
};

TEST(HashBuf, GivesTheReferenceVectors)
{
    for (const fnv_row &row : published_hashes) {
        EXPECT_EQ(hash_buf(row.text, strlen(row.text)), row.hash) << row.text;
        EXPECT_EQ(hash_buf_64(row.text, strlen(row.text)), row.hash64) << row.text;
    }
}

TEST(HashBuf, HashesNulBytesToo)
{
    EXPECT_EQ(hash_buf("\0", 1), 0x050c5d1fu); // test_fnv.c, one NUL byte
    EXPECT_EQ(hash_buf_64("\0", 1), 0xaf63bd4c8601b7dfull);
}

TEST(HashBuf, OfNoBytesIsTheStartValue)
{
    EXPECT_EQ(hash_buf(nullptr, 0), 0x811c9dc5);
    EXPECT_EQ(hash_buf_64(nullptr, 0), 0xcbf29ce484222325);
    EXPECT_EQ(hash_buf(nullptr, 7), 0x811c9dc5);
    EXPECT_EQ(hash_buf_64(nullptr, 7), 0xcbf29ce484222325);
}

TEST(HashStr, StopsBeforeTheNul)
{
    for (const fnv_row &row : published_hashes) {
        EXPECT_EQ(hash_str(row.text), row.hash) << row.text;
        EXPECT_EQ(hash_str_64(row.text), row.hash64) << row.text;
    }
    EXPECT_EQ(hash_str("\xff\x80"), hash_buf("\xff\x80", 2));
    EXPECT_EQ(hash_str_64("\xff\x80"), hash_buf_64("\xff\x80", 2));
}

TEST(HashStr, TakesNullForAnEmptyText)
{
    EXPECT_EQ(hash_str(nullptr), 0x811c9dc5);
    EXPECT_EQ(hash_str_64(nullptr), 0xcbf29ce484222325);
}

// ---- Fibre Channel

TEST(IsValidFcAlPa, AcceptsTheBoundsAndRefusesTheFlPort)
{
    EXPECT_EQ(is_valid_fc_al_pa(0xef), 1);
    EXPECT_EQ(is_valid_fc_al_pa(0x01), 1);
    EXPECT_EQ(is_valid_fc_al_pa(0x00), 0);
    EXPECT_EQ(is_valid_fc_al_pa(0xf0), 0);
    EXPECT_EQ(is_valid_fc_al_pa(0x03), 0);
}

TEST(IsValidFcAlPa, RefusesValuesAboveAByte)
{
    EXPECT_EQ(is_valid_fc_al_pa(0x101), 0);
    EXPECT_EQ(is_valid_fc_al_pa(0x1ef), 0);
    EXPECT_EQ(is_valid_fc_al_pa(UINT_MAX), 0);
}

// 8B/10B (Widmer and Franaszek, 1983): a byte keeps the running disparity when both or neither of its blocks,
// five and three bits, have an unbalanced code. Those up to 0xef, without 0x00, are the addresses of
// NL_Ports.
TEST(IsValidFcAlPa, AcceptsTheBytesWhoseCodeKeepsTheDisparity)
{
    const std::vector<unsigned int> unbalanced5 = {0, 1, 2, 4, 8, 15, 16, 23, 24, 27, 29, 30, 31};
    const std::vector<unsigned int> unbalanced3 = {0, 4, 7};
    const auto holds = [](const std::vector<unsigned int> &set, unsigned int value) {
        return std::find(set.begin(), set.end(), value) != set.end();
    };
    int count = 0;
    for (unsigned int alpa = 0; alpa < 256; alpa++) {
        const bool neutral = holds(unbalanced5, alpa & 31) == holds(unbalanced3, alpa >> 5);
        EXPECT_EQ(is_valid_fc_al_pa(alpa), neutral && alpa != 0 && alpa <= 0xef) << alpa;
        count += is_valid_fc_al_pa(alpa);
    }
    EXPECT_EQ(count, 126);
}

// ---- Integers

TEST(Clz, CountsLeadingZeroBits)
{
    EXPECT_EQ(clz(0), 32);
    EXPECT_EQ(clz(1), 31);
    EXPECT_EQ(clz(0x80000000), 0);
    EXPECT_EQ(clz(0x00ffffff), 8);
}

TEST(Ctz, CountsTrailingZeroBits)
{
    EXPECT_EQ(ctz(0), 32);
    EXPECT_EQ(ctz(1), 0);
    EXPECT_EQ(ctz(0x80000000), 31);
    EXPECT_EQ(ctz(0xff000000), 24);
}

TEST(QvIlog2, RoundsDown)
{
    EXPECT_EQ(qv_ilog2(0), 0u);
    EXPECT_EQ(qv_ilog2(1), 0u);
    EXPECT_EQ(qv_ilog2(0x80000000), 31u);
    for (unsigned int bit = 1; bit < 32; bit++) {
        EXPECT_EQ(qv_ilog2(1u << bit), bit);
        EXPECT_EQ(qv_ilog2((1u << bit) - 1), bit - 1);
        EXPECT_EQ(qv_ilog2((1u << bit) + 1), bit == 0 ? 1 : bit);
    }
}

TEST(QvIlog264, RoundsDown)
{
    EXPECT_EQ(qv_ilog2_64(0), 0u);
    EXPECT_EQ(qv_ilog2_64(1), 0u);
    EXPECT_EQ(qv_ilog2_64(0xffffffff), 31u);
    EXPECT_EQ(qv_ilog2_64(1ull << 32), 32u);
    EXPECT_EQ(qv_ilog2_64(1ull << 40), 40u);
    EXPECT_EQ(qv_ilog2_64(UINT64_MAX), 63u);
}

TEST(Isqrt32, RoundsDown)
{
    EXPECT_EQ(isqrt32(0), 0u);
    EXPECT_EQ(isqrt32(0xffffffff), 65535u);
    for (uint32_t root = 1; root < 65536; root++) {
        const uint32_t square = root * root;
        ASSERT_EQ(isqrt32(square), root);
        ASSERT_EQ(isqrt32(square - 1), root - 1);
        ASSERT_EQ(isqrt32(square + 2 * root), root);
    }
}

TEST(Cmpnum64, CountsOneAboveAsEqualAndOneBelowAsLess)
{
    const uint64_t four = 4, five = 5, six = 6;
    for (const auto compare : {cmpnumle64, cmpnumbe64}) {
        EXPECT_EQ(compare(&four, &four), 0);
        EXPECT_EQ(compare(&five, &four), 0);
        EXPECT_EQ(compare(&four, &five), -1);
        EXPECT_EQ(compare(&six, &four), 1);
        EXPECT_EQ(compare(&four, &six), -1);
    }
}

TEST(Cmpnum64, GoesByTheSignedDifference)
{
    const uint64_t zero = 0, all_ones = UINT64_MAX, half = 1ull << 63;
    for (const auto compare : {cmpnumle64, cmpnumbe64}) {
        EXPECT_EQ(compare(&all_ones, &zero), -1);
        EXPECT_EQ(compare(&zero, &all_ones), 0);
        EXPECT_EQ(compare(&half, &zero), -1);
        EXPECT_EQ(compare(&zero, &half), -1);
    }
}

TEST(Cmpnum64, TakesNullForZero)
{
    const uint64_t two = 2;
    EXPECT_EQ(cmpnumle64(&two, nullptr), 1);
    EXPECT_EQ(cmpnumbe64(nullptr, &two), -1);
}

TEST(GetSiUnit, ChangesAtEachPowerOf1024)
{
    const char *units[] = {"Bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    EXPECT_STREQ(get_si_unit(0), "Bytes");
    EXPECT_STREQ(get_si_unit(1023), "Bytes");
    EXPECT_STREQ(get_si_unit(1024), "KiB");
    for (unsigned int k = 1; k < 7; k++) {
        EXPECT_STREQ(get_si_unit(1ull << 10 * k), units[k]);
        EXPECT_STREQ(get_si_unit((1ull << 10 * k) - 1), units[k - 1]);
    }
    EXPECT_STREQ(get_si_unit(UINT64_MAX), "EiB");
}

TEST(GetSiScale, IsZeroForEveryNumber)
{
    for (const uint64_t v : {0ull, 1ull, 1023ull, 1024ull, 1ull << 40, ~0ull})
        EXPECT_EQ(get_si_scale(v), 0u);
}
