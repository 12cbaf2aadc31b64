/* Salted passwords: SHA-1 over the password and a salt of four bytes, kept as text. */
#include <qvlib/digest.h>

#include <qvlib/encoding.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr char prefix[] = "{SSHA}";
constexpr size_t prefix_length = sizeof(prefix) - 1, salt_length = 4;
constexpr size_t payload_length = SHA1_DIGEST_SIZE + salt_length;
constexpr size_t encoded_length = payload_length / 3 * 4, text_length = prefix_length + encoded_length;
static_assert(payload_length % 3 == 0 && text_length + 1 == SSHA_TEXT_SIZE);

void digest_password(const char *password, const uint8_t *salt, uint8_t *digest)
{
    struct sha1_ctx ctx;
    sha1_init(&ctx);
    sha1_append(&ctx, password, strlen(password));
    sha1_append(&ctx, salt, salt_length);
    sha1_finish(&ctx, digest);
    // The block buffer still holds the end of the password.
    explicit_bzero(&ctx, sizeof(ctx));
}

// Looks at every byte, whatever the first ones say.
bool equal_in_constant_time(const uint8_t *a, const uint8_t *b, size_t length)
{
    unsigned int difference = 0;
    for (size_t i = 0; i < length; i++)
        difference |= static_cast<unsigned int>(a[i] ^ b[i]);
    return difference == 0;
}

} // namespace

char *ssha_generate(const char *password, char *out)
{
    if (password == nullptr || out == nullptr) {
        errno = EFAULT;
        return nullptr;
    }
    uint8_t payload[payload_length];
    uint8_t *const salt = payload + SHA1_DIGEST_SIZE;
    for (size_t i = 0; i < salt_length; i++)
        salt[i] = static_cast<uint8_t>(random());
    digest_password(password, salt, payload);
    memcpy(out, prefix, prefix_length);
    base64_encode(payload, out + prefix_length, payload_length, 0);
    return out;
}

int ssha_check(const char *password, const char *stored)
{
    if (password == nullptr || stored == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (strnlen(stored, text_length + 1) != text_length || memcmp(stored, prefix, prefix_length) != 0) {
        errno = EINVAL;
        return -1;
    }
    uint8_t payload[payload_length] = {};
    const int length = base64_decode(stored + prefix_length, payload, encoded_length);
    uint8_t digest[SHA1_DIGEST_SIZE];
    digest_password(password, payload + SHA1_DIGEST_SIZE, digest);
    const bool same = equal_in_constant_time(digest, payload, sizeof(digest));
    return same && length == static_cast<int>(payload_length) ? 0 : 1;
}
