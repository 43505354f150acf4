#include "packages/Crc16.h"

#include <array>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define QUORVEL_CRC_CLMUL 1
#endif

namespace quorvel::packages {
namespace {

using Tables = std::array<std::array<std::uint16_t, 256>, 16>;

constexpr Tables MakeTables() {
    Tables t{};
    for (unsigned b = 0; b < 256; ++b) {
        std::uint16_t c = static_cast<std::uint16_t>(b);
        for (int i = 0; i < 8; ++i)
            c = (c & 1) ? static_cast<std::uint16_t>((c >> 1) ^ 0xA001) : static_cast<std::uint16_t>(c >> 1);
        t[0][b] = c;
    }
    for (int k = 1; k < 16; ++k)
        for (unsigned b = 0; b < 256; ++b)
            t[k][b] = static_cast<std::uint16_t>((t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF]);
    return t;
}

constexpr Tables kTables = MakeTables();

}  // namespace

std::uint16_t CalcCrc16Bytewise(std::uint16_t crc, const void* data, std::size_t length) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < length; ++i)
        crc = static_cast<std::uint16_t>((crc >> 8) ^ kTables[0][(crc ^ p[i]) & 0xFF]);
    return crc;
}

namespace {

std::uint16_t CalcCrc16Tables(std::uint16_t crc, const void* data, std::size_t length) {
    const auto* p = static_cast<const std::uint8_t*>(data);
    const auto& t = kTables;
    std::uint32_t c = crc;
    while (length >= 16) {
        std::uint64_t lo, hi;
        std::memcpy(&lo, p, 8);  // little-endian host (checked where the records are defined)
        std::memcpy(&hi, p + 8, 8);
        lo ^= c;
        c = t[15][lo & 0xFF] ^ t[14][(lo >> 8) & 0xFF] ^ t[13][(lo >> 16) & 0xFF] ^ t[12][(lo >> 24) & 0xFF] ^
            t[11][(lo >> 32) & 0xFF] ^ t[10][(lo >> 40) & 0xFF] ^ t[9][(lo >> 48) & 0xFF] ^ t[8][lo >> 56] ^
            t[7][hi & 0xFF] ^ t[6][(hi >> 8) & 0xFF] ^ t[5][(hi >> 16) & 0xFF] ^ t[4][(hi >> 24) & 0xFF] ^
            t[3][(hi >> 32) & 0xFF] ^ t[2][(hi >> 40) & 0xFF] ^ t[1][(hi >> 48) & 0xFF] ^ t[0][hi >> 56];
        p += 16;
        length -= 16;
    }
    return CalcCrc16Bytewise(static_cast<std::uint16_t>(c), p, length);
}

#ifdef QUORVEL_CRC_CLMUL
// Carry-less multiplication folding. A 16-byte block in memory order stands for a
// polynomial whose first bit (bit 0 of byte 0) has the highest degree; PCLMULQDQ on
// such reflected operands yields the product times x, so each folding constant is
// x^(d-1) mod P. Blocks are folded in four lanes; what is left at the end (one block
// and a tail under 16 bytes) goes through the tables, which finishes the CRC exactly.

// x^n mod P (P = x^16 + x^15 + x^2 + 1), reflected into the top 16 bits of a 64-bit word.
std::uint64_t FoldConstant(int n) {
    std::uint32_t r = 1;
    for (int i = 0; i < n; ++i) {
        r <<= 1;
        if (r & 0x10000) r ^= 0x18005;
    }
    std::uint64_t k = 0;
    for (int d = 0; d < 16; ++d)
        if (r & (1u << d)) k |= std::uint64_t{1} << (63 - d);
    return k;
}

struct FoldConstants {
    // Per fold distance D in bits: {x^(D+63), x^(D-1)} for the block's first and second half.
    __m128i by128, by256, by384, by512;
};

__attribute__((target("pclmul,sse2"))) FoldConstants MakeFoldConstants() {
    auto pair = [](int d) {
        return _mm_set_epi64x(static_cast<long long>(FoldConstant(d - 1)),
                              static_cast<long long>(FoldConstant(d + 63)));
    };
    return {pair(128), pair(256), pair(384), pair(512)};
}

__attribute__((target("pclmul,sse2"))) inline __m128i Fold(__m128i a, __m128i k) {
    return _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x00), _mm_clmulepi64_si128(a, k, 0x11));
}

