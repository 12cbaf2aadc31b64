// Encodings, checksums and digests beside their models, in buffers of the exact size:
//
//   scripts/fuzz 60 encoding
//
// An input is a mode, a size and a cut, then the bytes or the text.

#include <qvlib/digest.h>
#include <qvlib/encoding.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_input.h"

namespace
{

using fuzz::require;
using bytes = std::vector<uint8_t>; // sized once, so that its block ends where it does

// ---- Base32

constexpr std::string_view base32_symbols = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

// The input is given with the byte behind it.
std::string base32_model(const bytes &in, size_t outsize, int mode)
{
    if (outsize == 0)
        return "";
    const size_t wanted = (8 * (in.size() - 1) + 4) / 5;
    const size_t count = std::min(wanted, outsize < 2 ? 0 : outsize - 2);
    std::string text;
    unsigned sum = 0;
    for (size_t i = 0; i < count; i++) {
        unsigned value = 0;
        for (size_t bit = 5 * i; bit < 5 * i + 5; bit++)
            value |= (in[bit / 8] >> bit % 8 & 1u) << (bit - 5 * i);
        text += mode == 1 ? '\0' : base32_symbols[value];
        sum += value;
    }
    if (mode == 3 && outsize > 1)
        text += base32_symbols[sum % 32];
    return text;
}

void round_base32(const bytes &data, uint8_t behind, size_t outsize, int mode)
{
    bytes in = data;
    in.push_back(behind);
    const bytes exact(in); // without the room that push_back made
    std::vector<char> out(outsize, '#');
    const int count = base32_encode(exact.data(), data.size(), out.data(), outsize, mode);
    const std::string expected = base32_model(exact, outsize, mode);
    require(count == static_cast<int>(expected.size()), "base32_encode's result");
    require(outsize == 0 || std::string(out.data(), expected.size() + 1) == expected + '\0', "base32 text");

    const std::string whole = base32_model(exact, SIZE_MAX, 3);
    const std::vector<char> text(whole.c_str(), whole.c_str() + whole.size() + 1);
    bytes back(5 * (whole.size() - 1) / 8 + 1);
    require(base32_decode(text.data(), back.data(), 3) == 7, "a base32 text's own check symbol is refused");
    require(std::equal(data.begin(), data.end(), back.begin()), "base32 gives other bytes back");
}

void decode_base32(const std::string &text, int mode)
{
    const std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);
    bytes out(text.empty() ? 1 : 5 * (text.size() - 1) / 8 + 1, 0xee);
    const int result = base32_decode(exact.data(), out.data(), mode);
    require(result == 7 || (result == -1 && mode == 3), "base32_decode's result");
}

// ---- Base64

constexpr std::string_view base64_symbols =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64_model(const bytes &in, bool wrap)
{
    std::string text;
    size_t symbols = 0;
    for (size_t i = 0; i < in.size(); i += 3) {
        unsigned group = 0;
        for (size_t k = 0; k < 3; k++)
            group = group << 8 | (i + k < in.size() ? in[i + k] : 0u);
        for (size_t k = 0; k < 4; k++)
            text += k > in.size() - i ? '=' : base64_symbols[group >> (18 - 6 * k) & 63];
        symbols += 4;
        if (wrap && symbols % 64 == 0)
            text += '\n';
    }
    return text;
}

bytes base64_decoded(std::string_view text)
{
    bytes out;
    std::vector<unsigned> group;
    for (const char c : text) {
        const size_t value = c == '=' ? 127 : base64_symbols.find(c);
        if (value != base64_symbols.npos)
            group.push_back(static_cast<unsigned>(value));
        if (group.size() < 4)
            continue;
        out.push_back(static_cast<uint8_t>(group[0] << 2 | group[1] >> 4));
        if (group[2] != 127)
            out.push_back(static_cast<uint8_t>(group[1] << 4 | group[2] >> 2));
        if (group[3] != 127)
            out.push_back(static_cast<uint8_t>(group[2] << 6 | group[3]));
        group.clear();
    }
    return out;
}

void decode_base64(std::string_view text, const bytes &expected)
{
    const std::vector<char> in(text.begin(), text.end());
    bytes out(text.size() / 4 * 3);
    const int count = base64_decode(in.data(), out.data(), in.size());
    require(count == static_cast<int>(expected.size()), "base64_decode's result");
    require(std::equal(expected.begin(), expected.end(), out.begin()), "base64 gives other bytes back");
}

void round_base64(const bytes &data, bool wrap)
{
    const std::string expected = base64_model(data, wrap);
    std::vector<char> out(expected.size());
    const int count = base64_encode(data.data(), out.data(), data.size(), wrap);
    require(count == static_cast<int>(expected.size()), "base64_encode's result");
    require(std::equal(out.begin(), out.end(), expected.begin()), "base64 text");
    decode_base64(expected, data);
}

// ---- Hex

