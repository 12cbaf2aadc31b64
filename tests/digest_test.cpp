// Digests against the standards' vectors and the system's own tools; salted passwords.
#include <qvlib/digest.h>
#include <qvlib/encoding.h>

#include "digest.h"
#include "fewer_instructions.h"
#include "guarded_bytes.h"
#include "processor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace
{

// One digest behind the shape that all three share: `append` is called once for each piece.
using pieces = std::vector<std::string_view>;

template <typename Context>
std::string digest_pieces(const pieces &message, void (*init)(Context *),
                          void (*append)(Context *, const void *, size_t),
                          void (*finish)(Context *, uint8_t *), size_t size)
{
    Context ctx;
    init(&ctx);
    for (const std::string_view piece : message)
        append(&ctx, piece.data(), piece.size());
    guarded_bytes digest(size);
    finish(&ctx, digest.data());
    std::string hex(2 * size + 1, '\0');
    hex_encode(digest.data(), size, hex.data());
    hex.pop_back();
    return hex;
}

struct algorithm {
    const char *name, *tool, *openssl_name;
    size_t size;
    std::string (*of_pieces)(const pieces &message);
    void (*single)(const void *data, size_t len, uint8_t *digest);
};

const algorithm algorithms[] = {
    {"md5", "md5sum", "md5", MD5_DIGEST_SIZE,
     [](const pieces &message) {
         return digest_pieces<md5_ctx>(message, md5_init, md5_append, md5_finish, MD5_DIGEST_SIZE);
     },
     md5_single},
    {"sha1", "sha1sum", "sha1", SHA1_DIGEST_SIZE,
     [](const pieces &message) {
         return digest_pieces<sha1_ctx>(message, sha1_init, sha1_append, sha1_finish, SHA1_DIGEST_SIZE);
     },
     sha1_single},
    {"sha256", "sha256sum", "sha256", SHA256_DIGEST_SIZE,
     [](const pieces &message) {
         return digest_pieces<sha256_ctx>(message, sha256_init, sha256_append, sha256_finish,
                                          SHA256_DIGEST_SIZE);
     },
     sha256_single},
};

std::string single(const algorithm &algorithm, std::string_view message)
{
    guarded_bytes digest(algorithm.size), in(message);
    algorithm.single(in.data(), in.size(), digest.data());
    std::string hex(2 * algorithm.size + 1, '\0');
    hex_encode(digest.data(), algorithm.size, hex.data());
    hex.pop_back();
    return hex;
}

struct digest_row {
    const char *source;
    std::string message, digest;
};

const std::string fips_two_blocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";

const std::vector<digest_row> published[] = {
    {
        {"RFC 1321 A.5", "", "d41d8cd98f00b204e9800998ecf8427e"},
        {"RFC 1321 A.5", "a", "0cc175b9c0f1b6a831c399e269772661"},
        {"RFC 1321 A.5", "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"RFC 1321 A.5", "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"RFC 1321 A.5", "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"RFC 1321 A.5", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"RFC 1321 A.5", "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    },
    {
        {"FIPS 180-2 A.1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"FIPS 180-2 A.2", fips_two_blocks, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {"FIPS 180-2 A.3, a million \"a\"", std::string(1000000, 'a'),
         "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        {"NIST CAVP, SHA1ShortMsg, Len = 0", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    },
    {
        {"FIPS 180-2 B.1", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"FIPS 180-2 B.2", fips_two_blocks,
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {"FIPS 180-2 B.3, a million \"a\"", std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        {"NIST CAVP, SHA256ShortMsg, Len = 0", "",
         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    },
};

std::string random_message(std::mt19937 &random, size_t length)
{
    std::string message(length, '\0');
    for (char &byte : message)
        byte = static_cast<char>(random());
    return message;
}

// Cuts a message into pieces of random lengths, none among them.
pieces cut_randomly(std::mt19937 &random, std::string_view message)
{
    pieces cut;
    while (!message.empty()) {
        const size_t length = std::min<size_t>(random() % 5 == 0 ? 0 : random() % 200, message.size());
        cut.push_back(message.substr(0, length));
        message.remove_prefix(length);
    }
    return cut;
}

// A file that is gone with the test.
class scratch_file
{
  public:
    explicit scratch_file(std::string_view contents)
    {
        const int fd = mkstemp(path_.data());
        if (fd < 0 || write(fd, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()))
            abort();
        close(fd);
    }
    ~scratch_file()
    {
        unlink(path_.c_str());
    }
    scratch_file(const scratch_file &) = delete;
    scratch_file &operator=(const scratch_file &) = delete;
    const std::string &path() const
    {
        return path_;
    }

  private:
    std::string path_ = testing::TempDir() + "digest_test.XXXXXX";
};

// The first word that a command prints.
std::string first_word_of(const std::string &command)
{
    FILE *const output = popen(command.c_str(), "r");
    char word[200] = "";
    if (output == nullptr)
        return "";
    if (fscanf(output, "%199s", word) != 1)
        word[0] = '\0';
    pclose(output);
    return word;
}

bool installed(const std::string &tool)
{
    return system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

class Digest : public testing::TestWithParam<size_t>
{
  protected:
    const algorithm &algorithm_ = algorithms[GetParam()];

    // Random messages, given in random pieces, against what a command prints for a file of them.
    void expect_same_as(const std::function<std::string(const std::string &path)> &command)
    {
        std::mt19937 random(9);
        for (int round = 0; round < 12; round++) {
            const std::string message = random_message(random, random() % (round < 6 ? 300 : 20000));
            const scratch_file file(message);
            EXPECT_EQ(algorithm_.of_pieces(cut_randomly(random, message)),
                      first_word_of(command(file.path())))
                << message.size();
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Every, Digest, testing::Range<size_t>(0, std::size(algorithms)),
                         [](const auto &index) { return std::string(algorithms[index.param].name); });

} // namespace

TEST_P(Digest, GivesPublishedValues)
{
    for (const digest_row &row : published[GetParam()]) {
        SCOPED_TRACE(row.source);
        EXPECT_EQ(single(algorithm_, row.message), row.digest);
        EXPECT_EQ(algorithm_.of_pieces({row.message}), row.digest);
    }
}

TEST_P(Digest, DoesNotDependOnThePieces)
{
    std::mt19937 random(10);
    const std::string message = random_message(random, 1000);
    const std::string expected = single(algorithm_, message);
    for (const size_t length : {1u, 63u, 64u, 65u, 128u}) {
        pieces cut;
        for (size_t done = 0; done < message.size(); done += length)
            cut.push_back(std::string_view(message).substr(done, length));
        EXPECT_EQ(algorithm_.of_pieces(cut), expected) << length;
    }
    for (int round = 0; round < 50; round++)
        EXPECT_EQ(algorithm_.of_pieces(cut_randomly(random, message)), expected);
}

TEST_P(Digest, PadsEveryLengthAroundTheBlockAlikeInOnePieceAndInTwo)
{
    std::mt19937 random(11);
    std::set<std::string> seen;
    for (size_t length = 0; length <= 130; length++) {
        const std::string message = random_message(random, length);
        const std::string digest = single(algorithm_, message);
        EXPECT_EQ(algorithm_.of_pieces({std::string_view(message).substr(0, length / 2),
                                        std::string_view(message).substr(length / 2)}),
                  digest);
        EXPECT_TRUE(seen.insert(digest).second) << length;
    }
}

TEST_P(Digest, IsTheSameOnAProcessorWithoutInstructionsForIt)
{
    std::mt19937 random(14);
    for (size_t length = 0; length < 200; length += 7) {
        const std::string message = random_message(random, length);
        const std::string here = single(algorithm_, message);
        const fewer_instructions none(0);
        EXPECT_EQ(single(algorithm_, message), here) << length;
    }
}

TEST_P(Digest, AgreesWithTheSystemsTool)
{
    if (!installed(algorithm_.tool))
        GTEST_SKIP() << algorithm_.tool << " is not installed";
    expect_same_as([&](const std::string &path) { return std::string(algorithm_.tool) + " " + path; });
}

TEST_P(Digest, AgreesWithOpenssl)
{
    if (!installed("openssl"))
        GTEST_SKIP() << "openssl is not installed";
    expect_same_as([&](const std::string &path) {
        return std::string("openssl dgst -r -") + algorithm_.openssl_name + " " + path;
    });
}

TEST_P(Digest, TakesNullForNoData)
{
    uint8_t digest[32];
    algorithm_.single(nullptr, 5, digest);
    uint8_t expected[32];
    algorithm_.single("", 0, expected);
    EXPECT_EQ(memcmp(digest, expected, algorithm_.size), 0);
}

TEST(DigestFunctions, LeaveNullContextsAndDigestsAlone)
{
    md5_init(nullptr);
    md5_append(nullptr, "a", 1);
    sha1_init(nullptr);
    sha1_append(nullptr, "a", 1);
    sha256_init(nullptr);
    sha256_append(nullptr, "a", 1);
    uint8_t digest[32] = {0xee};
    md5_finish(nullptr, digest);
    sha1_finish(nullptr, digest);
    sha256_finish(nullptr, digest);
    md5_single("a", 1, nullptr);
    sha1_single("a", 1, nullptr);
    sha256_single("a", 1, nullptr);
    EXPECT_EQ(digest[0], 0xee);
}

TEST(Md5Context, CountsBitsWithTheLowerWordFirst)
{
    md5_ctx ctx;
    md5_init(&ctx);
    EXPECT_EQ(ctx.count[0], 0u);
    ctx.count[0] = 0xfffffe00; // a whole number of blocks, one short of the carry
    const uint8_t block[64] = {};
    md5_append(&ctx, block, sizeof(block));
    EXPECT_EQ(ctx.count[0], 0u);
    EXPECT_EQ(ctx.count[1], 1u);
}

TEST(ShaContext, CountsBytesIn64Bits)
{
    sha1_ctx sha1;
    sha1_init(&sha1);
    sha1.length = 0xffffffc0;
    sha256_ctx sha256;
    sha256_init(&sha256);
    sha256.length = 0xffffffc0;
    const uint8_t block[64] = {};
    sha1_append(&sha1, block, sizeof(block));
    sha256_append(&sha256, block, sizeof(block));
    EXPECT_EQ(sha1.length, 1ull << 32);
    EXPECT_EQ(sha256.length, 1ull << 32);
}

// Contexts behind whole blocks of a long message: what is left to do is one block of padding, written here by
// hand.
TEST(Md5Context, PadsWithBothWordsOfTheLengthTheLowerFirst)
{
    md5_ctx ctx, expected;
    md5_init(&expected);
    uint8_t block[64] = {0x80}, digest[MD5_DIGEST_SIZE];
    block[57] = 2;
    block[60] = 7;
    qv::md5_blocks(expected.state, block, 1);
    md5_init(&ctx);
    ctx.count[0] = 0x200;
    ctx.count[1] = 7;
    md5_finish(&ctx, digest);
    for (size_t i = 0; i < 4; i++)
        EXPECT_EQ(qv::load_le32(digest + 4 * i), expected.state[i]);
}

TEST(ShaContext, PadsWithTheLengthInBitsTheHighestByteFirst)
{
    constexpr uint64_t length = 0x0123456789abcd40; // in bytes
    const uint8_t bits[8] = {0x09, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e, 0x6a, 0x00};
    uint8_t block[64] = {0x80}, digest[SHA256_DIGEST_SIZE];
    memcpy(block + 56, bits, sizeof(bits));

    sha1_ctx sha1, expected1;
    sha1_init(&expected1);
    qv::sha1_blocks(expected1.state, block, 1);
    sha1_init(&sha1);
    sha1.length = length;
    sha1_finish(&sha1, digest);
    for (size_t i = 0; i < 5; i++)
        EXPECT_EQ(qv::load_be32(digest + 4 * i), expected1.state[i]);

    sha256_ctx sha256, expected256;
    sha256_init(&expected256);
    qv::sha256_blocks(expected256.state, block, 1);
    sha256_init(&sha256);
    sha256.length = length;
    sha256_finish(&sha256, digest);
    for (size_t i = 0; i < 8; i++)
        EXPECT_EQ(qv::load_be32(digest + 4 * i), expected256.state[i]);
}

#if defined(QV_SHA_INSTRUCTIONS)
TEST(ShaInstructions, LeaveTheStateThatTheLoopsLeave)
{
    if (!(qv::processor_features() & qv::processor_sha1) ||
        !(qv::processor_features() & qv::processor_sha256))
        GTEST_SKIP() << "this processor has no SHA instructions";
    std::mt19937 random(12);
    for (size_t count = 0; count < 8; count++) {
        guarded_bytes blocks(random_message(random, count * 64));
        uint32_t loops[8], instructions[8];
        for (uint32_t &word : loops)
            word = static_cast<uint32_t>(random());
        memcpy(instructions, loops, sizeof(loops));
        qv::sha1_blocks(loops, blocks.data(), count);
        qv::sha1_blocks_by_instructions(instructions, blocks.data(), count);
        EXPECT_EQ(memcmp(loops, instructions, sizeof(loops)), 0) << count;
        qv::sha256_blocks(loops, blocks.data(), count);
        qv::sha256_blocks_by_instructions(instructions, blocks.data(), count);
        EXPECT_EQ(memcmp(loops, instructions, sizeof(loops)), 0) << count;
    }
}
#endif

// One block, padded by hand, so that the loops are held against the standard on machines that have
// instructions too.
TEST(ShaLoops, GivePublishedValues)
{
    uint8_t block[64] = {'a', 'b', 'c', 0x80};
    block[63] = 24;
    sha1_ctx sha1;
    sha1_init(&sha1);
    qv::sha1_blocks(sha1.state, block, 1);
    const uint32_t fips_a1[5] = {0xa9993e36, 0x4706816a, 0xba3e2571, 0x7850c26c, 0x9cd0d89d};
    EXPECT_EQ(memcmp(sha1.state, fips_a1, sizeof(fips_a1)), 0);
    sha256_ctx sha256;
    sha256_init(&sha256);
    qv::sha256_blocks(sha256.state, block, 1);
    const uint32_t fips_b1[8] = {0xba7816bf, 0x8f01cfea, 0x414140de, 0x5dae2223,
                                 0xb00361a3, 0x96177a9c, 0xb410ff61, 0xf20015ad};
    EXPECT_EQ(memcmp(sha256.state, fips_b1, sizeof(fips_b1)), 0);
}

// ---- Salted passwords

namespace
{

std::string generate(const char *password)
{
    char out[SSHA_TEXT_SIZE] = {};
    EXPECT_EQ(ssha_generate(password, out), out);
    return out;
}

} // namespace

TEST(SshaGenerate, WritesThePrefixAnd32Characters)
{
    const std::string text = generate("secret");
    EXPECT_EQ(text.size(), 38u);
    EXPECT_TRUE(text.starts_with("{SSHA}"));
}

TEST(SshaGenerate, EncodesTheDigestOfPasswordAndSaltAndThenTheSalt)
{
    const std::string text = generate("secret");
    uint8_t payload[24];
    ASSERT_EQ(base64_decode(text.c_str() + 6, payload, 32), 24);
    std::string message = "secret";
    message.append(reinterpret_cast<const char *>(payload + 20), 4);
    uint8_t digest[20];
    sha1_single(message.data(), message.size(), digest);
    EXPECT_EQ(memcmp(digest, payload, 20), 0);
}

TEST(SshaGenerate, TakesTheLowBytesOfFourRandomNumbersAsSalt)
{
    srandom(42);
    uint8_t expected[4];
    for (uint8_t &byte : expected)
        byte = static_cast<uint8_t>(random());
    srandom(42);
    const std::string text = generate("secret");
    uint8_t payload[24];
    ASSERT_EQ(base64_decode(text.c_str() + 6, payload, 32), 24);
    EXPECT_EQ(memcmp(payload + 20, expected, 4), 0);
}

TEST(SshaGenerate, SaltsEachTextAnew)
{
    EXPECT_NE(generate("secret"), generate("secret"));
}

TEST(SshaGenerate, WritesNoNulBehindTheText)
{
    char out[40];
    memset(out, '#', sizeof(out));
    ssha_generate("secret", out);
    EXPECT_EQ(out[38], '#');
    EXPECT_EQ(out[39], '#');
}

TEST(SshaGenerate, RefusesNullWithEfault)
{
    char out[SSHA_TEXT_SIZE] = {};
    errno = 0;
    EXPECT_EQ(ssha_generate(nullptr, out), nullptr);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(out[0], '\0');
    errno = 0;
    EXPECT_EQ(ssha_generate("secret", nullptr), nullptr);
    EXPECT_EQ(errno, EFAULT);
}

TEST(SshaCheck, AcceptsThePasswordOfAGeneratedText)
{
    for (const std::string &password : {std::string("secret"), std::string(), std::string(500, 'x')})
        EXPECT_EQ(ssha_check(password.c_str(), generate(password.c_str()).c_str()), 0);
}

TEST(SshaCheck, AcceptsATextThatOpensslMade)
{
    // openssl dgst -sha1 -binary of 'correct horsesalt', 'salt' behind it, through openssl base64.
    EXPECT_EQ(ssha_check("correct horse", "{SSHA}LhKrkM9Fy+zlstjdD7Kv2s6QvhBzYWx0"), 0);
}

TEST(SshaCheck, RefusesAnotherPassword)
{
    const std::string text = generate("secret");
    EXPECT_EQ(ssha_check("Secret", text.c_str()), 1);
    EXPECT_EQ(ssha_check("secret ", text.c_str()), 1);
    EXPECT_EQ(ssha_check("", text.c_str()), 1);
}

TEST(SshaCheck, RefusesATextWithAnyCharacterChanged)
{
    const std::string text = generate("secret");
    for (size_t i = 6; i < text.size(); i++) {
        std::string changed = text;
        changed[i] = changed[i] == 'A' ? 'B' : 'A';
        EXPECT_EQ(ssha_check("secret", changed.c_str()), 1) << i;
    }
}

TEST(SshaCheck, FindsNoMatchInATextThatIsNoBase64)
{
    EXPECT_EQ(ssha_check("secret", ("{SSHA}" + std::string(32, '*')).c_str()), 1);
    EXPECT_EQ(ssha_check("secret", ("{SSHA}" + std::string(32, '=')).c_str()), 1);
    std::string text = generate("secret");
    text[37] = '*';
    EXPECT_EQ(ssha_check("secret", text.c_str()), 1);
}

TEST(SshaCheck, RefusesNullWithEfault)
{
    errno = 0;
    EXPECT_EQ(ssha_check(nullptr, "{SSHA}"), -1);
    EXPECT_EQ(errno, EFAULT);
    errno = 0;
    EXPECT_EQ(ssha_check("secret", nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST(SshaCheck, RefusesATextOfAnotherLengthOrPrefixWithEinval)
{
    const std::string text = generate("secret");
    for (const std::string &wrong :
         {text.substr(0, 37), text + "A", std::string(), std::string("{SSHA}"),
          "{SHA}" + text.substr(6) + "A", "{ssha}" + text.substr(6), std::string(5000, 'A')}) {
        errno = 0;
        EXPECT_EQ(ssha_check("secret", wrong.c_str()), -1) << wrong;
        EXPECT_EQ(errno, EINVAL) << wrong;
    }
}

TEST(SshaCheck, ReadsNothingBehindAShortText)
{
    guarded_bytes text(std::string_view("{SS\0", 4));
    EXPECT_EQ(ssha_check("secret", text.text()), -1);
}
