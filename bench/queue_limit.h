// The least that a library's look-up in a slot does.
#pragma once

#include <qvlib/queue.h>

// Asks the slot's occupant, which there must be, whether it is wanted: no test, no flags, no lists.
extern "C" void *queue_limit(q_queue *q, unsigned int key) QV_CALLED_OFTEN;
