#pragma once
// The extraction's one buffer. Anonymous memory asked to be backed by huge pages before
// it is first touched: the kernel's copies into and out of it then walk a handful of
// TLB entries instead of thousands of small pages. Falls back to ordinary pages.
// Owned and used by one thread at a time.

#include <cstddef>
#include <cstdint>

namespace quorvel::packages {

class ChunkBuffer {
public:
    ChunkBuffer() = default;
    ~ChunkBuffer();
    ChunkBuffer(const ChunkBuffer&) = delete;
    ChunkBuffer& operator=(const ChunkBuffer&) = delete;

    // False when the memory cannot be had; the previous memory is released either way.
    bool Allocate(std::size_t size);
    void Release();

    std::uint8_t* data() { return data_; }
    std::uint8_t& operator[](std::size_t i) { return data_[i]; }

private:
    std::uint8_t* data_ = nullptr;
    [[maybe_unused]] std::size_t mapped_ = 0;  // the mapping; the sanitizer builds use the heap
};

}  // namespace quorvel::packages
