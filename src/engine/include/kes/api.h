/* The linkage of the engine's interface: C names, visible outside their library. */
#ifndef KES_API_H
#define KES_API_H

#include <stddef.h>
#include <stdint.h>

#define KES_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define KES_BEGIN_DECLS extern "C" {
#define KES_END_DECLS }
#else
#define KES_BEGIN_DECLS
#define KES_END_DECLS
#endif

/* Lets the compiler check a printf-style format against its arguments. */
#define KES_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))

#endif
