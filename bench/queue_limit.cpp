#include "queue_limit.h"

void *queue_limit(q_queue *q, unsigned int key)
{
    q_elem *elem = q->slots[key % q->slot_count];
    return q->compare(elem->data, key, 0) != 0 ? elem->data : nullptr;
}
