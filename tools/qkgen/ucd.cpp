// Reading the Unicode character database files.
#include "ucd.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>

namespace qkgen {

namespace {

// Reads a file line by line, comments and blank lines removed, fields split
// on ';' and trimmed.
class FieldReader {
  public:
    explicit FieldReader(const std::string &path) : path_(path), file_(fopen(path.c_str(), "r")) {
        if (!file_) perror(path.c_str());
    }
    ~FieldReader() {
        if (file_) fclose(file_);
    }
    bool ok() const { return file_ != nullptr; }
    const std::string &firstComment() const { return firstComment_; }

    bool Next(std::vector<std::string> &fields) {
        char buffer[4096];
        while (fgets(buffer, sizeof buffer, file_)) {
            std::string line = buffer;
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
            size_t hash = line.find('#');
            if (hash != std::string::npos) {
                if (lineNumber_++ == 0) firstComment_ = line.substr(hash + 1);
                line.resize(hash);
            }
            if (line.find_first_not_of(" \t") == std::string::npos) continue;
            fields.clear();
            size_t start = 0;
            for (;;) {
                size_t semi = line.find(';', start);
                std::string field = line.substr(
                    start, semi == std::string::npos ? std::string::npos : semi - start);
                size_t b = field.find_first_not_of(" \t");
                size_t e = field.find_last_not_of(" \t");
                fields.push_back(b == std::string::npos ? "" : field.substr(b, e - b + 1));
                if (semi == std::string::npos) break;
                start = semi + 1;
            }
            return true;
        }
        return false;
    }

