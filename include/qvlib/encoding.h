/*
 * Encodings, checksums and integer helpers: bytes to text and back (base32 with a check symbol, base64, hex),
 * CRC-32C, FNV-1a hashes, Fibre Channel loop addresses, bit counts, roots and size units.
 *
 * Input and output may not overlap. Bytes after the input are read, and bytes after the result written, only
 * where a function names its spare byte. A NULL input counts as an empty one unless a function says
 * otherwise.
 *
 * in   the input
 * len  bytes of input
 * buf  the bytes
 * s    a text, NUL-terminated
 * v    the number
 *
 * Errors: failures are results; no function sets errno or logs.
 * Ownership: buffers are the caller's and nothing is allocated or kept.
 * Threads: no state is kept; any thread may call any function.
 */
#ifndef QVLIB_ENCODING_H
#define QVLIB_ENCODING_H

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* ---- Base32 -------------------------------------------------------------------------------------------- */

/*
 * The symbols are "0123456789ABCDEFGHJKMNPQRSTVWXYZ", each of five bits, the least significant bits first:
 * not the base32 of RFC 4648. A check symbol is the one for the sum of all data symbols' values modulo 32.
 *
 * mode  1 is a dry run, 3 appends or verifies a check symbol, any other value is plain
 */

/*
 * Encodes bytes and ends the text with a NUL.
 *
 * len      bytes of input. Unless 8 * len is a multiple of 5, the last symbol takes its upper bits from the
 *          byte behind the input: give a zero byte there.
 * out      takes (8 * len + 4) / 5 symbols, room for a check symbol whatever the mode, and the NUL
 * outsize  bytes in out; the symbols that do not fit are left off, with room kept for a check symbol and the
 *          NUL. 1 takes the NUL alone; with 0, or out NULL, nothing is written.
 * mode     see above; the dry run reads no input and writes a NUL for each symbol
 *
 * Returns the number of symbols, the check symbol included and the NUL not.
 */
int base32_encode(const uint8_t *in, size_t len, char *out, size_t outsize, int mode);

/*
 * Decodes a text of symbols in either case; "O" reads as 0, "I" and "L" as 1, "U" as "V". Other characters
 * are not reported and give unspecified values.
 *
 * in    NUL-terminated. The last symbol is never decoded into out: it is the check symbol's place in every
 *       mode.
 * out   takes 5 * n / 8 + 1 bytes for a text of n + 1 symbols; the last is a spare byte that may hold a rest
 * mode  see above; the dry run takes every symbol's value as 0
 *
 * Returns 7, whatever the length, or -1: the check symbol is wrong or missing (mode 3 only), or an argument
 * is NULL. The bytes are written even when the check symbol is wrong.
 */
int base32_decode(const char *in, uint8_t *out, int mode);

/* ---- Base64 -------------------------------------------------------------------------------------------- */

/*
 * Encodes bytes in the base64 of RFC 4648, padded with "=". No NUL is written.
 *
 * out   takes 4 characters for every 3 bytes begun, and the line feeds
 * len   bytes of input
 * wrap  non-zero puts a line feed behind every 64 characters, also when they end the output
 *
 * Returns the number of characters written, line feeds included; 0 when out is NULL or the number exceeds
 * INT_MAX.
 */
int base64_encode(const uint8_t *in, char *out, size_t len, int wrap);

/*
 * Decodes base64 text and skips every character outside the alphabet, line feeds and NUL among them.
 *
 * out  takes 3 bytes for every 4 characters of the text
 * len  characters of input. A last group of fewer than four writes nothing.
 *
 * Returns the number of bytes written; 0 when out is NULL or the text is longer than INT_MAX characters.
 */
int base64_decode(const char *in, uint8_t *out, size_t len);

/* ---- Hex ----------------------------------------------------------------------------------------------- */

/*
 * Writes two lower-case digits for each byte, and a NUL.
 *
 * out  takes 2 * len + 1 characters; with NULL nothing is written
 *
 * Returns 2 * len, or 0 when out is NULL.
 */
size_t hex_encode(const uint8_t *in, size_t len, char *out);

/*
 * Reads a text of hex digits in either case, with or without "0x" in front; an odd number of digits gives a
 * first byte below 16.
 *
 * str      the digits, NUL-terminated
 * out      takes one byte for each pair of digits begun
 * outsize  bytes expected at most: one more than this is accepted too, so out has a spare byte
 *
 * Returns the number of bytes, or -1 (too many digits, none at all, an argument NULL), -2 (no digit where a
 * byte's low half is expected) or -3 (where its high half is). The text is read from its end: with -2 and -3
 * the bytes to the right of the fault are written.
 */
int hex_decode(const char *str, uint8_t *out, size_t outsize);

/* ---- Checksums and hashes ------------------------------------------------------------------------------ */

/*
 * Returns the CRC-32C of a buffer of len bytes with its four bytes reversed, on every machine: the check
 * value of "123456789", 0xe3069283, is returned as 0x839206e3. A big-endian machine that stores the result
 * has the bytes in the order in which iSCSI and SCTP carry them. Uses the processor's own instructions where
 * it has them.
 */
uint32_t crc32c(const void *buf, size_t len);

/*
 * Returns crc32c of the bytes of a vector's entries in order.
 *
 * iov     the entries
 * iovcnt  number of entries; 0 or less is an empty vector
 */
uint32_t crc32cv(const struct iovec *iov, int iovcnt);

/* Returns the FNV-1a hash, of 32 or 64 bits, of len bytes. */
uint32_t hash_buf(const void *buf, size_t len);
uint64_t hash_buf_64(const void *buf, size_t len);

/* Returns the FNV-1a hash, of 32 or 64 bits, of a text, without its NUL. */
uint32_t hash_str(const char *s);
uint64_t hash_str_64(const char *s);

/* ---- Fibre Channel ------------------------------------------------------------------------------------- */

/*
 * Tells whether a number is one of the 126 arbitrated-loop physical addresses of an NL_Port, 0x01 to 0xef.
 *
 * alpa  any number; the FL_Port's address 0x00 is none
 *
 * Returns 1 when it is, else 0.
 */
int is_valid_fc_al_pa(unsigned int alpa);

/* ---- Integers ------------------------------------------------------------------------------------------ */

/* Returns the number of leading, or trailing, zero bits; 32 for 0. */
int clz(uint32_t v);
int ctz(uint32_t v);

/* Returns the logarithm to base 2, rounded down; 0 for 0. */
unsigned int qv_ilog2(uint32_t v);
unsigned int qv_ilog2_64(uint64_t v);

/* Returns the square root, rounded down. */
uint32_t isqrt32(uint32_t v);

/*
 * Compares two numbers by their signed 64-bit difference, with a tolerance on one side: *a one above *b
 * counts as equal, one below does not. Both functions give the same on every machine.
 *
 * a, b  the numbers, in the machine's byte order; NULL stands for 0
 *
 * Returns -1, 0 or 1 for *a less than, equal to or greater than *b.
 */
int cmpnumle64(const uint64_t *a, const uint64_t *b);
int cmpnumbe64(const uint64_t *a, const uint64_t *b);

/* Returns the unit for a number of bytes, "Bytes", "KiB", "MiB", "GiB", "TiB", "PiB" or "EiB"; static. */
const char *get_si_unit(uint64_t v);

/* Returns 0, whatever the number. Divide by 1024 as often as the unit says for a scaled figure. */
uint64_t get_si_scale(uint64_t v);

QV_END_DECLS

#endif
