// Bytes of unknown origin as a PDU.
#ifndef QVLIB_TESTS_PDU_INPUT_H
#define QVLIB_TESTS_PDU_INPUT_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include <qvlib/remote_gui.h>

// Hands bytes to a session in a block of exactly their size, at the block's start and one byte behind it.
inline int take_pdu_bytes(rgui_session *session, std::span<const uint8_t> bytes)
{
    int result = 0;
    for (const size_t offset : {0u, 1u}) {
        auto *block = static_cast<uint8_t *>(malloc(bytes.size() + offset));
        if (!block && bytes.size() + offset != 0)
            abort();
        if (!bytes.empty())
            memcpy(block + offset, bytes.data(), bytes.size());
        const void *pdu = block + offset;
        result = rgui_data_rx(session, static_cast<const rgui_pdu *>(pdu), bytes.size());
        free(block);
    }
    return result;
}

#endif
