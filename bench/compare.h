// Benchmarks are registered in pairs or more: the same group name, one
// implementation per entry. A name is "group|implementation"; the
// implementation "qk" is ours, the others are peers. After the run, the
// comparison table prints each peer's time divided by ours (above 1: we
// are faster).
#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace qkbench {

inline std::string Name(const std::string &group, const std::string &implementation) {
    return group + "|" + implementation;
}

}  // namespace qkbench
