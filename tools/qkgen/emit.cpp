// Text helpers shared by the generators: every table is emitted through
// these, so that all generated files have one layout.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "generator.h"

namespace qkgen {

void Appendf(std::string &out, const char *format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int size = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (size > 0) {
        size_t start = out.size();
        out.resize(start + (size_t)size + 1);
        vsnprintf(&out[start], (size_t)size + 1, format, args);
        out.resize(start + (size_t)size);
    }
    va_end(args);
}

namespace {

void EmitValues(std::string &out, const std::vector<uint32_t> &values, int perLine, int hexDigits,
                const char *indent) {
    for (size_t i = 0; i < values.size(); i++) {
        if (i % perLine == 0) out += indent;
        Appendf(out, "0x%0*X,", hexDigits, (unsigned)values[i]);
        out += (i % perLine == (size_t)perLine - 1 || i + 1 == values.size()) ? "\n" : " ";
    }
}

}  // namespace

void EmitHexArray(std::string &out, const std::string &declaration,
                  const std::vector<uint32_t> &values, int perLine, int hexDigits) {
    out += declaration + " = {\n";
    EmitValues(out, values, perLine, hexDigits, "    ");
    out += "};\n\n";
}

void EmitHexPages(std::string &out, const std::string &declaration,
                  const std::vector<std::vector<uint32_t>> &pages,
                  const std::vector<std::string> &comments, int perLine, int hexDigits) {
    out += declaration + " = {\n";
    for (size_t p = 0; p < pages.size(); p++) {
        Appendf(out, "    // %s\n", comments[p].c_str());
        out += "    {\n";
        EmitValues(out, pages[p], perLine, hexDigits, "        ");
        out += "    },\n";
    }
    out += "};\n\n";
}

std::string DoubleLiteral(double value) {
    char text[64];
    for (int precision = 1; precision <= 17; precision++) {
        snprintf(text, sizeof text, "%.*g", precision, value);
        if (strtod(text, nullptr) == value) break;
    }
    std::string result = text;
    if (result.find_first_of(".e") == std::string::npos) result += ".0";
    return result;
}

std::string StringLiteral(const std::string &text) {
    std::string result = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += (char)c;
        } else if (c < 0x20 || c >= 0x7F) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\%03o", c);
            result += escape;
        } else {
            result += (char)c;
        }
    }
    return result + "\"";
}

}  // namespace qkgen