int digit_value(char c)
{
    const size_t value = std::string_view("0123456789abcdef0123456789ABCDEF").find(c);
    return value == std::string_view::npos ? -1 : static_cast<int>(value % 16);
}

int hex_model(std::string text, size_t outsize, bytes &out)
{
    if (text.starts_with("0x"))
        text.erase(0, 2);
    const size_t count = (text.size() + 1) / 2;
    if (count == 0 || count - 1 > outsize)
        return -1;
    if (text.size() % 2 != 0)
        text.insert(0, "0");
    out.assign(count, 0);
    for (size_t i = count; i-- > 0;) {
        if (digit_value(text[2 * i + 1]) < 0)
            return -2;
        if (digit_value(text[2 * i]) < 0)
            return -3;
        out[i] = static_cast<uint8_t>(digit_value(text[2 * i]) << 4 | digit_value(text[2 * i + 1]));
    }
    return static_cast<int>(count);
}

void decode_hex(const std::string &text, size_t outsize)
{
    const std::vector<char> in(text.c_str(), text.c_str() + text.size() + 1);
    bytes expected, out(outsize + 1);
    const int result = hex_model(text, outsize, expected);
    require(hex_decode(in.data(), out.data(), outsize) == result, "hex_decode's result");
    if (result >= 0)
        require(std::equal(expected.begin(), expected.end(), out.begin()), "bytes of hex text");
}

void round_hex(const bytes &data)
{
    std::vector<char> text(2 * data.size() + 1);
    require(hex_encode(data.data(), data.size(), text.data()) == 2 * data.size(), "hex_encode's result");
    require(strlen(text.data()) == 2 * data.size(), "hex text's length");
    bytes back(data.size() + 1);
    if (data.empty())
        return;
    require(hex_decode(text.data(), back.data(), data.size()) == static_cast<int>(data.size()),
            "hex text is refused");
    require(std::equal(data.begin(), data.end(), back.begin()), "hex gives other bytes back");
}

// ---- Checksums and digests: in one piece and cut in two

uint32_t crc32c_model(const bytes &data)
{
    uint32_t crc = 0xffffffff;
    for (const uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0x82f63b78u : 0);
    }
    return __builtin_bswap32(~crc);
}

template <class Context, size_t Size>
void digest_in_pieces(const bytes &data, size_t cut, void (*init)(Context *),
                      void (*append)(Context *, const void *, size_t), void (*finish)(Context *, uint8_t *),
                      void (*single)(const void *, size_t, uint8_t *))
{
    std::array<uint8_t, Size> whole, joined;
    single(data.data(), data.size(), whole.data());
    Context context;
    init(&context);
    append(&context, data.data(), cut);
    append(&context, data.data() + cut, data.size() - cut);
    finish(&context, joined.data());
    require(whole == joined, "a digest depends on how the bytes were cut");
}

void sum_up(bytes data, size_t cut)
{
    const uint32_t crc = crc32c_model(data);
    require(crc32c(data.data(), data.size()) == crc, "crc32c");
    const iovec pieces[] = {{data.data(), cut}, {nullptr, 0}, {data.data() + cut, data.size() - cut}};
    require(crc32cv(pieces, 3) == crc, "crc32cv");
    digest_in_pieces<md5_ctx, MD5_DIGEST_SIZE>(data, cut, md5_init, md5_append, md5_finish, md5_single);
    digest_in_pieces<sha1_ctx, SHA1_DIGEST_SIZE>(data, cut, sha1_init, sha1_append, sha1_finish, sha1_single);
    digest_in_pieces<sha256_ctx, SHA256_DIGEST_SIZE>(data, cut, sha256_init, sha256_append, sha256_finish,
                                                     sha256_single);
}

void check_password(const std::string &password, const std::string &stored)
{
    std::array<char, SSHA_TEXT_SIZE> text = {};
    require(ssha_generate(password.c_str(), text.data()) == text.data(), "ssha_generate's result");
    require(ssha_check(password.c_str(), text.data()) == 0, "a password's own text is refused");
    const int result = ssha_check(password.c_str(), stored.c_str());
    require(result == 1 || (result == -1 && errno == EINVAL) || stored.size() == 38, "ssha_check's result");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const unsigned mode = in.byte();
    const size_t room = in.byte() | (mode & 0x80 ? 256u : 0);
    const size_t cut = in.byte();
    const std::string rest = in.rest();
    const bytes content(rest.begin(), rest.end());
    const std::string text = rest.c_str(); // to a NUL at most
    round_base32(content, static_cast<uint8_t>(cut), room, static_cast<int>(mode % 4));
    decode_base32(text, static_cast<int>(mode % 4));
    round_base64(content, mode & 4);
    decode_base64(rest, base64_decoded(rest));
    round_hex(content);
    decode_hex(text, room);
    sum_up(content, std::min(cut, content.size()));
    check_password(text.substr(0, cut), text);
    return 0;
}
