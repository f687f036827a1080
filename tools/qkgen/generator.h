// The table registry of qkgen: each table is a named generator that reads
// its inputs and writes one source file for the library.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace qkgen {

struct Options {
    // Directory of the Unicode character database files.
    std::string unicodeDir = "/usr/share/unicode";
};

// A generator appends the whole text of its file to `out`; on failure it
// returns false after printing the reason on stderr.
using GenerateFn = bool (*)(const Options &options, std::string &out);

struct Generator {
    const char *name;
    const char *description;
    GenerateFn generate;
};

// Unicode tables of the text subsystem (unicode_tables.cpp).
bool GenerateUnicodeCase(const Options &options, std::string &out);
bool GenerateUnicodeNumeric(const Options &options, std::string &out);
bool GenerateUnicodeNames(const Options &options, std::string &out);
bool GenerateUnicodeNormal(const Options &options, std::string &out);

// The primes of the hash tables' slot counts (prime_table.cpp).
bool GeneratePrimes(const Options &options, std::string &out);

// Output helpers (emit.cpp).

// printf into a string.
void Appendf(std::string &out, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Emits `declaration = { values };` with `perLine` values a line, each as
// 0x and `hexDigits` digits.
void EmitHexArray(std::string &out, const std::string &declaration,
                  const std::vector<uint32_t> &values, int perLine, int hexDigits);

// Emits `declaration = { {page}, ... };` for pages of equal size, each page
// preceded by a comment line naming it.
void EmitHexPages(std::string &out, const std::string &declaration,
                  const std::vector<std::vector<uint32_t>> &pages,
                  const std::vector<std::string> &comments, int perLine, int hexDigits);

// The shortest decimal text that reads back as `value`, always with a
// decimal point or exponent so that it is a double literal.
std::string DoubleLiteral(double value);

// A C string literal of `text`, escaping what needs it.
std::string StringLiteral(const std::string &text);

}  // namespace qkgen
