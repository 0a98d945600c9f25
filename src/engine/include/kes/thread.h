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
 * free again when the thread ends. Returns 0, or 1 if another live thread bears the name. */
KES_API uint32_t TOV_ThreadInfoRegByName(const char *name);

/* The thread known by this name, or null: also until that thread has made itself known. */
KES_API TovThreadInfo *TOV_ThreadInfoGetByName(const char *name);

/* Adds event bits to those that the thread has not read yet, and wakes it.
 * Returns 0, or 1 for a null thread or one that has ended. */
KES_API uint32_t TOV_EventWrite(TovThreadInfo *thread, uint32_t events);

/* Waits until the calling thread has unread event bits, takes them all and stores them.
 * Returns 0, or 1 if the calling thread has not made itself known. */
KES_API uint32_t TOV_EventRead(uint32_t *events);

KES_END_DECLS

#endif
