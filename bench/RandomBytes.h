#pragma once
// Repeatable pseudo-random bytes for benchmarks (xorshift32): the same input every run.

#include <cstddef>
#include <cstdint>
#include <vector>

inline std::vector<std::uint8_t> RandomBytes(std::size_t size) {
    std::vector<std::uint8_t> data(size);
    std::uint32_t x = 2463534242u;
    for (auto& b : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<std::uint8_t>(x);
    }
    return data;
}
