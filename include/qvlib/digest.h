/*
 * Message digests, MD5 (RFC 1321), SHA-1 and SHA-256 (FIPS 180-4), and salted passwords.
 *
 * A digest is made by init, any number of appends and finish over a context that the caller owns, or by one
 * call of single. Contexts hold no pointer and need no release; a copy of one continues on its own. A NULL
 * context or digest is left alone, NULL data counts as no data. SHA-1 and SHA-256 use the processor's own
 * instructions where it has them.
 *
 * MD5 and SHA-1 are here for formats that need them; against somebody who looks for collisions use SHA-256.
 *
 * ctx       the context
 * data      the bytes
 * len       bytes in data
 * digest    takes MD5_DIGEST_SIZE, SHA1_DIGEST_SIZE or SHA256_DIGEST_SIZE bytes
 * password  NUL-terminated
 *
 * Errors: errno is set where a function says so only. Nothing is logged.
 * Ownership: contexts and buffers are the caller's; nothing is kept.
 * Threads: no state is kept outside the context, which belongs to one thread at a time.
 */
#ifndef QVLIB_DIGEST_H
#define QVLIB_DIGEST_H

#include <stddef.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Sizes in bytes. */
enum {
    MD5_DIGEST_SIZE = 16,    /* of an MD5 */
    SHA1_DIGEST_SIZE = 20,   /* of a SHA-1 */
    SHA256_DIGEST_SIZE = 32, /* of a SHA-256 */
    SSHA_TEXT_SIZE = 39      /* a salted password's 38 characters and a NUL */
};

/* An MD5 that has begun. */
struct md5_ctx {
    uint32_t count[2];       /* length in bits, the lower word first */
    uint32_t state[4];       /* of the whole blocks */
    uint8_t buffer[64];      /* the bytes that fill no block yet */
};

/* A SHA-1 that has begun. */
struct sha1_ctx {
    uint32_t state[5];       /* of the whole blocks */
    uint64_t length;         /* in bytes */
    uint8_t buffer[64];      /* the bytes that fill no block yet */
};

/* A SHA-256 that has begun. */
struct sha256_ctx {
    uint32_t state[8];       /* of the whole blocks */
    uint64_t length;         /* in bytes */
    uint8_t buffer[64];      /* the bytes that fill no block yet */
};

/* ---- Digests ------------------------------------------------------------------------------------------- */

/* Begins a digest: the standard's initial state and no bytes. */
void md5_init(struct md5_ctx *ctx);
void sha1_init(struct sha1_ctx *ctx);
void sha256_init(struct sha256_ctx *ctx);

/* Adds len bytes, any number of times and of any lengths. */
void md5_append(struct md5_ctx *ctx, const void *data, size_t len);
void sha1_append(struct sha1_ctx *ctx, const void *data, size_t len);
void sha256_append(struct sha256_ctx *ctx, const void *data, size_t len);

/* Writes the digest of all that was appended, in the standard's byte order. The context is spent then. */
void md5_finish(struct md5_ctx *ctx, uint8_t *digest);
void sha1_finish(struct sha1_ctx *ctx, uint8_t *digest);
void sha256_finish(struct sha256_ctx *ctx, uint8_t *digest);

/* Writes the digest of len bytes. */
void md5_single(const void *data, size_t len, uint8_t *digest);
void sha1_single(const void *data, size_t len, uint8_t *digest);
void sha256_single(const void *data, size_t len, uint8_t *digest);

/* ---- Salted passwords ---------------------------------------------------------------------------------- */

/*
 * A salted password is the text "{SSHA}" and the base64 of 24 bytes: the SHA-1 of the password and 4 salt
 * bytes, then the salt. It has 38 characters.
 */

/*
 * Writes a salted text for a password.
 *
 * out  takes 38 characters. No NUL is written behind them: hand over SSHA_TEXT_SIZE zeroed bytes.
 *
 * The salt comes from random(): a host that does not seed it repeats its salts from one start to the next.
 *
 * Returns out, or NULL with errno EFAULT when an argument is NULL.
 */
char *ssha_generate(const char *password, char *out);

/*
 * Checks a password against a salted text, in a time that does not depend on how much of the digest is right.
 *
 * stored  the salted text, NUL-terminated
 *
 * Returns 0 when it matches, 1 when it does not (a text that is no base64 of 24 bytes matches nothing), or -1
 * with errno EFAULT (an argument is NULL) or EINVAL (stored does not begin with "{SSHA}" or has not 38
 * characters).
 */
int ssha_check(const char *password, const char *stored);

QV_END_DECLS

#endif
