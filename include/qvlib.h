/* libqvlib: all facilities at once. Each header under qvlib/ can also be included alone. */
#ifndef QVLIB_H
#define QVLIB_H

#include <qvlib/corelink.h>
#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/queue.h>
#include <qvlib/reference.h>
#include <qvlib/scanner.h>
#include <qvlib/socket.h>
#include <qvlib/strings.h>
#include <qvlib/telnet_log.h>
#include <qvlib/transport.h>

#endif
