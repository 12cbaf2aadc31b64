// PDUs that libFuzzer makes, to both ends of the GUI relay:
//
//   cmake --preset fuzz && cmake --build --preset fuzz
//   mkdir -p build/pdus && build/fuzz/fuzz/relay_pdu_fuzz build/pdus fuzz/corpus/relay_pdu
//
// An input is a row of PDUs, each behind one byte that says how many bytes it has. Nobody should listen on
// port 8008: an OPEN of the remote end is then refused, and no connection is left for the next input.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "pdu_input.h"

namespace
{

int release_pdu(rgui_pdu *pdu, size_t length, void *)
{
    if (length != sizeof *pdu + pdu->size)
        abort();
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
        if (take_pdu_bytes(local, pdu) != expected_result(pdu, true) ||
            take_pdu_bytes(remote, pdu) != expected_result(pdu, false)) {
            fputs("relay_pdu_fuzz: another result than expected\n", stderr);
            abort();
        }
        left = left.subspan(1 + length);
    }
    return 0;
}
