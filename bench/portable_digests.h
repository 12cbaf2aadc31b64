/* Digests of a portable C implementation, as peers of the library's. */
#ifndef QVLIB_BENCH_PORTABLE_DIGESTS_H
#define QVLIB_BENCH_PORTABLE_DIGESTS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void portable_md5(const void *data, size_t len, uint8_t *digest);
void portable_sha1(const void *data, size_t len, uint8_t *digest);
void portable_sha256(const void *data, size_t len, uint8_t *digest);

#ifdef __cplusplus
}
#endif

#endif
