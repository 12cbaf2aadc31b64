/*
 * Base32, base64 and hex. Every table is constant; every loop knows its last input byte before it starts, so
 * that only base32_encode's spare byte is read beyond the input.
 */
#include <qvlib/encoding.h>

#include "base64.h"
#include "processor.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

namespace
{

enum { mode_dry_run = 1, mode_check = 3 };

constexpr char base32_symbols[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";
constexpr char base64_symbols[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char hex_digits[] = "0123456789abcdef";

// What the base64 table holds beside the values 0 to 63.
constexpr uint8_t skipped = 126, pad = 127;

// What the others hold for a character that is none of theirs.
constexpr uint8_t foreign = 0xff;

using reverse_table = std::array<uint8_t, 256>;

constexpr size_t index_of(char c)
{
    return static_cast<unsigned char>(c);
}

constexpr char lower_case(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr reverse_table make_base32_values()
{
    reverse_table table = {};
    table.fill(foreign);
    for (uint8_t value = 0; value < 32; value++) {
        table[index_of(base32_symbols[value])] = value;
        table[index_of(lower_case(base32_symbols[value]))] = value;
    }
    constexpr char confusable[][2] = {{'I', '1'}, {'L', '1'}, {'O', '0'}, {'U', 'V'}};
    for (const auto &[letter, meaning] : confusable) {
        table[index_of(letter)] = table[index_of(meaning)];
        table[index_of(lower_case(letter))] = table[index_of(meaning)];
    }
    return table;
}

constexpr reverse_table make_base64_values()
{
    reverse_table table = {};
    table.fill(skipped);
    for (uint8_t value = 0; value < 64; value++)
        table[index_of(base64_symbols[value])] = value;
    table[index_of('=')] = pad;
    return table;
}

constexpr reverse_table make_hex_values()
{
    reverse_table table = {};
    table.fill(foreign);
    for (uint8_t value = 0; value < 16; value++)
        table[index_of(hex_digits[value])] = value;
    for (uint8_t value = 10; value < 16; value++)
        table[index_of(static_cast<char>('A' + value - 10))] = value;
    return table;
}

#if defined(QVLIB_FIRMWARE)
// A reverse table without the characters that no encoding uses, all of which have the same value.
class value_table
{
  public:
    constexpr explicit value_table(const reverse_table &all) : other_(all[0])
    {
        std::copy(all.begin() + first, all.begin() + last + 1, values_.begin());
    }
    [[gnu::noinline]] uint8_t operator[](size_t index) const
    {
        return index >= first && index <= last ? values_[index - first] : other_;
    }

  private:
    static constexpr size_t first = '+', last = 'z';
    uint8_t other_;
    std::array<uint8_t, last - first + 1> values_ = {};
};
#else
using value_table = reverse_table;
#endif

constexpr value_table base32_values(make_base32_values());
constexpr value_table base64_values(make_base64_values());
constexpr value_table hex_values(make_hex_values());

// ---- Base32

// The number of five-bit groups that len bytes begin, without the overflow of 8 * len.
size_t count_symbols(size_t len)
{
    return len / 5 * 8 + (len % 5 * 8 + 4) / 5;
}

// Takes five bits from bit `bit` of `bytes` on; the byte behind the first is read only when bits of it are
// wanted.
unsigned int five_bits(const uint8_t *bytes, unsigned int bit)
{
    unsigned int value = static_cast<unsigned int>(bytes[0]) >> bit;
    if (bit > 3)
        value |= static_cast<unsigned int>(bytes[1]) << (8 - bit);
    return value & 31;
}

// ---- Base64

[[maybe_unused]] uint32_t load_big_endian(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

void encode_group(uint32_t bits, char *out)
{
    out[0] = base64_symbols[bits >> 18];
    out[1] = base64_symbols[bits >> 12 & 63];
    out[2] = base64_symbols[bits >> 6 & 63];
    out[3] = base64_symbols[bits & 63];
}

// Encodes whole groups; `readable` counts the bytes of input from `in` on, of which the groups are the first.
char *encode_groups([[maybe_unused]] uint32_t features, const uint8_t *in, [[maybe_unused]] size_t readable,
                    size_t groups, char *out)
{
#if defined(QV_BASE64_WIDE_SHUFFLES)
    const size_t wide =
        features & qv::processor_shuffle_64   ? 16 * qv::base64_encode_by_64(in, 3 * groups, out)
        : features & qv::processor_shuffle_32 ? 8 * qv::base64_encode_by_32(in, 3 * groups, out)
                                              : 0;
    in += 3 * wide;
    readable -= 3 * wide;
    out += 4 * wide;
    groups -= wide;
#endif
#if defined(QV_BASE64_SHUFFLES)
    const size_t blocks = features & qv::processor_shuffle ? groups / 4 : 0;
    if (blocks != 0)
        qv::base64_encode_shuffled(in, readable, blocks, out);
    in += 12 * blocks;
    out += 16 * blocks;
    groups -= 4 * blocks;
#endif
#if !defined(QVLIB_FIRMWARE)
    // Two groups at a step take one word and one half word of input.
    for (; groups >= 2; groups -= 2, in += 6, out += 8) {
        const uint32_t word = load_big_endian(in);
        const uint32_t half = static_cast<uint32_t>(in[4]) << 8 | in[5];
        encode_group(word >> 8, out);
        encode_group((word & 0xff) << 16 | half, out + 4);
    }
#endif
    for (; groups != 0; groups--, in += 3, out += 4)
        encode_group(static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(in[1]) << 8 | in[2], out);
    return out;
}

// The one or two bytes that fill no group.
char *encode_rest(const uint8_t *in, size_t len, char *out)
{
    const uint8_t second = len == 2 ? in[1] : uint8_t{0};
    encode_group(static_cast<uint32_t>(in[0]) << 16 | static_cast<uint32_t>(second) << 8, out);
    out[3] = '=';
    if (len == 1)
        out[2] = '=';
    return out + 4;
}

// Decodes the groups in front of the first pad or foreign character, moving both places on.
void decode_groups([[maybe_unused]] uint32_t features, const char *&in, const char *in_end, uint8_t *&out)
{
#if defined(QV_BASE64_WIDE_SHUFFLES)
    if (features & qv::processor_shuffle_64 && in_end - in >= 64) {
        const size_t blocks = qv::base64_decode_by_64(in, static_cast<size_t>(in_end - in), out);
        in += 64 * blocks;
        out += 48 * blocks;
    } else if (features & qv::processor_shuffle_32 && in_end - in >= 32) {
        const size_t blocks = qv::base64_decode_by_32(in, static_cast<size_t>(in_end - in), out);
        in += 32 * blocks;
        out += 24 * blocks;
    }
#endif
#if defined(QV_BASE64_SHUFFLES)
    if (features & qv::processor_shuffle && in_end - in >= 16) {
        const size_t blocks = qv::base64_decode_shuffled(in, static_cast<size_t>(in_end - in), out);
        in += 16 * blocks;
        out += 12 * blocks;
    }
#endif
#if !defined(QVLIB_FIRMWARE) // which decodes by characters
    for (; in_end - in >= 4; in += 4, out += 3) {
        const uint32_t a = base64_values[index_of(in[0])], b = base64_values[index_of(in[1])];
        const uint32_t c = base64_values[index_of(in[2])], d = base64_values[index_of(in[3])];
        if ((a | b | c | d) > 63)
            return;
        const uint32_t bits = a << 18 | b << 12 | c << 6 | d;
        out[0] = static_cast<uint8_t>(bits >> 16);
        out[1] = static_cast<uint8_t>(bits >> 8);
        out[2] = static_cast<uint8_t>(bits);
    }
#endif
}

// Decodes a group that may hold pads.
uint8_t *decode_group(const uint8_t value[4], uint8_t *out)
{
    *out++ = static_cast<uint8_t>(value[0] << 2 | value[1] >> 4);
    if (value[2] != pad)
        *out++ = static_cast<uint8_t>(value[1] << 4 | value[2] >> 2);
    if (value[3] != pad)
        *out++ = static_cast<uint8_t>(value[2] << 6 | value[3]);
    return out;
}

// ---- Hex

#if !defined(QVLIB_FIRMWARE)
// Decodes a block of digits without a branch, which compilers turn into vector instructions. Returns false,
// with nothing written, when one of the characters is no digit.
constexpr size_t hex_block = 32;

bool decode_hex_block(const char *in, uint8_t *out)
{
    uint8_t value[hex_block], faults[hex_block];
#pragma GCC unroll 1 // a loop that is taken apart is no longer seen as one for vectors
    for (size_t i = 0; i < hex_block; i++) {
        const auto digit = static_cast<uint8_t>(in[i] - '0');
        const auto letter = static_cast<uint8_t>((in[i] | 0x20) - 'a');
        value[i] = digit < 10 ? digit : static_cast<uint8_t>(letter + 10);
        faults[i] = digit < 10 || letter < 6 ? 0 : 1;
    }
    uint64_t words[hex_block / 8], fault = 0;
    memcpy(words, faults, sizeof(words));
    for (const uint64_t word : words)
        fault |= word;
    if (fault != 0)
        return false;
#pragma GCC unroll 1
    for (size_t i = 0; i < hex_block / 2; i++)
        out[i] = static_cast<uint8_t>(value[2 * i] << 4 | value[2 * i + 1]);
    return true;
}
#endif

} // namespace

int base32_encode(const uint8_t *in, size_t len, char *out, size_t outsize, int mode)
{
    if (out == nullptr || outsize == 0)
        return 0;
    outsize = std::min<size_t>(outsize, INT_MAX);
    // Room is kept for a check symbol and the NUL, whatever the mode.
    const size_t room = outsize < 2 ? 0 : outsize - 2;
    const size_t count = std::min(in == nullptr && mode != mode_dry_run ? 0 : count_symbols(len), room);

    unsigned int sum = 0, bit = 0;
    for (size_t i = 0; i < count; i++) {
        if (mode == mode_dry_run) {
            out[i] = '\0';
            continue;
        }
        const unsigned int value = five_bits(in, bit);
        out[i] = base32_symbols[value];
        sum += value;
        in += bit > 2;
        bit = (bit + 5) % 8;
    }
    char *end = out + count;
    if (mode == mode_check && outsize > 1)
        *end++ = base32_symbols[sum % 32];
    *end = '\0';
    return static_cast<int>(end - out);
}

int base32_decode(const char *in, uint8_t *out, int mode)
{
    if (in == nullptr || out == nullptr)
        return -1;
    out[0] = 0;
    if (*in == '\0')
        return mode == mode_check ? -1 : 7;

    unsigned int sum = 0, bit = 0;
    for (; in[1] != '\0'; in++) {
        const unsigned int value = mode == mode_dry_run ? 0 : base32_values[index_of(*in)] & 31u;
        *out = static_cast<uint8_t>(*out | value << bit);
        // A store, not an OR: the bytes behind the first need not be cleared by the caller.
        if (bit > 2)
            *++out = static_cast<uint8_t>(value >> (8 - bit));
        bit = (bit + 5) % 8;
        sum += value;
    }
    return mode == mode_check && base32_values[index_of(*in)] != sum % 32 ? -1 : 7;
}

int qv::base64_length(size_t len, int wrap)
{
    if (len > INT_MAX)
        return 0;
    const size_t symbols = (len + 2) / 3 * 4, line_feeds = wrap == 0 ? 0 : symbols / 64;
    return symbols + line_feeds > INT_MAX ? 0 : static_cast<int>(symbols + line_feeds);
}

int qv::base64_encode_by(uint32_t features, const uint8_t *in, char *out, size_t len, int wrap)
{
    constexpr size_t groups_per_line = 16;
    const size_t groups = len / 3, rest = len % 3;
    if (in == nullptr || out == nullptr || base64_length(len, wrap) == 0)
        return 0;

    char *end = out;
    if (wrap == 0) {
        end = encode_groups(features, in, len, groups, end);
    } else {
        for (size_t done = 0; done < groups;) {
            const size_t piece = std::min(groups - done, groups_per_line);
            end = encode_groups(features, in + 3 * done, len - 3 * done, piece, end);
            done += piece;
            if (piece == groups_per_line)
                *end++ = '\n';
        }
    }
    if (rest != 0) {
        end = encode_rest(in + 3 * groups, rest, end);
        if (wrap != 0 && groups % groups_per_line == groups_per_line - 1)
            *end++ = '\n';
    }
    return static_cast<int>(end - out);
}

int base64_encode(const uint8_t *in, char *out, size_t len, int wrap)
{
    return qv::base64_encode_by(qv::processor_features(), in, out, len, wrap);
}

int qv::base64_decode_by(uint32_t features, const char *in, uint8_t *out, size_t len)
{
    if (in == nullptr || out == nullptr || len > INT_MAX)
        return 0;
    const char *const in_end = in + len;
    uint8_t *end = out;
    uint8_t group[4];
    size_t held = 0;
    while (in != in_end) {
        if (held == 0) {
            decode_groups(features, in, in_end, end);
            if (in == in_end)
                break;
        }
        group[held] = base64_values[index_of(*in++)];
        held += group[held] != skipped;
        if (held == 4) {
            end = decode_group(group, end);
            held = 0;
        }
    }
    return static_cast<int>(end - out);
}

int base64_decode(const char *in, uint8_t *out, size_t len)
{
    return qv::base64_decode_by(qv::processor_features(), in, out, len);
}

size_t hex_encode(const uint8_t *in, size_t len, char *out)
{
    if (out == nullptr)
        return 0;
    if (in == nullptr)
        len = 0;
    for (size_t i = 0; i < len; i++) {
        const unsigned int high = in[i] >> 4u, low = in[i] & 15u;
        out[2 * i] = static_cast<char>(high + (high > 9 ? 'a' - 10 : '0'));
        out[2 * i + 1] = static_cast<char>(low + (low > 9 ? 'a' - 10 : '0'));
    }
    out[2 * len] = '\0';
    return 2 * len;
}

int hex_decode(const char *str, uint8_t *out, size_t outsize)
{
    if (str == nullptr || out == nullptr)
        return -1;
    if (str[0] == '0' && str[1] == 'x')
        str += 2;
    size_t digits = strlen(str);
    const size_t bytes = (digits + 1) / 2;
    // One byte more than outsize passes and an empty text does not: callers rely on both.
    if (bytes - 1 > outsize || bytes > INT_MAX)
        return -1;

    size_t i = bytes;
#if !defined(QVLIB_FIRMWARE)
    for (; digits >= hex_block && decode_hex_block(str + digits - hex_block, out + i - hex_block / 2);) {
        digits -= hex_block;
        i -= hex_block / 2;
    }
#endif
    while (i-- > 0) {
        const unsigned int low = hex_values[index_of(str[--digits])];
        if (low == foreign)
            return -2;
        const unsigned int high = digits == 0 ? 0 : hex_values[index_of(str[--digits])];
        if (high == foreign)
            return -3;
        out[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return static_cast<int>(bytes);
}
