/* Basic types and linkage macros shared by every public header. */
#ifndef QK_TYPES_H
#define QK_TYPES_H

#include <stddef.h>
#include <stdint.h>

typedef uint8_t UByte;
typedef uint16_t UShort;
typedef uint32_t UInt;
typedef uint64_t ULong;
typedef int32_t Int;
typedef int64_t Long;

#ifdef __cplusplus
#define QK_BEGIN_DECLS extern "C" {
#define QK_END_DECLS }
#else
#define QK_BEGIN_DECLS
#define QK_END_DECLS
#endif

#define QK_API __attribute__((visibility("default")))
#define QK_NORETURN __attribute__((noreturn))

#endif /* QK_TYPES_H */
