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
#ifndef __constructor
#define __constructor __attribute__((constructor))
#endif
#ifndef __destructor
#define __destructor __attribute__((destructor))
#endif
#ifndef __hidden
#define __hidden __attribute__((visibility("hidden")))
#endif
#ifndef fallthrough
#define fallthrough __attribute__((__fallthrough__))
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define UBOX_BIG_(bits, x) ((uint##bits##_t)__builtin_bswap##bits((uint##bits##_t)(x)))
#define UBOX_LITTLE_(bits, x) ((uint##bits##_t)(x))
#else
#define UBOX_BIG_(bits, x) ((uint##bits##_t)(x))
#define UBOX_LITTLE_(bits, x) ((uint##bits##_t)__builtin_bswap##bits((uint##bits##_t)(x)))
#endif

/* These forms stand in constant expressions, in C and in C++. */
#define const_cpu_to_be16(x) UBOX_BIG_(16, x)
#define const_cpu_to_be32(x) UBOX_BIG_(32, x)
#define const_cpu_to_be64(x) UBOX_BIG_(64, x)
#define const_be16_to_cpu(x) UBOX_BIG_(16, x)
#define const_be32_to_cpu(x) UBOX_BIG_(32, x)
#define const_be64_to_cpu(x) UBOX_BIG_(64, x)
#define const_cpu_to_le16(x) UBOX_LITTLE_(16, x)
#define const_cpu_to_le32(x) UBOX_LITTLE_(32, x)
#define const_cpu_to_le64(x) UBOX_LITTLE_(64, x)
#define const_le16_to_cpu(x) UBOX_LITTLE_(16, x)
#define const_le32_to_cpu(x) UBOX_LITTLE_(32, x)
#define const_le64_to_cpu(x) UBOX_LITTLE_(64, x)

#ifdef __cplusplus
/* Plain functions: on a camera these do not stand in a C++ constant expression either. */
#define UBOX_BYTE_ORDER_(name, bits)                                                                                   \
    static inline uint##bits##_t name(uint##bits##_t value)                                                            \
    {                                                                                                                  \
        return const_##name(value);                                                                                    \
    }
UBOX_BYTE_ORDER_(cpu_to_be16, 16)
UBOX_BYTE_ORDER_(cpu_to_be32, 32)
UBOX_BYTE_ORDER_(cpu_to_be64, 64)
UBOX_BYTE_ORDER_(be16_to_cpu, 16)
UBOX_BYTE_ORDER_(be32_to_cpu, 32)
UBOX_BYTE_ORDER_(be64_to_cpu, 64)
UBOX_BYTE_ORDER_(cpu_to_le16, 16)
UBOX_BYTE_ORDER_(cpu_to_le32, 32)
UBOX_BYTE_ORDER_(cpu_to_le64, 64)
UBOX_BYTE_ORDER_(le16_to_cpu, 16)
UBOX_BYTE_ORDER_(le32_to_cpu, 32)
UBOX_BYTE_ORDER_(le64_to_cpu, 64)
#undef UBOX_BYTE_ORDER_
#else
#define cpu_to_be16(x) const_cpu_to_be16(x)
#define cpu_to_be32(x) const_cpu_to_be32(x)
#define cpu_to_be64(x) const_cpu_to_be64(x)
#define be16_to_cpu(x) const_be16_to_cpu(x)
#define be32_to_cpu(x) const_be32_to_cpu(x)
#define be64_to_cpu(x) const_be64_to_cpu(x)
#define cpu_to_le16(x) const_cpu_to_le16(x)
#define cpu_to_le32(x) const_cpu_to_le32(x)
#define cpu_to_le64(x) const_cpu_to_le64(x)
#define le16_to_cpu(x) const_le16_to_cpu(x)
#define le32_to_cpu(x) const_le32_to_cpu(x)
#define le64_to_cpu(x) const_le64_to_cpu(x)
#endif

#endif
