/*
 * CRC-32C of buffers and I/O vectors, and the path over tables. The state runs on from buffer to buffer, so a
 * vector gives the checksum of its bytes however they are split.
 */
#include "crc32c.h"

#include <qvlib/encoding.h>

#include "first_use.h"
#include "processor.h"

#include <array>

namespace
{

constexpr uint32_t initial_state = 0xffffffff;

// slices[0] is the classical table of the reflected polynomial 0x82f63b78; slices[k][i] is the state that
// byte i leaves behind after k further zero bytes, so that eight bytes are looked up independently of each
// other. M. E. Kounavis and F. L. Berry, "A Systematic Approach to Building High Performance Software-Based
// CRC Generators", 2005.
// A firmware build has the classical table alone, and makes it when it is first used.
#if defined(QVLIB_FIRMWARE)
constexpr size_t slice_count = 1;
#else
constexpr size_t slice_count = 8;
#endif
using slice_table = std::array<std::array<uint32_t, 256>, slice_count>;

constexpr void make_slices(slice_table &table)
{
    for (uint32_t i = 0; i < 256; i++) {
        uint32_t state = i;
        for (int bit = 0; bit < 8; bit++)
            state = (state >> 1) ^ (state & 1 ? 0x82f63b78 : 0);
        table[0][i] = state;
    }
    for (size_t k = 1; k < table.size(); k++) {
        for (size_t i = 0; i < 256; i++)
            table[k][i] = (table[k - 1][i] >> 8) ^ table[0][table[k - 1][i] & 0xff];
    }
}

#if defined(QVLIB_FIRMWARE)
constinit qv::made_at_first_use<slice_table, make_slices> made_slices;
#else
constexpr slice_table slices = [] {
    slice_table table = {};
    make_slices(table);
    return table;
}();

uint32_t load_little_endian(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}
#endif

uint32_t run(uint32_t state, const void *buf, size_t len)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);
    [[maybe_unused]] const uint32_t features = qv::processor_features();
#if defined(QV_CRC32C_WIDE_FOLDING)
    if (features & qv::processor_wide_folding && len >= qv::crc32c_wide_block)
        return qv::crc32c_by_wide_folding(state, bytes, len);
#endif
#if defined(QV_CRC32C_WORDS)
    if (features & qv::processor_crc32)
        return qv::crc32c_by_words(state, bytes, len);
#endif
    return qv::crc32c_by_tables(state, bytes, len);
}

// iSCSI and SCTP carry the checksum with its least significant byte first.
uint32_t finish(uint32_t state)
{
    return __builtin_bswap32(~state);
}

} // namespace

uint32_t qv::crc32c_by_tables(uint32_t state, const uint8_t *bytes, size_t length)
{
#if defined(QVLIB_FIRMWARE)
    const slice_table &slices = made_slices.get();
#else
    for (; length >= 8; bytes += 8, length -= 8) {
        const uint32_t low = state ^ load_little_endian(bytes);
        const uint32_t high = load_little_endian(bytes + 4);
        state = slices[7][low & 0xff] ^ slices[6][low >> 8 & 0xff] ^ slices[5][low >> 16 & 0xff] ^
                slices[4][low >> 24] ^ slices[3][high & 0xff] ^ slices[2][high >> 8 & 0xff] ^
                slices[1][high >> 16 & 0xff] ^ slices[0][high >> 24];
    }
#endif
    for (; length != 0; bytes++, length--)
        state = (state >> 8) ^ slices[0][(state ^ *bytes) & 0xff];
    return state;
}

uint32_t crc32c(const void *buf, size_t len)
{
    return finish(buf == nullptr ? initial_state : run(initial_state, buf, len));
}

uint32_t crc32cv(const struct iovec *iov, int iovcnt)
{
    uint32_t state = initial_state;
    for (int i = 0; iov != nullptr && i < iovcnt; i++) {
        if (iov[i].iov_len != 0 && iov[i].iov_base != nullptr)
            state = run(state, iov[i].iov_base, iov[i].iov_len);
    }
    return finish(state);
}
