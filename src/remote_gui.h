// Steps of the relay that are not exported.
#pragma once

#include <qvlib/remote_gui.h>

struct rgui_conn;

extern "C" {

// A zeroed PDU with room for `capacity` bytes of payload and its size set to that; of the connection, if one
// is given. Returns null without memory. Release it with free().
rgui_pdu *create_pdu(const rgui_conn *conn, uint8_t opcode, uint32_t capacity);

// Logs a PDU of `length` bytes, of its payload 64 bytes at most; what it lacks of its header is shown as 0.
// QV_LOG_HEX_SILENT logs nothing.
void rgui_dump_pdu(int level, const char *name, const rgui_pdu *pdu, size_t length);
}
