/* The paths of base64: loops for any processor, and shuffles of 16 characters where the processor has them.
 */
#ifndef QV_BASE64_H
#define QV_BASE64_H

#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#define QV_BASE64_SHUFFLES
#endif

namespace qv
{

// The number of characters that base64_encode makes of `len` bytes, 0 when an int does not hold it.
int base64_length(size_t len, int wrap);

// base64_encode and base64_decode by a chosen path. The shuffles need processor_shuffle; where they were not
// built, the choice makes no difference.
int base64_encode_by(bool shuffles, const uint8_t *in, char *out, size_t len, int wrap);
int base64_decode_by(bool shuffles, const char *in, uint8_t *out, size_t len);

#if defined(QV_BASE64_SHUFFLES)
// Encodes `blocks` times 12 bytes to 16 characters. Whole registers are read while `readable` bytes of input,
// of which the blocks are the first, allow it.
void base64_encode_shuffled(const uint8_t *in, size_t readable, size_t blocks, char *out);

// Decodes blocks of 16 characters to 12 bytes and returns the number of blocks. A block with a pad or a
// foreign character ends the work.
size_t base64_decode_shuffled(const char *in, size_t length, uint8_t *out);
#endif

} // namespace qv

#endif
