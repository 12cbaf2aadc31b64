/* Loop addresses, bit counts, logarithms, roots, comparison with a tolerance, and size units. */
#include <qvlib/encoding.h>

#include <array>
#include <bit>

namespace
{

// The arbitrated-loop physical addresses of NL_Ports in descending order: those bytes whose 8B/10B code keeps
// the running disparity. FC-AL-2, table of valid AL_PAs.
constexpr uint8_t nl_port_addresses[] = {
    0xef, 0xe8, 0xe4, 0xe2, 0xe1, 0xe0, 0xdc, 0xda, 0xd9, 0xd6, 0xd5, 0xd4, 0xd3, 0xd2, 0xd1, 0xce,
    0xcd, 0xcc, 0xcb, 0xca, 0xc9, 0xc7, 0xc6, 0xc5, 0xc3, 0xbc, 0xba, 0xb9, 0xb6, 0xb5, 0xb4, 0xb3,
    0xb2, 0xb1, 0xae, 0xad, 0xac, 0xab, 0xaa, 0xa9, 0xa7, 0xa6, 0xa5, 0xa3, 0x9f, 0x9e, 0x9d, 0x9b,
    0x98, 0x97, 0x90, 0x8f, 0x88, 0x84, 0x82, 0x81, 0x80, 0x7c, 0x7a, 0x79, 0x76, 0x75, 0x74, 0x73,
    0x72, 0x71, 0x6e, 0x6d, 0x6c, 0x6b, 0x6a, 0x69, 0x67, 0x66, 0x65, 0x63, 0x5c, 0x5a, 0x59, 0x56,
    0x55, 0x54, 0x53, 0x52, 0x51, 0x4e, 0x4d, 0x4c, 0x4b, 0x4a, 0x49, 0x47, 0x46, 0x45, 0x43, 0x3c,
    0x3a, 0x39, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31, 0x2e, 0x2d, 0x2c, 0x2b, 0x2a, 0x29, 0x27, 0x26,
    0x25, 0x23, 0x1f, 0x1e, 0x1d, 0x1b, 0x18, 0x17, 0x10, 0x0f, 0x08, 0x04, 0x02, 0x01,
};
static_assert(std::size(nl_port_addresses) == 126);

// One bit for each address, so that a test is one look instead of a walk through the list.
using address_set = std::array<uint32_t, 8>;

constexpr address_set make_address_set()
{
    address_set set = {};
    for (const uint8_t address : nl_port_addresses)
        set[address / 32] |= 1u << address % 32;
    return set;
}

constexpr address_set nl_port_set = make_address_set();

constexpr char size_units[][6] = {"Bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

} // namespace

int is_valid_fc_al_pa(unsigned int alpa)
{
    return alpa <= 0xff && (nl_port_set[alpa / 32] >> alpa % 32 & 1) != 0;
}

int clz(uint32_t v)
{
    return std::countl_zero(v);
}

int ctz(uint32_t v)
{
    return std::countr_zero(v);
}

unsigned int qv_ilog2(uint32_t v)
{
    return v == 0 ? 0 : static_cast<unsigned int>(std::bit_width(v)) - 1;
}

unsigned int qv_ilog2_64(uint64_t v)
{
    const auto upper = static_cast<uint32_t>(v >> 32);
    return upper != 0 ? qv_ilog2(upper) + 32 : qv_ilog2(static_cast<uint32_t>(v));
}

// Bit by bit: root * root never exceeds the part of v that was taken so far, and `bit` is the square of the
// bit of the root that is tried next.
uint32_t isqrt32(uint32_t v)
{
    uint32_t bit = v > 0xffff ? 1u << 30 : 1u << 14;
    uint32_t root = 0;
    for (; bit != 0; bit >>= 2) {
        if (v >= root + bit) {
            v -= root + bit;
            root += 2 * bit;
        }
        root >>= 1;
    }
    return root;
}

int cmpnumle64(const uint64_t *a, const uint64_t *b)
{
    const uint64_t left = a == nullptr ? 0 : *a, right = b == nullptr ? 0 : *b;
    const auto difference = static_cast<int64_t>(left - right);
    if (difference < 0)
        return -1;
    // One above counts as equal, one below does not: daemons rely on it.
    return difference > 1;
}

int cmpnumbe64(const uint64_t *a, const uint64_t *b)
{
    return cmpnumle64(a, b);
}

const char *get_si_unit(uint64_t v)
{
    return size_units[qv_ilog2_64(v) / 10];
}

// The scaled figure is not to be had from here: the number is shifted away before it is divided by the scale,
// and daemons count on the 0.
uint64_t get_si_scale(uint64_t)
{
    return 0;
}
