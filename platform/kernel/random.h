// A small reproducible generator (SplitMix64, Steele, Lea and Flood 2014).
#pragma once

#include <cstdint>

namespace kernel {

class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return z ^ (z >> 31);
    }

    // 0 to `count` - 1; the bias of a multiplication instead of a division is below 2^-32.
    unsigned below(unsigned count) { return static_cast<unsigned>(((next() >> 32) * count) >> 32); }

  private:
    std::uint64_t state_;
};

} // namespace kernel
