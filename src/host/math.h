// Host math: points, row-vector matrices, boxes, time intervals.
//
// The host layer keeps the method names of the host SDK it stands in for
// (GetRow, Invert, NoScale, ...), so code written against that SDK reads the
// same here. Everything is single precision.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace mq {

// Time in ticks. 160 ticks make one frame at 30 frames per second.
using TimeValue = int32_t;
inline constexpr TimeValue kTicksPerFrame = 160;
inline constexpr TimeValue TIME_NegInfinity = std::numeric_limits<TimeValue>::min();
inline constexpr TimeValue TIME_PosInfinity = std::numeric_limits<TimeValue>::max();

struct Point3 {
    float x = 0.0f, y = 0.0f, z = 0.0f;

    constexpr Point3() = default;
    constexpr Point3(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}

    float& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
    float operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }

    Point3 operator-() const { return {-x, -y, -z}; }
    Point3 operator+(const Point3& b) const { return {x + b.x, y + b.y, z + b.z}; }
    Point3 operator-(const Point3& b) const { return {x - b.x, y - b.y, z - b.z}; }
    // Component-wise product.
    Point3 operator*(const Point3& b) const { return {x * b.x, y * b.y, z * b.z}; }
    Point3 operator*(float s) const { return {x * s, y * s, z * s}; }
    Point3 operator/(float s) const { return {x / s, y / s, z / s}; }
    Point3& operator+=(const Point3& b) {
        x += b.x;
        y += b.y;
        z += b.z;
        return *this;
    }
    Point3& operator-=(const Point3& b) {
        x -= b.x;
        y -= b.y;
        z -= b.z;
        return *this;
    }
    Point3& operator*=(float s) {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }
    Point3& operator/=(float s) {
        x /= s;
        y /= s;
        z /= s;
        return *this;
    }
    bool operator==(const Point3& b) const = default;
};

