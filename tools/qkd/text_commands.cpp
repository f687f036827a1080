// The text commands: "fp" (the 64-bit fingerprint), "md5" (the digest) and
// "utf" (the UCS-2 code units and both cases). Each answers lines of text;
// all state is per call, since a command runs on many workers at once.
#include <stdio.h>

#include "commands.h"

namespace qkd {
namespace {

std::string Hex(ULong value, int digits) {
    char text[17];
    snprintf(text, sizeof text, "%0*llx", digits, (unsigned long long)value);
    return text;
}

int FingerprintCommand(QKClient *client, void *) {
    std::string text;
    int status;
    if (!TextArgument(client, &text, &status)) return status;
    ULong value = Fingerprint(text.data(), (UInt)text.size());
    return ReplyText(client, Hex(value, 16) + "\n", QK_FORMAT_TEXT);
}

int DigestCommand(QKClient *client, void *) {
    std::string text;
    int status;
    if (!TextArgument(client, &text, &status)) return status;
    QKDigest *digest = QKDigestNew();
    QKDigestUpdate(digest, text.data(), (UInt)text.size());
    QKDigestCompute(digest);
    std::string hex;
    for (Int i = 0; i < QK_DIGEST_SIZE; i++) hex += Hex(QKDigestGet(digest, i), 2);
    QKDigestDelete(digest);
    return ReplyText(client, hex + "\n", QK_FORMAT_TEXT);
}

// "ucs2: 0068 00e9", "lower: hé", "upper: HÉ", one line each.
int UTFCommand(QKClient *client, void *) {
    std::string text;
    int status;
    if (!TextArgument(client, &text, &status)) return status;
    const UByte *bytes = reinterpret_cast<const UByte *>(text.data());
    UInt size = (UInt)text.size();
    UShortArray units = {};
    ByteArray source = {};
    ByteArray lower = {};
    ByteArray upper = {};
    ArrayAppend(source, bytes, size);
    bool ok = UTFPtrToUCS2String(bytes, size, &units, 0) &&
              UTFPtrLowercase(bytes, size, &lower, 0) && UTFStringToUpper(&source, &upper, 0);
    std::string reply = "ucs2:";
    for (UInt i = 0; ok && i < units.length; i++) {
        reply += ' ';
        reply += Hex(units.data[i], 4);
    }
    reply += "\nlower: ";
    reply.append(reinterpret_cast<char *>(lower.data), lower.length);
    reply += "\nupper: ";
    reply.append(reinterpret_cast<char *>(upper.data), upper.length);
    reply += '\n';
    ArrayFree(units);
    ArrayFree(source);
    ArrayFree(lower);
    ArrayFree(upper);
    if (!ok) return QKClientError(client, QK_CLIENT_ILLEGAL_ARGUMENT, "malformed UTF-8 text");
    return ReplyText(client, reply, QK_FORMAT_TEXT);
}

const ToolCommand kCommands[] = {
    {"fp", FingerprintCommand, "fp TEXT # 64-bit fingerprint of the text, 16 hex digits\n",
     "The 64-bit fingerprint of the text's bytes, as 16 hexadecimal digits."},
    {"md5", DigestCommand, "md5 TEXT # MD5 digest of the text, 32 hex digits\n",
     "The MD5 digest of the text's bytes, in hexadecimal."},
    {"utf", UTFCommand, "utf TEXT # UCS-2 code units of the text, its lower and upper case\n",
     "The text's UCS-2 code units in hexadecimal, then the text in lower and in upper case."},
};

}  // namespace

const ToolCommand *ToolCommands(UInt *count) {
    *count = sizeof kCommands / sizeof kCommands[0];
    return kCommands;
}

}  // namespace qkd
