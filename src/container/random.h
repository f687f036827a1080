// The library's own small random source, the same on every system, so that
// structures built from it (the random table of a HashDict) come out byte
// for byte the same wherever they are built.
//
// A linear congruential generator: s = s * 214013 + 2531011 modulo 2^32;
// each draw is bits 16 to 30 of the new state, a number from 0 to 32767.
#pragma once

#include "qk/types.h"

namespace qk {

class Random15 {
  public:
    explicit Random15(UInt seed = 0) : state_(seed) {}

    // The next number, 0 to 32767.
    UInt Next() {
        state_ = state_ * 214013u + 2531011u;
        return (state_ >> 16) & 0x7FFF;
    }

    // Two draws as one 30-bit number: the first draw gives the high 15 bits.
    UInt Next30() {
        UInt high = Next();
        return high << 15 | Next();
    }

    UInt State() const { return state_; }

  private:
    UInt state_;
};

}  // namespace qk
