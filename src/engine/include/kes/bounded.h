/*
 * Bounded memory and string operations: each takes the size of its destination and fails rather
 * than overrun it. Every destination size counts the bytes that may be written, the terminating NUL
 * of a text included. All are reentrant.
 *
 * The memory and string operations return 0 on success, EINVAL for a null pointer or a destination
 * size of 0, ERANGE for what does not fit. A failed copy writes nothing; a failed string operation
 * leaves an empty text where the destination allows it.
 * The formatters return the number of characters written, or -1; a failed one leaves an empty text.
 */
#ifndef KES_BOUNDED_H
#define KES_BOUNDED_H

#include <stdarg.h>

#include "kes/api.h"

KES_BEGIN_DECLS

KES_API int memcpy_s(void *destination, size_t destinationSize, const void *source, size_t count);
KES_API int memset_s(void *destination, size_t destinationSize, int value, size_t count);
KES_API int strcpy_s(char *destination, size_t destinationSize, const char *source);
KES_API int strcat_s(char *destination, size_t destinationSize, const char *source);
KES_API int sprintf_s(char *destination, size_t destinationSize, const char *format, ...)
    KES_PRINTF(3, 4);
/* Writes at most `count` characters and a NUL; a longer text is a failure. */
KES_API int vsnprintf_s(char *destination, size_t destinationSize, size_t count, const char *format,
                        va_list arguments) KES_PRINTF(4, 0);
/* Cuts a longer text to the destination and returns what was written. */
KES_API int vsnprintf_truncated_s(char *destination, size_t destinationSize, const char *format,
                                  va_list arguments) KES_PRINTF(3, 0);

KES_END_DECLS

#endif
