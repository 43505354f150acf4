#include "packages/ChunkBuffer.h"

#include <sys/mman.h>

#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define QUORVEL_HEAP_BUFFER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QUORVEL_HEAP_BUFFER 1
#endif
#endif

namespace quorvel::packages {

ChunkBuffer::~ChunkBuffer() {
    Release();
}

#ifdef QUORVEL_HEAP_BUFFER
// AddressSanitizer guards heap blocks but not raw mappings: its builds must catch overruns.
bool ChunkBuffer::Allocate(std::size_t size) {
    Release();
    data_ = new (std::nothrow) std::uint8_t[size == 0 ? 1 : size];
    return data_ != nullptr;
}

void ChunkBuffer::Release() {
    delete[] data_;
    data_ = nullptr;
}
#else
namespace {
constexpr std::size_t kHugePage = 2u << 20;
}

bool ChunkBuffer::Allocate(std::size_t size) {
    Release();
    if (size == 0) return true;
    // Rounded up to whole huge pages so the tail is not left on small ones.
    const std::size_t length = (size + kHugePage - 1) / kHugePage * kHugePage;
    void* p = ::mmap(nullptr, length + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return false;
    // Trim to a huge-page-aligned start; the unused ends go back at once.
    auto* const raw = static_cast<std::uint8_t*>(p);
    const std::size_t misalignment = reinterpret_cast<std::uintptr_t>(p) & (kHugePage - 1);
    const std::size_t head = misalignment == 0 ? 0 : kHugePage - misalignment;
    std::uint8_t* const start = raw + head;
    if (head > 0) ::munmap(raw, head);
    ::munmap(start + length, kHugePage - head);
#ifdef MADV_HUGEPAGE
    ::madvise(start, length, MADV_HUGEPAGE);
#endif
    data_ = start;
    mapped_ = length;
    return true;
}

void ChunkBuffer::Release() {
    if (data_) ::munmap(data_, mapped_);
    data_ = nullptr;
    mapped_ = 0;
}
#endif

}  // namespace quorvel::packages
