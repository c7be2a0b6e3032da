// Random numbers and direction sampling for the path tracer (internal).
// Sample sequences are seeded from a hash of (pixel, sample, frame, seed) so
// that no sample depends on which thread or tile draws it.
#pragma once

#include "host/math.h"

#include <cmath>
#include <cstdint>

namespace mq::tracer {

inline constexpr float kPi = 3.14159265358979323846f;
inline constexpr float kInvPi = 1.0f / kPi;

// splitmix64 finaliser: a good 64-bit mix for hashing small integers.
inline uint64_t mix64(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

inline uint64_t sampleHash(uint32_t x, uint32_t y, uint32_t sample, uint32_t frame, uint32_t seed) {
    uint64_t h = mix64((uint64_t(x) << 32) | y);
    h = mix64(h ^ ((uint64_t(sample) << 32) | frame));
    return mix64(h ^ (uint64_t(seed) * 0x9e3779b97f4a7c15ull));
}

// PCG32 (O'Neill, "PCG: A Family of Simple Fast Space-Efficient Statistically
// Good Algorithms for Random Number Generation", 2014).
class Rng {
public:
    explicit Rng(uint64_t seed) {
        state_ = 0;
        inc_ = (seed << 1) | 1u;
        next();
        state_ += mix64(seed);
        next();
    }
    uint32_t next() {
        const uint64_t old = state_;
        state_ = old * 6364136223846793005ull + inc_;
        const uint32_t xorshifted = uint32_t(((old >> 18u) ^ old) >> 27u);
        const uint32_t rot = uint32_t(old >> 59u);
        return (xorshifted >> rot) | (xorshifted << ((32 - rot) & 31));
    }
    // In [0, 1).
    float uniform() { return float(next() >> 8) * 0x1p-24f; }

private:
    uint64_t state_, inc_;
};

// An orthonormal frame around unit n (Duff et al., "Building an Orthonormal
// Basis, Revisited", JCGT 2017).
struct Frame {
    Point3 s, t, n;
    explicit Frame(const Point3& nIn) : n(nIn) {
        const float sign = std::copysign(1.0f, n.z);
        const float a = -1.0f / (sign + n.z);
        const float b = n.x * n.y * a;
        s = {1.0f + sign * n.x * n.x * a, sign * b, -sign * n.x};
        t = {b, sign + n.y * n.y * a, -n.y};
    }
    Point3 toWorld(const Point3& v) const { return s * v.x + t * v.y + n * v.z; }
    Point3 toLocal(const Point3& v) const { return {DotProd(v, s), DotProd(v, t), DotProd(v, n)}; }
};

inline Point3 sampleCosineHemisphere(float u1, float u2) {
    const float r = std::sqrt(u1);
    const float phi = 2.0f * kPi * u2;
    return {r * std::cos(phi), r * std::sin(phi), std::sqrt(std::fmax(0.0f, 1.0f - u1))};
}

inline Point3 sampleUniformSphere(float u1, float u2) {
    const float z = 1.0f - 2.0f * u1;
    const float r = std::sqrt(std::fmax(0.0f, 1.0f - z * z));
    const float phi = 2.0f * kPi * u2;
    return {r * std::cos(phi), r * std::sin(phi), z};
}

// Uniform direction in the cone of half-angle acos(cosMax) around +z.
inline Point3 sampleUniformCone(float u1, float u2, float cosMax) {
    const float cosT = 1.0f - u1 * (1.0f - cosMax);
    const float sinT = std::sqrt(std::fmax(0.0f, 1.0f - cosT * cosT));
    const float phi = 2.0f * kPi * u2;
    return {sinT * std::cos(phi), sinT * std::sin(phi), cosT};
}

inline float powerHeuristic(float pdfA, float pdfB) {
    const float a = pdfA * pdfA, b = pdfB * pdfB;
    return a + b > 0.0f ? a / (a + b) : 0.0f;
}

}  // namespace mq::tracer
