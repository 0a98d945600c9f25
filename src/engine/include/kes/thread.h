/* Threads and the event bits that wake them. */
#ifndef KES_THREAD_H
#define KES_THREAD_H

#include "kes/api.h"

KES_BEGIN_DECLS

/* A thread as a target of events. Handles stay valid for the engine's life; events written to a
 * thread that has ended are dropped. */
typedef struct TovThreadInfo TovThreadInfo;

typedef void (*TovThreadEntry)(void *argument);

/* Starts a thread running entry(argument). The engine joins it before it unloads the module.
 * Returns a non-null token, or null if the thread could not be started. */
KES_API void *TovThreadCreate(const char *name, TovThreadEntry entry, void *argument);

/* Makes the calling thread known by a name, so that others can write events to it. The name is
 * free again once the thread has ended, which may be a while after its entry has returned. Returns
 * 0, or 1 if another live thread bears the name. */
KES_API uint32_t TOV_ThreadInfoRegByName(const char *name);

/* The thread known by this name, or null: also until that thread has made itself known. */
KES_API TovThreadInfo *TOV_ThreadInfoGetByName(const char *name);

/* Adds event bits to those that the thread has not read yet, and wakes it. Null is no thread: an
 * engine need not bear it. Returns 0, or 1 for a thread that has ended. */
KES_API uint32_t TOV_EventWrite(TovThreadInfo *thread, uint32_t events);

/* Takes all unread event bits of the calling thread and stores them. While there is none, it waits
 * for one, or stores 0 at once: an engine does as it likes.
 * Returns 0, or 1 if the calling thread has not made itself known. */
KES_API uint32_t TOV_EventRead(uint32_t *events);

KES_END_DECLS

#endif
