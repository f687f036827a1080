// UTF-8 to UCS2 and back, against ICU's u_strFromUTF8 and u_strToUTF8, on
// about 1 MB of mixed text: ASCII, Latin with accents, Cyrillic, Greek and
// CJK, in runs as they come in real documents.
#include <unicode/ustring.h>

#include <string>
#include <vector>

#include "compare.h"
#include "qk/qkcommon.h"
#include "qk/unicode.h"

namespace {

const std::string &MixedText() {
    static const std::string text = [] {
        const char *sentences[] = {
            "The quick brown fox jumps over the lazy dog, again and again. ",
            "Où est la boîte à café? Déjà vu, naïve façade, cœur élégant. ",
            "Größere Häuser müssen über die Straße gebaut werden. ",
            "Съешь же ещё этих мягких французских булок, да выпей чаю. ",
            "Ξεσκεπάζω την ψυχοφθόρα βδελυγμία της σύγχρονης εποχής. ",
            "我能吞下玻璃而不伤身体。今天天气很好，我们去公园散步吧。",
            "いろはにほへと ちりぬるを わかよたれそ つねならむ。",
            "Search results 1-10 of about 2,340,000 for <query> (0.21 seconds)\n",
        };
        std::string t;
        for (unsigned i = 0; t.size() < (1u << 20); i++) t += sentences[(i * 5 + i / 8) % 8];
        return t;
    }();
    return text;
}

std::vector<UShort> MixedUnits() {
    const std::string &text = MixedText();
    UShortArray a = {};
    UTFPtrToUCS2String((const UByte *)text.data(), (UInt)text.size(), &a, 0);
    std::vector<UShort> units(a.data, a.data + a.length);
    ArrayFree(a);
    return units;
}

void QKToUCS2(benchmark::State &state) {
    const std::string &text = MixedText();
    UShortArray out = {};
    for (auto _ : state) {
        if (!UTFPtrToUCS2String((const UByte *)text.data(), (UInt)text.size(), &out, 0))
            state.SkipWithError("malformed");
        benchmark::DoNotOptimize(out.data);
    }
    ArrayFree(out);
    state.SetBytesProcessed(state.iterations() * (int64_t)text.size());
}

void ICUToUCS2(benchmark::State &state) {
    const std::string &text = MixedText();
    std::vector<UChar> out(text.size());
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        int32_t length = 0;
        u_strFromUTF8(out.data(), (int32_t)out.size(), &length, text.data(), (int32_t)text.size(),
                      &error);
        if (U_FAILURE(error)) state.SkipWithError("u_strFromUTF8 failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)text.size());
}

void QKToUTF8(benchmark::State &state) {
    std::vector<UShort> units = MixedUnits();
    ByteArray out = {};
    for (auto _ : state) {
        UCS2PtrToUTFString(units.data(), (UInt)units.size(), &out);
        benchmark::DoNotOptimize(out.data);
    }
    ArrayFree(out);
    state.SetBytesProcessed(state.iterations() * (int64_t)MixedText().size());
}

void ICUToUTF8(benchmark::State &state) {
    std::vector<UShort> units = MixedUnits();
    std::vector<char> out(3 * units.size() + 1);
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        int32_t length = 0;
        u_strToUTF8(out.data(), (int32_t)out.size(), &length, (const UChar *)units.data(),
                    (int32_t)units.size(), &error);
        if (U_FAILURE(error)) state.SkipWithError("u_strToUTF8 failed");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)MixedText().size());
}

int registered = [] {
    benchmark::RegisterBenchmark(qkbench::Name("utf8-to-ucs2", "qk").c_str(), QKToUCS2)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("utf8-to-ucs2", "icu").c_str(), ICUToUCS2)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("ucs2-to-utf8", "qk").c_str(), QKToUTF8)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(qkbench::Name("ucs2-to-utf8", "icu").c_str(), ICUToUTF8)
        ->Unit(benchmark::kMicrosecond);
    return 0;
}();

}  // namespace
