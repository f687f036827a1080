// qkgen: writes the read-only tables that are compiled into the library.
//
//   qkgen [--unicode-dir DIR] TABLE OUTPUT
//   qkgen --list
//
// Each TABLE of the registry below writes one source file. The output is
// written beside OUTPUT first and renamed over it only when complete.
#include <stdio.h>
#include <string.h>

#include <string>

#include "generator.h"

namespace {

const qkgen::Generator kGenerators[] = {
    {"unicode-case", "lower and upper case tables (src/text/generated/unicode_case.inc)",
     qkgen::GenerateUnicodeCase},
    {"unicode-numeric", "numeric values (src/text/generated/unicode_numeric.inc)",
     qkgen::GenerateUnicodeNumeric},
    {"unicode-names", "character names (src/text/generated/unicode_names.inc)",
     qkgen::GenerateUnicodeNames},
    {"unicode-normal", "decompositions and combining marks (src/text/generated/unicode_normal.inc)",
     qkgen::GenerateUnicodeNormal},
    {"primes", "slot counts of the hash tables (src/container/generated/primes.inc)",
     qkgen::GeneratePrimes},
};

void Usage(FILE *stream) {
    fprintf(stream,
            "usage: qkgen [--unicode-dir DIR] TABLE OUTPUT\n"
            "       qkgen --list\n"
            "tables:\n");
    for (const qkgen::Generator &g : kGenerators)
        fprintf(stream, "  %-18s %s\n", g.name, g.description);
}

bool WriteFile(const std::string &path, const std::string &text) {
    std::string temporary = path + ".tmp";
    FILE *file = fopen(temporary.c_str(), "wb");
    if (!file) {
        perror(temporary.c_str());
        return false;
    }
    bool ok = fwrite(text.data(), 1, text.size(), file) == text.size();
    ok = fclose(file) == 0 && ok;
    if (ok && rename(temporary.c_str(), path.c_str()) != 0) {
        perror(path.c_str());
        ok = false;
    }
    if (!ok) remove(temporary.c_str());
    return ok;
}

}  // namespace

int main(int argc, char **argv) {
    qkgen::Options options;
    int i = 1;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        if (strcmp(argv[i], "--list") == 0) {
            Usage(stdout);
            return 0;
        } else if (strcmp(argv[i], "--unicode-dir") == 0 && i + 1 < argc) {
            options.unicodeDir = argv[++i];
        } else {
            Usage(stderr);
            return 2;
        }
    }
    if (argc - i != 2) {
        Usage(stderr);
        return 2;
    }
    for (const qkgen::Generator &g : kGenerators) {
        if (strcmp(g.name, argv[i]) != 0) continue;
        std::string text;
        if (!g.generate(options, text)) return 1;
        return WriteFile(argv[i + 1], text) ? 0 : 1;
    }
    fprintf(stderr, "qkgen: unknown table %s\n", argv[i]);
    Usage(stderr);
    return 2;
}
