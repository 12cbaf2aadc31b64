/* libqvlib: all facilities at once. Each header under qvlib/ can also be included alone. */
#ifndef QVLIB_H
#define QVLIB_H

#include <qvlib/corelink.h>
#include <qvlib/digest.h>
#include <qvlib/encoding.h>
#include <qvlib/iovec.h>
#include <qvlib/lock_check.h>
#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/queue.h>
#include <qvlib/reference.h>
#include <qvlib/remote_gui.h>
#include <qvlib/sax.h>
#include <qvlib/scanner.h>
#include <qvlib/scsi.h>
#include <qvlib/sfp.h>
#include <qvlib/socket.h>
#include <qvlib/strings.h>
#include <qvlib/telnet_log.h>
#include <qvlib/transport.h>
#include <qvlib/tree.h>

#endif