inline Point3 operator*(float s, const Point3& p) { return p * s; }
inline float DotProd(const Point3& a, const Point3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Point3 CrossProd(const Point3& a, const Point3& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float LengthSquared(const Point3& p) { return DotProd(p, p); }
inline float Length(const Point3& p) { return std::sqrt(LengthSquared(p)); }
// Unit vector along p; the zero vector stays zero.
inline Point3 Normalize(const Point3& p) {
    const float len = Length(p);
    return len > 0.0f ? p / len : p;
}
inline bool isFinite(const Point3& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

// A 4x3 affine matrix applied to row vectors: p' = p * M, so transforms chain
// left to right (p * objectToWorld * worldToTile). Rows 0..2 are the images of
// the x, y and z axes, row 3 is the translation.
class Matrix3 {
public:
    // Identity.
    Matrix3() { IdentityMatrix(); }
    Matrix3(const Point3& r0, const Point3& r1, const Point3& r2, const Point3& r3)
        : rows_{r0, r1, r2, r3} {}

    void IdentityMatrix() {
        rows_[0] = {1, 0, 0};
        rows_[1] = {0, 1, 0};
        rows_[2] = {0, 0, 1};
        rows_[3] = {0, 0, 0};
    }
    bool IsIdentity() const;

    const Point3& GetRow(int i) const { return rows_[i]; }
    void SetRow(int i, const Point3& p) { rows_[i] = p; }
    Point3& operator[](int i) { return rows_[i]; }
    const Point3& operator[](int i) const { return rows_[i]; }
    const Point3& GetTrans() const { return rows_[3]; }
    void SetTrans(const Point3& p) { rows_[3] = p; }

    // Zero the translation row.
    void NoTrans() { rows_[3] = {0, 0, 0}; }
    // Scale the three axis rows to unit length (zero rows stay zero).
    void NoScale();
    // Make the axis rows perpendicular (Gram-Schmidt from row 0), keeping
    // each row's length and the matrix's handedness.
    void Orthogonalize();
    // Replace by the inverse; a singular matrix becomes the identity. Returns
    // false in that case.
    bool Invert();
    // Determinant of the 3x3 part.
    float Determinant() const;

    Point3 PointTransform(const Point3& p) const {
        return rows_[0] * p.x + rows_[1] * p.y + rows_[2] * p.z + rows_[3];
    }
    Point3 VectorTransform(const Point3& v) const {
        return rows_[0] * v.x + rows_[1] * v.y + rows_[2] * v.z;
    }

    Matrix3 operator*(const Matrix3& b) const;
    Matrix3& operator*=(const Matrix3& b) { return *this = *this * b; }
    bool operator==(const Matrix3& b) const = default;

private:
    Point3 rows_[4];
};

inline Point3 operator*(const Point3& p, const Matrix3& m) { return m.PointTransform(p); }
inline Point3 VectorTransform(const Matrix3& m, const Point3& v) { return m.VectorTransform(v); }
Matrix3 Inverse(const Matrix3& m);
Matrix3 TransMatrix(const Point3& t);
Matrix3 ScaleMatrix(const Point3& s);
// Rotations by an angle in radians about a coordinate axis, right-handed.
Matrix3 RotateXMatrix(float angle);
Matrix3 RotateYMatrix(float angle);
Matrix3 RotateZMatrix(float angle);
// Transpose of the 3x3 part; the translation row is kept.
Matrix3 Transpose3(const Matrix3& m);

// Axis-aligned box. A new box is empty (min above max) and grows with +=.
struct Box3 {
    Point3 pmin{1e30f, 1e30f, 1e30f};
    Point3 pmax{-1e30f, -1e30f, -1e30f};

    Box3() = default;
    Box3(const Point3& lo, const Point3& hi) : pmin(lo), pmax(hi) {}

    void Init() { *this = Box3(); }
    bool IsEmpty() const { return pmin.x > pmax.x || pmin.y > pmax.y || pmin.z > pmax.z; }
    Box3& operator+=(const Point3& p);
    Box3& operator+=(const Box3& b);
    Point3 Center() const { return (pmin + pmax) * 0.5f; }
    Point3 Width() const { return pmax - pmin; }
    bool Contains(const Point3& p) const {
        return p.x >= pmin.x && p.x <= pmax.x && p.y >= pmin.y && p.y <= pmax.y && p.z >= pmin.z &&
               p.z <= pmax.z;
    }
};

// A closed range of times over which a value holds.
class Interval {
public:
    Interval() : start_(TIME_NegInfinity), end_(TIME_PosInfinity) {}
    Interval(TimeValue s, TimeValue e) : start_(s), end_(e) {}

    TimeValue Start() const { return start_; }
    TimeValue End() const { return end_; }
    void Set(TimeValue s, TimeValue e) {
        start_ = s;
        end_ = e;
    }
    void SetInstant(TimeValue t) { start_ = end_ = t; }
    void SetInfinite() { *this = Interval(); }
    void SetEmpty() {
        start_ = TIME_NegInfinity;
        end_ = TIME_NegInfinity;
    }
    bool Empty() const { return start_ == TIME_NegInfinity && end_ == TIME_NegInfinity; }
    bool InInterval(TimeValue t) const { return t >= start_ && t <= end_; }
    // Shrink to the overlap with b.
    Interval& operator&=(const Interval& b);
    bool operator==(const Interval& b) const = default;

private:
    TimeValue start_, end_;
};

inline const Interval FOREVER{TIME_NegInfinity, TIME_PosInfinity};
inline const Interval NEVER{TIME_NegInfinity, TIME_NegInfinity};

// The host's pseudo-random generator, fixed so that every platform draws
// the same numbers: a 32-bit linear congruential generator.
class RandGenerator {
public:
    static constexpr int RAND_MAX_VALUE = 0x7fff;

    explicit RandGenerator(uint32_t seed = 0) : state_(seed) {}
    void srand(uint32_t seed) { state_ = seed; }
    int rand() {
        state_ = state_ * 214013u + 2531011u;
        return static_cast<int>((state_ >> 16) & 0x7fffu);
    }
    // In [0, 1).
    float Rand01() { return static_cast<float>(rand()) / 32768.0f; }
    // In [0, n] for n >= 0.
    int Rand0X(int n) { return rand() % (n + 1); }

private:
    uint32_t state_;
};

}  // namespace mq
