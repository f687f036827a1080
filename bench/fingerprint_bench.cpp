// Fingerprint throughput against zlib's crc32 and xxHash's XXH64 on buffers
// of 64 bytes, 4 KiB and 1 MiB.
#include <xxhash.h>
#include <zlib.h>

#include <random>
#include <string>
#include <vector>

#include "compare.h"
#include "qk/fingerprint.h"

namespace {

const std::vector<UByte> &Input() {
    static const std::vector<UByte> bytes = [] {
        std::vector<UByte> v((1u << 20) + 64);
        std::mt19937 random(11);
        for (UByte &b : v) b = (UByte)random();
        return v;
    }();
    return bytes;
}

template <typename Hash>
void Run(benchmark::State &state, size_t size, Hash hash) {
    const UByte *data = Input().data() + 1;  // not aligned to 8
    for (auto _ : state) benchmark::DoNotOptimize(hash(data, size));
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)size);
}

void Register(const char *label, size_t size) {
    std::string group = std::string("fingerprint/") + label;
    benchmark::RegisterBenchmark(qkbench::Name(group, "qk").c_str(), [size](benchmark::State &s) {
        Run(s, size, [](const UByte *p, size_t n) { return Fingerprint(p, (UInt)n); });
    });
    benchmark::RegisterBenchmark(
        qkbench::Name(group, "crc32").c_str(), [size](benchmark::State &s) {
            Run(s, size, [](const UByte *p, size_t n) { return crc32(0, p, (uInt)n); });
        });
    benchmark::RegisterBenchmark(
        qkbench::Name(group, "xxh64").c_str(), [size](benchmark::State &s) {
            Run(s, size, [](const UByte *p, size_t n) { return XXH64(p, n, 0); });
        });
}

int registered = [] {
    Input();
    Register("64B", 64);
    Register("4KiB", 4096);
    Register("1MiB", 1u << 20);
    return 0;
}();

}  // namespace