  private:
    std::string path_;
    FILE *file_;
    std::string firstComment_;
    int lineNumber_ = 0;
};

bool ParseHex(const std::string &text, uint32_t &value) {
    if (text.empty()) return false;
    char *end;
    unsigned long v = strtoul(text.c_str(), &end, 16);
    if (*end != '\0' || v > 0x10FFFF) return false;
    value = (uint32_t)v;
    return true;
}

// "0041..005A" or "0041".
bool ParseRange(const std::string &text, uint32_t &first, uint32_t &last) {
    size_t dots = text.find("..");
    if (dots == std::string::npos) {
        if (!ParseHex(text, first)) return false;
        last = first;
        return true;
    }
    return ParseHex(text.substr(0, dots), first) && ParseHex(text.substr(dots + 2), last) &&
           first <= last;
}

bool Fail(const std::string &path, const char *what) {
    fprintf(stderr, "qkgen: %s: %s\n", path.c_str(), what);
    return false;
}

bool LoadAges(const std::string &path, std::vector<int> &ages, std::string &version) {
    FieldReader reader(path);
    if (!reader.ok()) return false;
    std::vector<std::string> f;
    while (reader.Next(f)) {
        uint32_t first, last;
        int major, minor;
        if (f.size() < 2 || !ParseRange(f[0], first, last) ||
            sscanf(f[1].c_str(), "%d.%d", &major, &minor) != 2)
            return Fail(path, "bad line");
        for (uint32_t c = first; c <= last && c < kUcdLimit; c++) ages[c] = major * 100 + minor;
    }
    // The first line reads "# DerivedAge-15.0.0.txt".
    const std::string &title = reader.firstComment();
    size_t dash = title.find('-');
    size_t dot = title.rfind(".txt");
    if (dash == std::string::npos || dot == std::string::npos || dot <= dash)
        return Fail(path, "no version in the first line");
    version = title.substr(dash + 1, dot - dash - 1);
    return true;
}

bool LoadUnicodeData(const std::string &path, const std::vector<int> &ages, Ucd &ucd) {
    FieldReader reader(path);
    if (!reader.ok()) return false;
    std::vector<std::string> f;
    uint32_t rangeFirst = 0;
    bool inRange = false;
    while (reader.Next(f)) {
        uint32_t code;
        if (f.size() != 15 || !ParseHex(f[0], code)) return Fail(path, "bad line");
        const std::string &name = f[1];
        bool isFirst = name.size() > 8 && name.compare(name.size() - 8, 8, ", First>") == 0;
        bool isLast = name.size() > 7 && name.compare(name.size() - 7, 7, ", Last>") == 0;
        if (isFirst) {
            rangeFirst = code;
            inRange = true;
            continue;
        }
        uint32_t first = code;
        if (isLast) {
            if (!inRange) return Fail(path, "range end without start");
            first = rangeFirst;
            inRange = false;
        }
        for (uint32_t c = first; c <= code && c < kUcdLimit; c++) {
            if (ages[c] == 0 || ages[c] > kUcdMaxAge) continue;
            UcdChar &u = ucd.chars[c];
            u.assigned = true;
            u.category = f[2];
            if (first != code || name[0] == '<') continue;  // no name, no mappings
            u.name = name;
            std::string decomposition = f[5];
            if (!decomposition.empty() && decomposition[0] == '<')
                decomposition.erase(0, decomposition.find('>') + 1);
            char *cursor = decomposition.data();
            while (*cursor) {
                char *end;
                unsigned long d = strtoul(cursor, &end, 16);
                if (end == cursor) break;
                u.decomposition.push_back((uint32_t)d);
                cursor = end;
            }
            if (!f[12].empty() && !ParseHex(f[12], u.upper)) return Fail(path, "bad upper case");
            if (!f[13].empty() && !ParseHex(f[13], u.lower)) return Fail(path, "bad lower case");
        }
    }
    return true;
}

bool LoadNumeric(const std::string &path, Ucd &ucd) {
    FieldReader reader(path);
    if (!reader.ok()) return false;
    std::vector<std::string> f;
    while (reader.Next(f)) {
        uint32_t first, last;
        // Field 3 is the exact value as a rational, "n" or "n/d".
        long long numerator, denominator = 1;
        if (f.size() < 4 || !ParseRange(f[0], first, last)) return Fail(path, "bad line");
        int n = sscanf(f[3].c_str(), "%lld/%lld", &numerator, &denominator);
        if (n < 1 || denominator == 0) return Fail(path, "bad value");
        for (uint32_t c = first; c <= last && c < kUcdLimit; c++) {
            if (!ucd.chars[c].assigned) continue;
            ucd.chars[c].hasNumeric = true;
            ucd.chars[c].numeric = (double)numerator / (double)denominator;
        }
    }
    return true;
}

}  // namespace

bool LoadUcd(const std::string &directory, bool numeric, Ucd &ucd) {
    std::vector<int> ages(kUcdLimit, 0);
    ucd.chars.assign(kUcdLimit, UcdChar());
    if (!LoadAges(directory + "/DerivedAge.txt", ages, ucd.version)) return false;
    if (!LoadUnicodeData(directory + "/UnicodeData.txt", ages, ucd)) return false;
    if (numeric && !LoadNumeric(directory + "/extracted/DerivedNumericValues.txt", ucd))
        return false;
    // A mapping to a character added later than the limit did not exist yet.
    for (UcdChar &u : ucd.chars) {
        if (u.upper >= kUcdLimit || (u.upper && !ucd.chars[u.upper].assigned)) u.upper = 0;
        if (u.lower >= kUcdLimit || (u.lower && !ucd.chars[u.lower].assigned)) u.lower = 0;
    }
    return true;
}

std::vector<uint32_t> FullDecomposition(const Ucd &ucd, uint32_t code) {
    std::vector<uint32_t> result;
    if (code >= kUcdLimit) return result;
    for (uint32_t d : ucd.chars[code].decomposition) {
        std::vector<uint32_t> inner = FullDecomposition(ucd, d);
        if (inner.empty())
            result.push_back(d);
        else
            result.insert(result.end(), inner.begin(), inner.end());
    }
    return result;
}

std::string GeneratedHeader(const Ucd &ucd, const char *table, const char *files) {
    return std::string("// Generated by qkgen ") + table + " from " + files + " of Unicode " +
           ucd.version + "; do not edit.\n// clang-format off\n";
}

}  // namespace qkgen
