/* The paths of base64: loops for any processor, and shuffles of 16, 32 or 64 characters where the processor
 * has them. */
#ifndef QV_BASE64_H
#define QV_BASE64_H

#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#define QV_BASE64_SHUFFLES
#if !defined(QVLIB_FIRMWARE)
#define QV_BASE64_WIDE_SHUFFLES
#endif
#endif

namespace qv
{

// The number of characters that base64_encode makes of `len` bytes, 0 when an int does not hold it.
int base64_length(size_t len, int wrap);

// base64_encode and base64_decode with some of the processor's features (processor_ bits). Shuffles that were
// not built make no difference.
int base64_encode_by(uint32_t features, const uint8_t *in, char *out, size_t len, int wrap);
int base64_decode_by(uint32_t features, const char *in, uint8_t *out, size_t len);

#if defined(QV_BASE64_SHUFFLES)
// Encodes `blocks` times 12 bytes to 16 characters. Whole registers are read while `readable` bytes of input,
// of which the blocks are the first, allow it.
void base64_encode_shuffled(const uint8_t *in, size_t readable, size_t blocks, char *out);

// Decodes blocks of 16 characters to 12 bytes and returns the number of blocks. A block with a pad or a
// foreign character ends the work.
size_t base64_decode_shuffled(const char *in, size_t length, uint8_t *out);
#endif

#if defined(QV_BASE64_WIDE_SHUFFLES)
// Encode blocks of 24 bytes to 32 characters (processor_shuffle_32) or of 48 to 64 (processor_shuffle_64) as
// far as they can without reading beyond `length` bytes, and return the number of blocks.
size_t base64_encode_by_32(const uint8_t *in, size_t length, char *out);
size_t base64_encode_by_64(const uint8_t *in, size_t length, char *out);

// The same the other way, as base64_decode_shuffled.
size_t base64_decode_by_32(const char *in, size_t length, uint8_t *out);
size_t base64_decode_by_64(const char *in, size_t length, uint8_t *out);
#endif

} // namespace qv

#endif
