/* The portable digests of libmd behind names of their own: its headers and OpenSSL's exclude each other. */
#include "portable_digests.h"

#include <md5.h>
#include <sha1.h>
#include <sha2.h>

void portable_md5(const void *data, size_t len, uint8_t *digest)
{
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, data, len);
    MD5Final(digest, &ctx);
}

void portable_sha1(const void *data, size_t len, uint8_t *digest)
{
    SHA1_CTX ctx;
    SHA1Init(&ctx);
    SHA1Update(&ctx, data, len);
    SHA1Final(digest, &ctx);
}

void portable_sha256(const void *data, size_t len, uint8_t *digest)
{
    SHA2_CTX ctx;
    SHA256Init(&ctx);
    SHA256Update(&ctx, data, len);
    SHA256Final(digest, &ctx);
}
