#include "engines/sprd/Sha256.h"

#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace quorvel::sprd {
namespace {

constexpr std::uint32_t kK[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline std::uint32_t Rotr(std::uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

#if defined(__x86_64__)
// The processor's SHA extensions: several times the portable speed, which is what lets one
// PC simulate sixteen phones receiving at full rate.
bool HasShaExtensions() {
    static const bool has = [] {
        unsigned a, b, c, d;
        if (!__get_cpuid(1, &a, &b, &c, &d) || !(c & bit_SSSE3) || !(c & bit_SSE4_1)) return false;
        return __get_cpuid_count(7, 0, &a, &b, &c, &d) && (b & bit_SHA);
    }();
    return has;
}

__attribute__((target("sha,sse4.1,ssse3"))) void BlocksWithExtensions(std::uint32_t* h, const std::uint8_t* p,
                                                                      std::size_t blocks) {
    const __m128i mask = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
    __m128i tmp = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h)), 0xB1);         // CDAB
    __m128i state1 = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(h + 4)), 0x1B);  // EFGH
    __m128i state0 = _mm_alignr_epi8(tmp, state1, 8);                                                    // ABEF
    state1 = _mm_blend_epi16(state1, tmp, 0xF0);                                                         // CDGH
    for (; blocks > 0; --blocks, p += 64) {
        const __m128i abef = state0, cdgh = state1;
        __m128i m[4];
        for (std::size_t i = 0; i < 16; ++i) {
            if (i < 4) {
                m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i)), mask);
            } else {
                // Words 4i..4i+3 from the four groups before them (ring: m[i % 4] holds group i - 4).
                const __m128i w7 = _mm_alignr_epi8(m[(i + 3) % 4], m[(i + 2) % 4], 4);
                m[i % 4] = _mm_sha256msg2_epu32(_mm_add_epi32(_mm_sha256msg1_epu32(m[i % 4], m[(i + 1) % 4]), w7),
                                                m[(i + 3) % 4]);
            }
            __m128i msg = _mm_add_epi32(m[i % 4], _mm_loadu_si128(reinterpret_cast<const __m128i*>(kK + 4 * i)));
            state1 = _mm_sha256rnds2_epu32(state1, state0, msg);
            msg = _mm_shuffle_epi32(msg, 0x0E);
            state0 = _mm_sha256rnds2_epu32(state0, state1, msg);
        }
        state0 = _mm_add_epi32(state0, abef);
        state1 = _mm_add_epi32(state1, cdgh);
    }
    tmp = _mm_shuffle_epi32(state0, 0x1B);        // FEBA
    state1 = _mm_shuffle_epi32(state1, 0xB1);     // DCHG
    state0 = _mm_blend_epi16(tmp, state1, 0xF0);  // DCBA
    state1 = _mm_alignr_epi8(state1, tmp, 8);     // HGFE
    _mm_storeu_si128(reinterpret_cast<__m128i*>(h), state0);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(h + 4), state1);
}
#endif

}  // namespace

void Sha256::Reset() {
    h_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    used_ = 0;
    total_ = 0;
}

void Sha256::Block(const std::uint8_t* p) {
    std::uint32_t w[64];
    for (std::size_t i = 0; i < 16; ++i)
        w[i] = (std::uint32_t{p[4 * i]} << 24) | (std::uint32_t{p[4 * i + 1]} << 16) |
               (std::uint32_t{p[4 * i + 2]} << 8) | p[4 * i + 3];
    for (int i = 16; i < 64; ++i) {
        const std::uint32_t s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
        const std::uint32_t s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    std::uint32_t a = h_[0], b = h_[1], c = h_[2], d = h_[3], e = h_[4], f = h_[5], g = h_[6], h = h_[7];
    for (int i = 0; i < 64; ++i) {
        const std::uint32_t t1 = h + (Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25)) + ((e & f) ^ (~e & g)) + kK[i] + w[i];
        const std::uint32_t t2 = (Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    h_[0] += a;
    h_[1] += b;
    h_[2] += c;
    h_[3] += d;
    h_[4] += e;
    h_[5] += f;
    h_[6] += g;
    h_[7] += h;
}

void Sha256::Update(std::span<const std::uint8_t> data) {
    if (data.empty()) return;  // its pointer may be null, which memcpy must never see
    total_ += data.size();
    std::size_t i = 0;
    if (used_ > 0) {
        const std::size_t take = std::min(data.size(), 64 - used_);
        std::memcpy(buf_.data() + used_, data.data(), take);
        used_ += take;
        i = take;
        if (used_ < 64) return;
        Block(buf_.data());
        used_ = 0;
    }
#if defined(__x86_64__)
    if (HasShaExtensions() && data.size() - i >= 64) {
        const std::size_t blocks = (data.size() - i) / 64;
        BlocksWithExtensions(h_.data(), data.data() + i, blocks);
        i += blocks * 64;
    }
#endif
    for (; i + 64 <= data.size(); i += 64) Block(data.data() + i);
    std::memcpy(buf_.data(), data.data() + i, data.size() - i);
    used_ = data.size() - i;
}

std::array<std::uint8_t, 32> Sha256::Digest() const {
    Sha256 s = *this;
    const std::uint64_t bits = total_ * 8;
    std::uint8_t pad[72] = {0x80};
    const std::size_t padLen = (used_ < 56 ? 56 : 120) - used_;
    for (int i = 0; i < 8; ++i) pad[padLen + i] = static_cast<std::uint8_t>(bits >> (56 - 8 * i));
    s.Update({pad, padLen + 8});
    std::array<std::uint8_t, 32> out{};
    for (int i = 0; i < 8; ++i)
        for (int j = 0; j < 4; ++j) out[4 * i + j] = static_cast<std::uint8_t>(s.h_[i] >> (24 - 8 * j));
    return out;
}

std::string Sha256::Hex() const {
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (std::uint8_t b : Digest()) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 15]);
    }
    return out;
}

std::string Sha256::HexOf(std::span<const std::uint8_t> data) {
    Sha256 s;
    s.Update(data);
    return s.Hex();
}

}  // namespace quorvel::sprd