__attribute__((target("pclmul,sse2"))) std::uint16_t CalcCrc16Clmul(std::uint16_t crc, const std::uint8_t* p,
                                                                    std::size_t length) {
    static const FoldConstants k = MakeFoldConstants();
    auto load = [](const std::uint8_t* q) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q)); };
    // A running CRC enters as an XOR into the first two message bytes.
    __m128i a0 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(crc));
    __m128i a1 = load(p + 16), a2 = load(p + 32), a3 = load(p + 48);
    p += 64;
    length -= 64;
    while (length >= 64) {
        a0 = _mm_xor_si128(Fold(a0, k.by512), load(p));
        a1 = _mm_xor_si128(Fold(a1, k.by512), load(p + 16));
        a2 = _mm_xor_si128(Fold(a2, k.by512), load(p + 32));
        a3 = _mm_xor_si128(Fold(a3, k.by512), load(p + 48));
        p += 64;
        length -= 64;
    }
    __m128i a =
        _mm_xor_si128(_mm_xor_si128(Fold(a0, k.by384), Fold(a1, k.by256)), _mm_xor_si128(Fold(a2, k.by128), a3));
    while (length >= 16) {
        a = _mm_xor_si128(Fold(a, k.by128), load(p));
        p += 16;
        length -= 16;
    }
    alignas(16) std::uint8_t last[32];
    _mm_store_si128(reinterpret_cast<__m128i*>(last), a);
    std::memcpy(last + 16, p, length);
    return CalcCrc16Tables(0, last, 16 + length);
}

// The same folding, four blocks per 512-bit register and four registers per step.
#define QUORVEL_AVX512 __attribute__((target("vpclmulqdq,avx512f,pclmul,sse2")))

struct WideConstants {
    __m128i tail[16];  // per block position j of the last 256 bytes: fold by 128 * (15 - j) bits
    __m512i by2048;
};

QUORVEL_AVX512 WideConstants MakeWideConstants() {
    WideConstants w{};
    auto pair = [](int d) {
        return _mm_set_epi64x(static_cast<long long>(FoldConstant(d - 1)),
                              static_cast<long long>(FoldConstant(d + 63)));
    };
    for (int j = 0; j < 15; ++j) w.tail[j] = pair(128 * (15 - j));
    const auto lo = static_cast<long long>(FoldConstant(2048 + 63)), hi = static_cast<long long>(FoldConstant(2047));
    w.by2048 = _mm512_set_epi64(hi, lo, hi, lo, hi, lo, hi, lo);
    return w;
}

QUORVEL_AVX512 inline __m512i WideFold(__m512i a, __m512i k) {
    return _mm512_xor_si512(_mm512_clmulepi64_epi128(a, k, 0x00), _mm512_clmulepi64_epi128(a, k, 0x11));
}

QUORVEL_AVX512 std::uint16_t CalcCrc16Vpclmul(std::uint16_t crc, const std::uint8_t* p, std::size_t length) {
    static const FoldConstants k = MakeFoldConstants();
    static const WideConstants w = MakeWideConstants();
    __m512i a0 = _mm512_xor_si512(_mm512_loadu_si512(p), _mm512_zextsi128_si512(_mm_cvtsi32_si128(crc)));
    __m512i a1 = _mm512_loadu_si512(p + 64), a2 = _mm512_loadu_si512(p + 128), a3 = _mm512_loadu_si512(p + 192);
    p += 256;
    length -= 256;
    while (length >= 256) {
        a0 = _mm512_xor_si512(WideFold(a0, w.by2048), _mm512_loadu_si512(p));
        a1 = _mm512_xor_si512(WideFold(a1, w.by2048), _mm512_loadu_si512(p + 64));
        a2 = _mm512_xor_si512(WideFold(a2, w.by2048), _mm512_loadu_si512(p + 128));
        a3 = _mm512_xor_si512(WideFold(a3, w.by2048), _mm512_loadu_si512(p + 192));
        p += 256;
        length -= 256;
    }
    alignas(64) __m128i blocks[16];
    _mm512_store_si512(blocks, a0);
    _mm512_store_si512(blocks + 4, a1);
    _mm512_store_si512(blocks + 8, a2);
    _mm512_store_si512(blocks + 12, a3);
    __m128i a = blocks[15];
    for (int j = 0; j < 15; ++j) a = _mm_xor_si128(a, Fold(blocks[j], w.tail[j]));
    while (length >= 16) {
        a = _mm_xor_si128(Fold(a, k.by128), _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        p += 16;
        length -= 16;
    }
    alignas(16) std::uint8_t last[32];
    _mm_store_si128(reinterpret_cast<__m128i*>(last), a);
    std::memcpy(last + 16, p, length);
    return CalcCrc16Tables(0, last, 16 + length);
}

bool HaveVpclmul() {
    static const bool have = __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx512f");
    return have;
}

bool HaveClmul() {
    static const bool have = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse2");
    return have;
}
#endif

}  // namespace

std::uint16_t CalcCrc16(std::uint16_t crc, const void* data, std::size_t length) {
#ifdef QUORVEL_CRC_CLMUL
    if (length >= 1024 && HaveVpclmul()) return CalcCrc16Vpclmul(crc, static_cast<const std::uint8_t*>(data), length);
    if (length >= 256 && HaveClmul()) return CalcCrc16Clmul(crc, static_cast<const std::uint8_t*>(data), length);
#endif
    return CalcCrc16Tables(crc, data, length);
}

}  // namespace quorvel::packages
