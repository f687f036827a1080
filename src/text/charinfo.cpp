// Per-character properties: numeric value and name; and the start-up of
// the text services.
#include "qk/unicode.h"
#include "text/tables.h"

using namespace qk::text;

extern "C" {

double UCS2GetCharNumericValue(UShort character) {
    return NumericValue(character);
}

double UCS4GetCharNumericValue(UInt character) {
    return NumericValue(character);
}

const char *UCS2GetCharLetterName(UShort character) {
    return LetterName(character);
}

const char *UCS4GetCharLetterName(UInt character) {
    return LetterName(character);
}

void UtilInit(void) {
    // The Unicode tables are read-only data compiled into the library and
    // need no preparation. The charset tables are prepared by C2UInit, which
    // this function calls once charset conversion is part of the library.
}

}  // extern "C"
