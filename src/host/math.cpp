#include "host/math.h"

#include <algorithm>

namespace mq {

bool Matrix3::IsIdentity() const { return *this == Matrix3(); }

void Matrix3::NoScale() {
    for (int i = 0; i < 3; ++i) rows_[i] = Normalize(rows_[i]);
}

void Matrix3::Orthogonalize() {
    const float len0 = Length(rows_[0]), len1 = Length(rows_[1]), len2 = Length(rows_[2]);
    const bool leftHanded = Determinant() < 0.0f;
    const Point3 u0 = Normalize(rows_[0]);
    Point3 u1 = Normalize(rows_[1] - u0 * DotProd(rows_[1], u0));
    if (LengthSquared(u1) == 0.0f) {
        // Row 1 was parallel to row 0 (or zero): pick any perpendicular.
        const Point3 helper = std::fabs(u0.x) < 0.9f ? Point3(1, 0, 0) : Point3(0, 1, 0);
        u1 = Normalize(CrossProd(u0, helper));
    }
    Point3 u2 = CrossProd(u0, u1);
    if (leftHanded) u2 = -u2;
    rows_[0] = u0 * len0;
    rows_[1] = u1 * len1;
    rows_[2] = u2 * len2;
}

float Matrix3::Determinant() const { return DotProd(CrossProd(rows_[0], rows_[1]), rows_[2]); }

bool Matrix3::Invert() {
    const Point3& a = rows_[0];
    const Point3& b = rows_[1];
    const Point3& c = rows_[2];
    const float det = Determinant();
    if (det == 0.0f || !std::isfinite(det)) {
        IdentityMatrix();
        return false;
    }
    // Inverse of the 3x3 part from cofactors (columns of the inverse are the
    // cross products of pairs of rows).
    const Point3 bc = CrossProd(b, c), ca = CrossProd(c, a), ab = CrossProd(a, b);
    const float inv = 1.0f / det;
    Matrix3 r(Point3(bc.x, ca.x, ab.x) * inv, Point3(bc.y, ca.y, ab.y) * inv,
              Point3(bc.z, ca.z, ab.z) * inv, Point3());
    r.rows_[3] = -r.VectorTransform(rows_[3]);
    *this = r;
    return true;
}

Matrix3 Matrix3::operator*(const Matrix3& b) const {
    return Matrix3(b.VectorTransform(rows_[0]), b.VectorTransform(rows_[1]),
                   b.VectorTransform(rows_[2]), b.PointTransform(rows_[3]));
}

Matrix3 Inverse(const Matrix3& m) {
    Matrix3 r = m;
    r.Invert();
    return r;
}

Matrix3 TransMatrix(const Point3& t) {
    Matrix3 m;
    m.SetTrans(t);
    return m;
}

Matrix3 ScaleMatrix(const Point3& s) {
    return Matrix3(Point3(s.x, 0, 0), Point3(0, s.y, 0), Point3(0, 0, s.z), Point3());
}

Matrix3 RotateXMatrix(float angle) {
    const float c = std::cos(angle), s = std::sin(angle);
    return Matrix3(Point3(1, 0, 0), Point3(0, c, s), Point3(0, -s, c), Point3());
}

Matrix3 RotateYMatrix(float angle) {
    const float c = std::cos(angle), s = std::sin(angle);
    return Matrix3(Point3(c, 0, -s), Point3(0, 1, 0), Point3(s, 0, c), Point3());
}

Matrix3 RotateZMatrix(float angle) {
    const float c = std::cos(angle), s = std::sin(angle);
    return Matrix3(Point3(c, s, 0), Point3(-s, c, 0), Point3(0, 0, 1), Point3());
}

Matrix3 Transpose3(const Matrix3& m) {
    const Point3 &a = m[0], &b = m[1], &c = m[2];
    return Matrix3(Point3(a.x, b.x, c.x), Point3(a.y, b.y, c.y), Point3(a.z, b.z, c.z), m[3]);
}

Box3& Box3::operator+=(const Point3& p) {
    pmin = {std::min(pmin.x, p.x), std::min(pmin.y, p.y), std::min(pmin.z, p.z)};
    pmax = {std::max(pmax.x, p.x), std::max(pmax.y, p.y), std::max(pmax.z, p.z)};
    return *this;
}

Box3& Box3::operator+=(const Box3& b) {
    if (b.IsEmpty()) return *this;
    *this += b.pmin;
    return *this += b.pmax;
}

Interval& Interval::operator&=(const Interval& b) {
    start_ = std::max(start_, b.start_);
    end_ = std::min(end_, b.end_);
    if (start_ > end_) SetEmpty();
    return *this;
}

}  // namespace mq
