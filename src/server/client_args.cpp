// The arguments of a native command, taken word by word from the request
// line in place. A word ends at white space outside double quotes; quotes
// are kept in the word, and a backslash inside quotes takes the next
// character literally.
#include <string.h>

#include "server/server_internal.h"

extern "C" double trio_to_double(const char *source, char **end);

namespace {

// The next word, or none at the end of the line.
const char *NextWord(QKClient *client) {
    qkassert(client->c_protocol == PROTOCOL_NATIVE);
    const char *word;
    return QKClientStringArg(client, &word) ? word : nullptr;
}

int DigitValue(char c, bool hex) {
    if (c >= '0' && c <= '9') return c - '0';
    if (hex && c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (hex && c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// An unsigned number of all digits, growing without an overflow check.
bool ParseUnsigned(const char *word, bool hex, ULong *value) {
    ULong result = 0;
    if (*word == '\0') return false;
    for (const char *p = word; *p; p++) {
        int digit = DigitValue(*p, hex);
        if (digit < 0) return false;
        result = result * (hex ? 16 : 10) + (ULong)digit;
    }
    *value = result;
    return true;
}

// A signed decimal number: an optional sign and digits.
bool ParseSigned(const char *word, Long *value) {
    bool negative = *word == '-';
    if (*word == '-' || *word == '+') word++;
    ULong magnitude;
    if (!ParseUnsigned(word, false, &magnitude)) return false;
    *value = negative ? (Long)(0 - magnitude) : (Long)magnitude;
    return true;
}

template <typename T>
bool InRange(T value, T min, T max) {
    return value >= min && (max == 0 || value <= max);
}

int UnsignedArg(QKClient *client, bool hex, ULong *value, ULong min, ULong max) {
    const char *word = NextWord(client);
    ULong result;
    if (word == nullptr || !ParseUnsigned(word, hex, &result) || !InRange(result, min, max))
        return 0;
    *value = result;
    return 1;
}

}  // namespace

extern "C" {

QK_API const char *QKClientArgs(QKClient *client) {
    qkassert(client->c_protocol == PROTOCOL_NATIVE);
    const char *args = client->c_args;
    while (qk::server::IsBlank(*args)) args++;
    return args;
}

QK_API int QKClientStringArg(QKClient *client, const char **string) {
    qkassert(client->c_protocol == PROTOCOL_NATIVE);
    char *p = client->c_args;
    while (qk::server::IsBlank(*p)) p++;
    char *word = p;
    char *out = p;
    bool quoted = false;
    while (*p != '\0' && (quoted || !qk::server::IsBlank(*p))) {
        if (*p == '"') {
            quoted = !quoted;
        } else if (*p == '\\' && quoted && p[1] != '\0') {
            p++;  // the next character as it is; the backslash goes
        }
        *out++ = *p++;
    }
    char *next = *p != '\0' ? p + 1 : p;
    *out = '\0';
    client->c_args = next;
    if (string) *string = word;
    return out > word ? 1 : 0;
}

QK_API int QKClientQuotedArg(QKClient *client, const char **string) {
    const char *word = NextWord(client);
    if (word == nullptr) return 0;
    if (word[0] == '"') {
        size_t length = strlen(word);
        if (length < 2 || word[length - 1] != '"') return 0;
        const_cast<char *>(word)[length - 1] = '\0';
        word++;
    }
    if (string) *string = word;
    return 1;
}

QK_API int QKClientIntegerArg(QKClient *client, UInt *value, UInt min, UInt max) {
    ULong result;
    if (!UnsignedArg(client, false, &result, 0, 0)) return 0;
    UInt narrow = (UInt)result;
    if (!InRange(narrow, min, max)) return 0;
    *value = narrow;
    return 1;
}

QK_API int QKClientLongArg(QKClient *client, ULong *value, ULong min, ULong max) {
    return UnsignedArg(client, false, value, min, max);
}

QK_API int QKClientSignedLongArg(QKClient *client, Long *value, Long min, Long max) {
    const char *word = NextWord(client);
    Long result;
    if (word == nullptr || !ParseSigned(word, &result) || !InRange(result, min, max)) return 0;
    *value = result;
    return 1;
}

QK_API int QKClientDoubleArg(QKClient *client, double *value, double min, double max) {
    const char *word = NextWord(client);
    if (word == nullptr) return 0;
    char *end = nullptr;
    double result = trio_to_double(word, &end);
    if (end == word || *end != '\0' || !InRange(result, min, max)) return 0;
    *value = result;
    return 1;
}

QK_API int QKClientHexArg(QKClient *client, UInt *value, UInt min, UInt max) {
    ULong result;
    if (!UnsignedArg(client, true, &result, 0, 0)) return 0;
    UInt narrow = (UInt)result;
    if (!InRange(narrow, min, max)) return 0;
    *value = narrow;
    return 1;
}

QK_API int QKClientHexLongArg(QKClient *client, ULong *value, ULong min, ULong max) {
    return UnsignedArg(client, true, value, min, max);
}

}  // extern "C"
