/*
 * Unicode utilities: conversions between UTF strings and UCS2 buffers, and
 * the per-character services (case, normal form, numeric value, name).
 *
 * The library's Unicode stops at 0xFFFF: its UTF-8 has at most three bytes.
 * A UTF string is a ByteArray kept zero-terminated beyond its length, the
 * terminator not counted; UCS2 is a UShortArray with an explicit length.
 *
 * "Ptr" forms take a pointer and a length; "String" forms take an array
 * record and forward to the Ptr form. The `append` argument: 0 empties the
 * destination first, 1 appends to it.
 */
#ifndef QK_UNICODE_H
#define QK_UNICODE_H

#include <stdio.h>

#include "qk/array.h"
#include "qk/types.h"

QK_BEGIN_DECLS

/* Results of ReadUTF8 besides a character 0..0xFFFF. */
#define READ_EOF (-1)
#define READ_MALFORMED (-4)

/* Decodes one character at *cursor and moves the cursor past it: the
 * character, READ_EOF at `end`, or -4 for a malformed sequence (the cursor
 * is then left somewhere inside it). */
QK_API Int ReadUTF8(const UByte **cursor, const UByte *end);

/* Encodes one character in one to three bytes; returns the position after
 * them. The destination must have room for three. */
QK_API UByte *WriteUTF8(UByte *destination, UShort character);

/* The same decoding from a stdio stream: READ_EOF at the end of the file,
 * -4 for a malformed sequence or the end of the file inside one. */
QK_API Int FileReadUTF8(FILE *file);
/* Writes one character; true unless the stream failed. */
QK_API int FileWriteUTF8(FILE *file, UShort character);

/* UTF to UCS2: true unless the text was malformed; stops at the first
 * malformed sequence, keeping what came before it. */
QK_API int UTFPtrToUCS2String(const UByte *data, UInt length, UShortArray *destination, int append);
QK_API int UTFStringToUCS2String(const ByteArray *string, UShortArray *destination, int append);

/* UCS2 to UTF. UCS2PtrToUTFString empties the destination first; the others
 * append. Always true. */
QK_API int UCS2PtrToUTFString(const UShort *data, UInt length, ByteArray *destination);
QK_API int UCS2PtrAppendToUTFString(const UShort *data, UInt length, ByteArray *destination);
QK_API int UCS2StringAppendToUTFString(const UShortArray *string, ByteArray *destination);

/* Number of characters of a UTF text: true, or false on malformed text, in
 * which case *count is left alone. */
QK_API int UTFPtrCharCount(const UByte *data, UInt length, UInt *count);
QK_API int UTFStringCharCount(const ByteArray *string, UInt *count);

/* UCS2 to lower-case UTF; empties the destination first. Always true. */
QK_API int UCS2PtrUTFLowercase(const UShort *data, UInt length, ByteArray *destination);

/* Case mapping from UTF to UTF: true unless the text was malformed (the
 * output then holds what came before the fault). UTFStringFirstCapitalize
 * maps only the first character to upper case and copies the others. */
QK_API int UTFPtrLowercase(const UByte *data, UInt length, ByteArray *destination, int append);
QK_API int UTFStringLowercase(const ByteArray *string, ByteArray *destination, int append);
QK_API int UTFStringToUpper(const ByteArray *string, ByteArray *destination, int append);
QK_API int UTFStringFirstCapitalize(const ByteArray *string, ByteArray *destination, int append);

/* Case mapping from UCS2 to UCS2. Always true. */
QK_API int UCS2PtrLowercase(const UShort *data, UInt length, UShortArray *destination, int append);
QK_API int UCS2StringLowercase(const UShortArray *string, UShortArray *destination, int append);

/* One character's simple case mapping; a character maps to itself when it
 * has none. */
QK_API UShort UCS2CharToLower(UShort character);
QK_API UShort UCS2CharToUpper(UShort character);

/* Normal form of one character (see qk/normal.h), to UCS2 or UTF. */
QK_API void UCS2CharNormalize(UShort character, UShortArray *destination, int append);
QK_API void UCS2CharNormalizeToUTF(UShort character, ByteArray *destination, int append);

/* Normal form of a text, character by character. The UTF forms return false
 * on malformed text, keeping the output of what came before the fault. */
QK_API int UTFPtrNormalize(const UByte *data, UInt length, ByteArray *destination, int append);
QK_API int UTFStringNormalize(const ByteArray *string, ByteArray *destination, int append);
QK_API int UTFPtrNormalizeToUCS2String(const UByte *data, UInt length, UShortArray *destination,
                                       int append);
QK_API int UCS2PtrNormalize(const UShort *data, UInt length, UShortArray *destination, int append);
QK_API int UCS2StringNormalize(const UShortArray *string, UShortArray *destination, int append);

/* True when the normal forms of the two texts are equal. Malformed text is a
 * broken invariant and ends the process. */
QK_API int UTFPtrNormCompare(const UByte *a, UInt aLength, const UByte *b, UInt bLength);

/* `lower` is taken as lower case already; `any` is lowered character by
 * character. True if they agree to the end. Malformed text ends the
 * process. */
QK_API int UTFStringLowerToAnyCompare(const UByte *lower, UInt lowerLength, const UByte *any,
                                      UInt anyLength);

/* Numeric value of a character, or -1.0 when it has none (and for a 32-bit
 * character at or above 0x30000). */
QK_API double UCS2GetCharNumericValue(UShort character);
QK_API double UCS4GetCharNumericValue(UInt character);

/* The character's name, or none (also at or above 0x30000). */
QK_API const char *UCS2GetCharLetterName(UShort character);
QK_API const char *UCS4GetCharLetterName(UInt character);

/* Prepares the text services of the library; safe to call more than once. */
QK_API void UtilInit(void);

QK_END_DECLS

#endif /* QK_UNICODE_H */
