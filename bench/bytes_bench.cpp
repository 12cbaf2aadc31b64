// Checksums, digests and encodings over named sizes, each beside its peer in the same run: CRC-32C beside
// ISA-L, digests beside a portable C implementation (libmd) and OpenSSL, base64 and hex beside OpenSSL.
//
// Rows "ours" are the exported functions, which choose the processor's instructions themselves; the others of
// ours are single paths. Every row reports bytes of binary data per second. Peers that are not installed have
// no rows.

#include <qvlib/digest.h>
#include <qvlib/encoding.h>

#include "base64.h"
#include "crc32c.h"
#include "digest.h"
#include "processor.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#if HAVE_ISAL
#include <isa-l.h>
#endif
#if HAVE_LIBMD
#include "portable_digests.h"
#endif
#if HAVE_OPENSSL
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#endif

namespace
{

using bytes = std::vector<uint8_t>;

bytes make_bytes(const benchmark::State &state)
{
    std::mt19937 random(1);
    bytes data(static_cast<size_t>(state.range(0)));
    for (uint8_t &byte : data)
        byte = static_cast<uint8_t>(random());
    return data;
}

void require(bool right, const char *what)
{
    if (!right) {
        fprintf(stderr, "bytes_bench: wrong answer: %s\n", what);
        exit(1);
    }
}

// Times `operation`, which was found right before.
template <typename Operation> void measure(benchmark::State &state, Operation operation)
{
    for (auto _ : state) {
        operation();
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// ---- CRC-32C

template <typename Crc> void measure_crc(benchmark::State &state, Crc crc)
{
    const bytes data = make_bytes(state);
    const uint32_t expected = ~__builtin_bswap32(crc32c(data.data(), data.size()));
    require(crc(data.data(), data.size()) == expected, "CRC-32C");
    measure(state, [&] { benchmark::DoNotOptimize(crc(data.data(), data.size())); });
}

void crc32c_ours(benchmark::State &state)
{
    measure_crc(state, [](const uint8_t *data, size_t len) { return ~__builtin_bswap32(crc32c(data, len)); });
}

void crc32c_tables(benchmark::State &state)
{
    measure_crc(state, [](const uint8_t *data, size_t len) { return qv::crc32c_by_tables(~0u, data, len); });
}

#if HAVE_ISAL
void crc32c_isal(benchmark::State &state)
{
    measure_crc(state, [](const uint8_t *data, size_t len) {
        return crc32_iscsi(const_cast<uint8_t *>(data), static_cast<int>(len), ~0u);
    });
}
#endif

// ---- Digests

using digest_fn = void (*)(const void *data, size_t len, uint8_t *digest);

void measure_digest(benchmark::State &state, digest_fn reference, digest_fn digest, size_t size)
{
    const bytes data = make_bytes(state);
    uint8_t expected[SHA256_DIGEST_SIZE], result[SHA256_DIGEST_SIZE];
    reference(data.data(), data.size(), expected);
    digest(data.data(), data.size(), result);
    require(memcmp(expected, result, size) == 0, "digest");
    measure(state, [&] {
        digest(data.data(), data.size(), result);
        benchmark::DoNotOptimize(result);
    });
}

void md5_ours(benchmark::State &state)
{
    measure_digest(state, md5_single, md5_single, MD5_DIGEST_SIZE);
}

void sha1_ours(benchmark::State &state)
{
    measure_digest(state, sha1_single, sha1_single, SHA1_DIGEST_SIZE);
}

void sha256_ours(benchmark::State &state)
{
    measure_digest(state, sha256_single, sha256_single, SHA256_DIGEST_SIZE);
}

// Whole blocks by the loops for any processor, without padding.
void sha1_loops(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    uint32_t words[5] = {};
    measure(state, [&] { qv::sha1_blocks(words, data.data(), data.size() / 64); });
}

void sha256_loops(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    uint32_t words[8] = {};
    measure(state, [&] { qv::sha256_blocks(words, data.data(), data.size() / 64); });
}

#if HAVE_LIBMD
void md5_libmd(benchmark::State &state)
{
    measure_digest(state, md5_single, portable_md5, MD5_DIGEST_SIZE);
}

void sha1_libmd(benchmark::State &state)
{
    measure_digest(state, sha1_single, portable_sha1, SHA1_DIGEST_SIZE);
}

void sha256_libmd(benchmark::State &state)
{
    measure_digest(state, sha256_single, portable_sha256, SHA256_DIGEST_SIZE);
}
#endif

#if HAVE_OPENSSL
// What SHA1() and SHA256() call, too.
void md5_openssl(benchmark::State &state)
{
    measure_digest(
        state, md5_single,
        [](const void *data, size_t len, uint8_t *digest) {
            EVP_Q_digest(nullptr, "MD5", nullptr, data, len, digest, nullptr);
        },
        MD5_DIGEST_SIZE);
}

void sha1_openssl(benchmark::State &state)
{
    measure_digest(
        state, sha1_single,
        [](const void *data, size_t len, uint8_t *digest) {
            SHA1(static_cast<const uint8_t *>(data), len, digest);
        },
        SHA1_DIGEST_SIZE);
}

void sha256_openssl(benchmark::State &state)
{
    measure_digest(
        state, sha256_single,
        [](const void *data, size_t len, uint8_t *digest) {
            SHA256(static_cast<const uint8_t *>(data), len, digest);
        },
        SHA256_DIGEST_SIZE);
}
#endif

// ---- Encodings. Sizes are multiples of three, so that OpenSSL's decoder, which counts padding as data,
// agrees.

std::string base64_of(const bytes &data)
{
    std::string text(data.size() * 2 + 4, '\0');
    text.resize(static_cast<size_t>(base64_encode(data.data(), text.data(), data.size(), 0)));
    return text;
}

template <typename Encode> void measure_base64_encode(benchmark::State &state, Encode encode)
{
    const bytes data = make_bytes(state);
    const std::string expected = base64_of(data);
    std::string text(expected.size() + 1, '\0');
    require(encode(data, text.data()) == static_cast<int>(expected.size()) &&
                memcmp(text.data(), expected.data(), expected.size()) == 0,
            "base64");
    measure(state, [&] { benchmark::DoNotOptimize(encode(data, text.data())); });
}

template <typename Decode> void measure_base64_decode(benchmark::State &state, Decode decode)
{
    const bytes data = make_bytes(state);
    const std::string text = base64_of(data);
    bytes result(data.size() + 4);
    require(decode(text, result.data()) == static_cast<int>(data.size()) &&
                memcmp(result.data(), data.data(), data.size()) == 0,
            "base64");
    measure(state, [&] { benchmark::DoNotOptimize(decode(text, result.data())); });
}

void base64_encode_ours(benchmark::State &state)
{
    measure_base64_encode(state, [](const bytes &data, char *text) {
        return base64_encode(data.data(), text, data.size(), 0);
    });
}

void base64_encode_loops(benchmark::State &state)
{
    measure_base64_encode(state, [](const bytes &data, char *text) {
        return qv::base64_encode_by(0, data.data(), text, data.size(), 0);
    });
}

// By registers of 32 characters at most.
void base64_encode_32(benchmark::State &state)
{
    measure_base64_encode(state, [](const bytes &data, char *text) {
        const uint32_t features = qv::processor_features() & ~uint32_t{qv::processor_shuffle_64};
        return qv::base64_encode_by(features, data.data(), text, data.size(), 0);
    });
}

void base64_decode_ours(benchmark::State &state)
{
    measure_base64_decode(state, [](const std::string &text, uint8_t *out) {
        return base64_decode(text.data(), out, text.size());
    });
}

void base64_decode_loops(benchmark::State &state)
{
    measure_base64_decode(state, [](const std::string &text, uint8_t *out) {
        return qv::base64_decode_by(0, text.data(), out, text.size());
    });
}

// By registers of 32 characters at most.
void base64_decode_32(benchmark::State &state)
{
    measure_base64_decode(state, [](const std::string &text, uint8_t *out) {
        const uint32_t features = qv::processor_features() & ~uint32_t{qv::processor_shuffle_64};
        return qv::base64_decode_by(features, text.data(), out, text.size());
    });
}

void hex_encode_ours(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    std::string text(2 * data.size() + 1, '\0');
    measure(state, [&] { benchmark::DoNotOptimize(hex_encode(data.data(), data.size(), text.data())); });
}

void hex_decode_ours(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    std::string text(2 * data.size() + 1, '\0');
    hex_encode(data.data(), data.size(), text.data());
    bytes result(data.size());
    require(hex_decode(text.c_str(), result.data(), result.size()) == static_cast<int>(data.size()) &&
                result == data,
            "hex");
    measure(state, [&] { benchmark::DoNotOptimize(hex_decode(text.c_str(), result.data(), result.size())); });
}

#if HAVE_OPENSSL
void base64_encode_openssl(benchmark::State &state)
{
    measure_base64_encode(state, [](const bytes &data, char *text) {
        return EVP_EncodeBlock(reinterpret_cast<uint8_t *>(text), data.data(), static_cast<int>(data.size()));
    });
}

void base64_decode_openssl(benchmark::State &state)
{
    measure_base64_decode(state, [](const std::string &text, uint8_t *out) {
        return EVP_DecodeBlock(out, reinterpret_cast<const uint8_t *>(text.data()),
                               static_cast<int>(text.size()));
    });
}

void hex_encode_openssl(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    std::string text(2 * data.size() + 1, '\0');
    measure(state, [&] {
        size_t length;
        benchmark::DoNotOptimize(
            OPENSSL_buf2hexstr_ex(text.data(), text.size(), &length, data.data(), data.size(), '\0'));
    });
}

void hex_decode_openssl(benchmark::State &state)
{
    const bytes data = make_bytes(state);
    std::string text(2 * data.size() + 1, '\0');
    hex_encode(data.data(), data.size(), text.data());
    bytes result(data.size());
    measure(state, [&] {
        size_t length;
        benchmark::DoNotOptimize(
            OPENSSL_hexstr2buf_ex(result.data(), result.size(), &length, text.c_str(), '\0'));
    });
}
#endif

// An address, a page or transport fragment, a large buffer.
void checksum_sizes(benchmark::internal::Benchmark *bench)
{
    bench->Arg(16)->Arg(64)->Arg(1024)->Arg(4096)->Arg(65536)->Arg(1 << 20);
}

void digest_sizes(benchmark::internal::Benchmark *bench)
{
    bench->Arg(64)->Arg(4096)->Arg(65536);
}

// A salted password's payload, a page.
void text_sizes(benchmark::internal::Benchmark *bench)
{
    bench->Arg(24)->Arg(4095)->Arg(65535);
}

#if HAVE_ISAL
BENCHMARK(crc32c_isal)->Apply(checksum_sizes);
#endif
BENCHMARK(crc32c_ours)->Apply(checksum_sizes);
BENCHMARK(crc32c_tables)->Apply(checksum_sizes);

#if HAVE_LIBMD
BENCHMARK(md5_libmd)->Apply(digest_sizes);
#endif
#if HAVE_OPENSSL
BENCHMARK(md5_openssl)->Apply(digest_sizes);
#endif
BENCHMARK(md5_ours)->Apply(digest_sizes);
#if HAVE_LIBMD
BENCHMARK(sha1_libmd)->Apply(digest_sizes);
#endif
#if HAVE_OPENSSL
BENCHMARK(sha1_openssl)->Apply(digest_sizes);
#endif
BENCHMARK(sha1_ours)->Apply(digest_sizes);
BENCHMARK(sha1_loops)->Apply(digest_sizes);
#if HAVE_LIBMD
BENCHMARK(sha256_libmd)->Apply(digest_sizes);
#endif
#if HAVE_OPENSSL
BENCHMARK(sha256_openssl)->Apply(digest_sizes);
#endif
BENCHMARK(sha256_ours)->Apply(digest_sizes);
BENCHMARK(sha256_loops)->Apply(digest_sizes);

#if HAVE_OPENSSL
BENCHMARK(base64_encode_openssl)->Apply(text_sizes);
#endif
BENCHMARK(base64_encode_ours)->Apply(text_sizes);
BENCHMARK(base64_encode_32)->Apply(text_sizes);
BENCHMARK(base64_encode_loops)->Apply(text_sizes);
#if HAVE_OPENSSL
BENCHMARK(base64_decode_openssl)->Apply(text_sizes);
#endif
BENCHMARK(base64_decode_ours)->Apply(text_sizes);
BENCHMARK(base64_decode_32)->Apply(text_sizes);
BENCHMARK(base64_decode_loops)->Apply(text_sizes);
#if HAVE_OPENSSL
BENCHMARK(hex_encode_openssl)->Apply(text_sizes);
#endif
BENCHMARK(hex_encode_ours)->Apply(text_sizes);
#if HAVE_OPENSSL
BENCHMARK(hex_decode_openssl)->Apply(text_sizes);
#endif
BENCHMARK(hex_decode_ours)->Apply(text_sizes);

} // namespace
