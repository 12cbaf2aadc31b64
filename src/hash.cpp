/* FNV-1a of buffers and texts. G. Fowler, L. C. Noll, K.-P. Vo, D. Eastlake, "The FNV Non-Cryptographic Hash
 * Algorithm". */
#include <qvlib/encoding.h>

namespace
{

struct fnv32 {
    using word = uint32_t;
    static constexpr word basis = 0x811c9dc5, prime = 0x01000193;
};

struct fnv64 {
    using word = uint64_t;
    static constexpr word basis = 0xcbf29ce484222325, prime = 0x100000001b3;
};

template <typename Fnv> typename Fnv::word hash_bytes(const void *buf, size_t len)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);
    typename Fnv::word hash = Fnv::basis;
    if (bytes == nullptr)
        return hash;
    for (size_t i = 0; i < len; i++)
        hash = (hash ^ bytes[i]) * Fnv::prime;
    return hash;
}

// One pass over the text, without asking for its length first.
template <typename Fnv> typename Fnv::word hash_text(const char *text)
{
    typename Fnv::word hash = Fnv::basis;
    if (text == nullptr)
        return hash;
    for (; *text != '\0'; text++)
        hash = (hash ^ static_cast<uint8_t>(*text)) * Fnv::prime;
    return hash;
}

} // namespace

uint32_t hash_buf(const void *buf, size_t len)
{
    return hash_bytes<fnv32>(buf, len);
}

uint64_t hash_buf_64(const void *buf, size_t len)
{
    return hash_bytes<fnv64>(buf, len);
}

uint32_t hash_str(const char *s)
{
    return hash_text<fnv32>(s);
}

uint64_t hash_str_64(const char *s)
{
    return hash_text<fnv64>(s);
}
