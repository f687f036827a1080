/*
 * Normal form of characters: the form in which normalised patterns and
 * texts are compared.
 *
 * A character's normal form is its full decomposition (canonical and
 * compatibility mappings applied recursively) without the combining marks
 * (general category M*), each remaining code lowered by its simple lower
 * case mapping. A character without decomposition is its own lower case.
 * Codes above 0xFFFF are written as U+FFFD.
 */
#ifndef QK_NORMAL_H
#define QK_NORMAL_H

#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* Appends the normal form of `code` to `array`, which stays zero-terminated
 * beyond its length. */
QK_API void C2UToNormal(UShortArray *array, UInt code);

/* The same, appended as UTF-8 to a UTF string. */
QK_API void C2UToNormalUTF(ByteArray *array, UInt code);

/* Appends the normal form of every unit of a UCS2 string to `array`. */
QK_API void C2UToNormalString(UShortArray *array, const UShortArray *string);

QK_END_DECLS

#endif /* QK_NORMAL_H */
