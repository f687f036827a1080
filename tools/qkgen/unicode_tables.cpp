// The Unicode tables of the text subsystem. Each is a two-level lookup: the
// high bits of a character select a page, the low bits an entry in it.
// Pages are shared between blocks that have equal contents.
#include <stdio.h>

#include <map>

#include "generator.h"
#include "ucd.h"

namespace qkgen {

namespace {

const char kCaseFiles[] = "UnicodeData.txt and DerivedAge.txt";

// Pages of 256 entries, numbered from 1; page 0 is an unused page of zeros,
// so that a lookup may read it before it tests the page number. A block
// whose entries are all one value has page 0 and that value in `shared`.
struct TwoLevel {
    std::vector<uint32_t> pageOf, shared;
    std::vector<std::vector<uint32_t>> pages;
    std::vector<std::string> comments;
};

TwoLevel BuildTwoLevel(const std::vector<uint32_t> &values) {
    TwoLevel t;
    size_t blocks = values.size() / 256;
    t.pages.push_back(std::vector<uint32_t>(256, 0));
    t.comments.push_back("0: unused (blocks of one value)");
    std::map<std::vector<uint32_t>, uint32_t> known;
    for (size_t block = 0; block < blocks; block++) {
        std::vector<uint32_t> page(values.begin() + block * 256,
                                   values.begin() + block * 256 + 256);
        bool uniform = true;
        for (uint32_t v : page) uniform = uniform && v == page[0];
        if (uniform) {
            t.pageOf.push_back(0);
            t.shared.push_back(page[0]);
            continue;
        }
        auto found = known.find(page);
        uint32_t number;
        if (found != known.end()) {
            number = found->second;
            Appendf(t.comments[number], ", %02zX", block);
        } else {
            number = (uint32_t)t.pages.size();
            known.emplace(page, number);
            t.pages.push_back(page);
            t.comments.push_back("");
            Appendf(t.comments[number], "%u: block %02zX", number, block);
        }
        t.pageOf.push_back(number);
        t.shared.push_back(0);
    }
    return t;
}

void EmitTwoLevel(std::string &out, const TwoLevel &t, const std::string &type,
                  const std::string &prefix, int hexDigits) {
    EmitHexArray(out, "const UShort " + prefix + "PageOf[" + std::to_string(t.pageOf.size()) + "]",
                 t.pageOf, 16, 2);
    EmitHexArray(out,
                 "const " + type + " " + prefix + "Shared[" + std::to_string(t.shared.size()) + "]",
                 t.shared, 8, hexDigits);
    EmitHexPages(
        out, "const " + type + " " + prefix + "Pages[" + std::to_string(t.pages.size()) + "][256]",
        t.pages, t.comments, 8, hexDigits);
}

std::vector<uint32_t> Head(const std::vector<uint32_t> &values, size_t count) {
    return std::vector<uint32_t>(values.begin(), values.begin() + count);
}

}  // namespace

bool GenerateUnicodeCase(const Options &options, std::string &out) {
    Ucd ucd;
    if (!LoadUcd(options.unicodeDir, false, ucd)) return false;
    out += GeneratedHeader(ucd, "unicode-case", kCaseFiles);
    out +=
        "// Simple lower and upper case of the characters assigned by Unicode 4.0, to U+FFFF.\n"
        "// An entry of 0 means that the character maps to itself.\n\n";
    for (int upper = 0; upper < 2; upper++) {
        std::vector<uint32_t> values(0x10000, 0);
        for (uint32_t c = 0; c < 0x10000; c++) {
            uint32_t m = upper ? ucd.chars[c].upper : ucd.chars[c].lower;
            if (m != c && m < 0x10000) values[c] = m;
        }
        std::string prefix = upper ? "kUpper" : "kLower";
        EmitHexArray(out, "const UShort " + prefix + "Ascii[128]", Head(values, 128), 8, 4);
        EmitTwoLevel(out, BuildTwoLevel(values), "UShort", prefix, 4);
    }
    return true;
}

bool GenerateUnicodeNumeric(const Options &options, std::string &out) {
    Ucd ucd;
    if (!LoadUcd(options.unicodeDir, true, ucd)) return false;
    out += GeneratedHeader(ucd, "unicode-numeric",
                           "UnicodeData.txt, DerivedAge.txt and DerivedNumericValues.txt");
    out +=
        "// Numeric values of the characters assigned by Unicode 4.0, to U+2FFFF; -1.0 for none.\n"
        "// Below 128 a direct table; above, pages of 80 characters indexed by character / 80.\n\n";
    auto value = [&](uint32_t c) { return ucd.chars[c].hasNumeric ? ucd.chars[c].numeric : -1.0; };
    auto emitDoubles = [&](uint32_t first, uint32_t count, const char *indent) {
        for (uint32_t i = 0; i < count; i++) {
            if (i % 8 == 0) out += indent;
            out += DoubleLiteral(value(first + i)) + ",";
            out += (i % 8 == 7 || i + 1 == count) ? "\n" : " ";
        }
    };
    out += "const double kNumericAscii[128] = {\n";
    emitDoubles(0, 128, "    ");
    out += "};\n\n";

    constexpr uint32_t kPage = 80;
    uint32_t pageCount = (kUcdLimit + kPage - 1) / kPage;
    // Page 0 holds no numeric character; pages are shared by equal contents.
    std::vector<uint32_t> pageOf(pageCount, 0);
    std::vector<uint32_t> pageFirst = {0};
    std::map<std::vector<double>, uint32_t> known;
    known.emplace(std::vector<double>(kPage, -1.0), 0);
    for (uint32_t p = 0; p < pageCount; p++) {
        std::vector<double> page;
        for (uint32_t c = p * kPage; c < (p + 1) * kPage; c++)
            page.push_back(c < kUcdLimit ? value(c) : -1.0);
        auto found = known.find(page);
        if (found == known.end()) {
            found = known.emplace(page, (uint32_t)pageFirst.size()).first;
            pageFirst.push_back(p * kPage);
        }
        pageOf[p] = found->second;
    }
    EmitHexArray(out, "const UShort kNumericPageOf[" + std::to_string(pageCount) + "]", pageOf, 16,
                 2);
    Appendf(out, "const double kNumericPages[%zu][%u] = {\n", pageFirst.size(), kPage);
    for (size_t p = 0; p < pageFirst.size(); p++) {
        if (p == 0)
            out += "    // 0: no numeric character\n";
        else
            Appendf(out, "    // %zu: from U+%04X\n", p, pageFirst[p]);
        out += "    {\n";
        if (p == 0) {
            for (uint32_t i = 0; i < kPage; i++) {
                if (i % 8 == 0) out += "        ";
                out += "-1.0,";
                out += i % 8 == 7 ? "\n" : " ";
            }
        } else {
            emitDoubles(pageFirst[p], kPage, "        ");
        }
        out += "    },\n";
    }
    out += "};\n";
    return true;
}

bool GenerateUnicodeNames(const Options &options, std::string &out) {
    Ucd ucd;
    if (!LoadUcd(options.unicodeDir, false, ucd)) return false;
    out += GeneratedHeader(ucd, "unicode-names", kCaseFiles);
    out +=
        "// Names of the characters assigned by Unicode 4.0, to U+2FFFF: offsets into\n"
        "// kNameText, 0 for none. Control characters, ranges (ideographs, Hangul syllables,\n"
        "// surrogates, private use) and unassigned characters have no name.\n\n";
    std::string text(1, '\0');
    std::vector<uint32_t> offsets(kUcdLimit, 0);
    std::string literals = "    \"\\0\"\n";
    for (uint32_t c = 0; c < kUcdLimit; c++) {
        const std::string &name = ucd.chars[c].name;
        if (name.empty()) continue;
        offsets[c] = (uint32_t)text.size();
        text += name;
        text += '\0';
        literals += "    " + StringLiteral(name) + " \"\\0\"\n";
    }
    EmitHexArray(out, "const UInt kNameAscii[128]", Head(offsets, 128), 8, 6);
    EmitTwoLevel(out, BuildTwoLevel(offsets), "UInt", "kName", 6);
    Appendf(out, "const char kNameText[%zu] =\n", text.size() + 1);
    out += literals;
    out += "    ;\n";
    return true;
}

bool GenerateUnicodeNormal(const Options &options, std::string &out) {
    Ucd ucd;
    if (!LoadUcd(options.unicodeDir, false, ucd)) return false;
    out += GeneratedHeader(ucd, "unicode-normal", kCaseFiles);
    out +=
        "// Full decompositions (canonical and compatibility, applied recursively) of the\n"
        "// characters assigned by Unicode 4.0, to U+2FFFF: offsets into kNormalCodes of\n"
        "// zero-terminated code lists, 0 for none. Then the combining marks (general category\n"
        "// M*), a bit per character in pages of 256 bits.\n\n";
    std::vector<uint32_t> codes = {0};
    std::vector<uint32_t> offsets(kUcdLimit, 0);
    std::map<std::vector<uint32_t>, uint32_t> known;
    size_t longest = 1;
    for (uint32_t c = 0; c < kUcdLimit; c++) {
        std::vector<uint32_t> d = FullDecomposition(ucd, c);
        if (d.empty()) continue;
        longest = std::max(longest, d.size());
        auto found = known.find(d);
        if (found == known.end()) {
            found = known.emplace(d, (uint32_t)codes.size()).first;
            codes.insert(codes.end(), d.begin(), d.end());
            codes.push_back(0);
        }
        offsets[c] = found->second;
    }
    if (codes.size() > 0xFFFF) {
        fprintf(stderr, "qkgen: too many decomposition codes for 16-bit offsets\n");
        return false;
    }
    Appendf(out, "constexpr UInt kNormalMaxLength = %zu;\n\n", longest);
    EmitHexArray(out, "const UInt kNormalCodes[" + std::to_string(codes.size()) + "]", codes, 8, 5);
    EmitTwoLevel(out, BuildTwoLevel(offsets), "UShort", "kNormal", 4);

    // Mark bits: page entries are 32-bit words, 8 to a block of 256 characters.
    std::vector<uint32_t> words(kUcdLimit / 32, 0);
    for (uint32_t c = 0; c < kUcdLimit; c++) {
        if (ucd.chars[c].assigned && ucd.chars[c].category[0] == 'M')
            words[c / 32] |= 1u << (c % 32);
    }
    std::vector<uint32_t> pageOf, shared;
    std::vector<std::vector<uint32_t>> pages = {std::vector<uint32_t>(8, 0)};
    std::vector<std::string> comments = {"0: unused (blocks of one value)"};
    std::map<std::vector<uint32_t>, uint32_t> knownPages;
    for (uint32_t block = 0; block < kUcdLimit / 256; block++) {
        std::vector<uint32_t> page(words.begin() + block * 8, words.begin() + block * 8 + 8);
        bool uniform = true;
        for (uint32_t w : page) uniform = uniform && w == page[0] && (w == 0 || w == 0xFFFFFFFF);
        if (uniform) {
            pageOf.push_back(0);
            shared.push_back(page[0] ? 1 : 0);
            continue;
        }
        auto found = knownPages.find(page);
        if (found == knownPages.end()) {
            found = knownPages.emplace(page, (uint32_t)pages.size()).first;
            comments.push_back(std::to_string(pages.size()) + ": block ");
            Appendf(comments.back(), "%02X", block);
            pages.push_back(page);
        } else {
            Appendf(comments[found->second], ", %02X", block);
        }
        pageOf.push_back(found->second);
        shared.push_back(0);
    }
    EmitHexArray(out, "const UByte kMarkPageOf[" + std::to_string(pageOf.size()) + "]", pageOf, 16,
                 2);
    EmitHexArray(out, "const UByte kMarkShared[" + std::to_string(shared.size()) + "]", shared, 16,
                 2);
    EmitHexPages(out, "const UInt kMarkPages[" + std::to_string(pages.size()) + "][8]", pages,
                 comments, 8, 8);
    return true;
}

}  // namespace qkgen
