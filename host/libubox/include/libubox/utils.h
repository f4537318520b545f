/* Small helpers: array sizes, byte order, attributes. */
#ifndef LIBUBOX_UTILS_H
#define LIBUBOX_UTILS_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))
#endif

#ifndef __packed
#define __packed __attribute__((packed))
#endif
#ifndef fallthrough
#define fallthrough __attribute__((__fallthrough__))
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define UBOX_BIG_(bits, x) __builtin_bswap##bits(x)
#else
#define UBOX_BIG_(bits, x) (x)
#endif

/* Plain functions: on a camera these are no C++ constant expressions either. */
#define UBOX_BYTE_ORDER_(bits)                                                                                         \
    static inline uint##bits##_t cpu_to_be##bits(uint##bits##_t value)                                                 \
    {                                                                                                                  \
        return UBOX_BIG_(bits, value);                                                                                 \
    }                                                                                                                  \
    static inline uint##bits##_t be##bits##_to_cpu(uint##bits##_t value)                                               \
    {                                                                                                                  \
        return UBOX_BIG_(bits, value);                                                                                 \
    }
UBOX_BYTE_ORDER_(16)
UBOX_BYTE_ORDER_(32)
UBOX_BYTE_ORDER_(64)
#undef UBOX_BYTE_ORDER_
#undef UBOX_BIG_

#endif
