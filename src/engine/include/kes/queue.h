/* Named bounded queues of pointers. Every operation is callable from any thread. */
#ifndef KES_QUEUE_H
#define KES_QUEUE_H

#include "kes/api.h"

KES_BEGIN_DECLS

typedef struct TovPipeQue TovPipeQue;

/* Creates a queue that holds up to `size` pointers, under a name that no other queue bears; null if
 * that fails. */
KES_API TovPipeQue *TovCreatePipeQue(const char *name, uint32_t size);
/* Appends a pointer. Returns 0, or an error code: 1 invalid argument (a null pointer is one), 2
 * queue full. */
KES_API uint32_t TovQueEnq(TovPipeQue *queue, void *element);
/* Takes the oldest pointer. Returns 0, or an error code: 1 invalid argument, 3 queue empty. */
KES_API uint32_t TovQueDeq(TovPipeQue *queue, void **element);
/* The number of pointers queued. */
KES_API uint32_t TovQueCount(TovPipeQue *queue);
/* Destroys a queue; what is still in it stays with its owner. Returns 0, or 1 for null. */
KES_API uint32_t TovQueDelete(TovPipeQue *queue);

KES_END_DECLS

#endif
