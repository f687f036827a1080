// One character at a time: UTF-8 decoding and encoding on memory and on
// stdio streams, and counting the characters of a text.
#include <stdio.h>

#include "qk/frame.h"
#include "qk/unicode.h"
#include "text/utf.h"

using namespace qk::text;

extern "C" {

Int ReadUTF8(const UByte **cursor, const UByte *end) {
    return DecodeUTF8(*cursor, end);
}

UByte *WriteUTF8(UByte *destination, UShort character) {
    return EncodeUTF8(destination, character);
}

Int FileReadUTF8(FILE *file) {
    int b0 = getc(file);
    if (b0 == EOF) return READ_EOF;
    if (b0 < 0x80) return b0;
    if (b0 < 0xC0 || b0 >= 0xF0) return READ_MALFORMED;
    int more = b0 < 0xE0 ? 1 : 2;
    UInt c = (UInt)b0 & (more == 1 ? 0x1Fu : 0x0Fu);
    for (int i = 0; i < more; i++) {
        int b = getc(file);
        if (b == EOF) return READ_MALFORMED;
        if ((b & 0xC0) != 0x80) {
            // The byte may start the next character: leave it to the next read.
            ungetc(b, file);
            return READ_MALFORMED;
        }
        c = (c << 6) | ((UInt)b & 0x3F);
    }
    if (c < (more == 1 ? 0x80u : 0x800u)) return READ_MALFORMED;
    return (Int)c;
}

int FileWriteUTF8(FILE *file, UShort character) {
    UByte bytes[3];
    size_t n = (size_t)(EncodeUTF8(bytes, character) - bytes);
    if (fwrite(bytes, 1, n, file) != n) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

int UTFPtrCharCount(const UByte *data, UInt length, UInt *count) {
    const UByte *p = data, *end = data + length;
    UInt n = 0;
    for (;;) {
        // Runs of ASCII are counted eight bytes at a time.
        while (end - p >= 8) {
            ULong word;
            memcpy(&word, p, 8);
            if (word & 0x8080808080808080ull) break;
            p += 8;
            n += 8;
        }
        Int c = DecodeUTF8(p, end);
        if (c < 0) {
            if (c != READ_EOF) return 0;
            break;
        }
        n++;
    }
    *count = n;
    return 1;
}

int UTFStringCharCount(const ByteArray *string, UInt *count) {
    return UTFPtrCharCount(string->data, string->length, count);
}

}  // extern "C"
