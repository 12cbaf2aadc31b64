// PDUs that libFuzzer makes, to both ends of the GUI relay:
//
//   scripts/fuzz 60 relay_pdu
//
// An input is a row of PDUs, each behind one byte that says how many bytes it has. The GUI server is not
// there: an OPEN of the remote end is refused, and no connection is left for the next input.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "fuzz_input.h"
#include "pdu_input.h"

struct addrinfo;

extern "C" int __wrap___qvsock_connect(const addrinfo *, const char *, const char *, const char *, int, int,
                                       const char *, int)
{
    errno = ECONNREFUSED;
    return -1;
}

namespace
{

int release_pdu(rgui_pdu *pdu, size_t length, void *)
{
    fuzz::require(length == sizeof *pdu + pdu->size, "a PDU's length");
    free(pdu);
    return 0;
}

// What rgui_data_rx must say to a PDU when it knows no connection.
int expected_result(std::span<const uint8_t> bytes, bool is_local)
{
    uint32_t size = 0;
    if (bytes.size() < sizeof(rgui_pdu))
        return -1;
    memcpy(&size, bytes.data() + offsetof(rgui_pdu, size), sizeof size);
    const bool fails = bytes[0] == RGUI_DATA || (bytes[0] == RGUI_OPEN && !is_local);
    return size != bytes.size() - sizeof(rgui_pdu) || fails ? -1 : 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static rgui_session *local = rgui_start_local("127.0.0.1", "0", nullptr, release_pdu, nullptr);
    static rgui_session *remote = rgui_start_remote(release_pdu, nullptr);
    std::span<const uint8_t> left(data, size);
    while (!left.empty()) {
        const size_t length = left[0] < left.size() ? left[0] : left.size() - 1;
        const std::span<const uint8_t> pdu = left.subspan(1, length);
        fuzz::require(take_pdu_bytes(local, pdu) == expected_result(pdu, true),
                      "another result than expected at the local end");
        fuzz::require(take_pdu_bytes(remote, pdu) == expected_result(pdu, false),
                      "another result than expected at the remote end");
        left = left.subspan(1 + length);
    }
    return 0;
}
