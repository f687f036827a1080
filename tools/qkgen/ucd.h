// The parts of the Unicode character database that the library's tables
// are made from, loaded for the code points below kUcdLimit.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace qkgen {

// Tables cover code points below this limit; the case tables stop at 0xFFFF.
constexpr uint32_t kUcdLimit = 0x30000;

// Only characters assigned by this version (major * 100 + minor) are kept;
// later ones are treated as unassigned.
constexpr int kUcdMaxAge = 400;

struct UcdChar {
    bool assigned = false;                // listed in UnicodeData.txt and old enough
    std::string name;                     // empty for "<...>" entries and ranges
    std::string category;                 // general category, e.g. "Lu"
    std::vector<uint32_t> decomposition;  // one level, tag removed
    uint32_t upper = 0, lower = 0;        // simple mappings, 0 for none
    bool hasNumeric = false;
    double numeric = 0;
};

struct Ucd {
    std::string version;  // of DerivedAge.txt, e.g. "15.0.0"
    std::vector<UcdChar> chars;
};

// Loads UnicodeData.txt and DerivedAge.txt from `directory`, and with
// `numeric` also extracted/DerivedNumericValues.txt. Mappings whose target is
// not assigned are dropped. Prints the reason and returns false on failure.
bool LoadUcd(const std::string &directory, bool numeric, Ucd &ucd);

// The full decomposition of `code`: its mapping applied recursively, empty
// when it has none.
std::vector<uint32_t> FullDecomposition(const Ucd &ucd, uint32_t code);

// The first lines of generated files: name the tool, the table and the data,
// and keep the formatter away.
std::string GeneratedHeader(const Ucd &ucd, const char *table, const char *files);

}  // namespace qkgen
