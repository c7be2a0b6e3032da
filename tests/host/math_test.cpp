#include "host/math.h"

#include "support/test_util.h"

namespace mq {
namespace {

using test::expectNear;

Matrix3 someAffine() {
    return RotateZMatrix(0.3f) * RotateXMatrix(-1.1f) * ScaleMatrix({2, 0.5f, 3}) *
           TransMatrix({4, -5, 6});
}

TEST(Matrix3, RowVectorsChainLeftToRight) {
    const Point3 p(1, 2, 3);
    const Matrix3 a = TransMatrix({10, 0, 0}), b = ScaleMatrix({2, 2, 2});
    // Translate first, then scale.
    expectNear(p * (a * b), Point3(22, 4, 6));
    expectNear((p * a) * b, p * (a * b));
}

TEST(Matrix3, InverseRoundTrip) {
    const Matrix3 m = someAffine();
    const Matrix3 inv = Inverse(m);
    for (const Point3& p : {Point3(0, 0, 0), Point3(1, -2, 3), Point3(100, 50, -7)}) {
        expectNear(p * m * inv, p, 1e-4f);
    }
    EXPECT_TRUE(Matrix3().IsIdentity());
}

TEST(Matrix3, SingularInvertBecomesIdentity) {
    Matrix3 m = ScaleMatrix({1, 0, 1});
    EXPECT_FALSE(m.Invert());
    EXPECT_TRUE(m.IsIdentity());
}

TEST(Matrix3, OrthogonalizeNoScaleNoTransLeavesPureRotation) {
    Matrix3 m = someAffine();
    m[1] += m[0] * 0.2f; // shear
    const bool mirrored = m.Determinant() < 0;
    m.Orthogonalize();
    m.NoScale();
    m.NoTrans();
    EXPECT_NEAR(DotProd(m[0], m[1]), 0, 1e-5f);
    EXPECT_NEAR(DotProd(m[1], m[2]), 0, 1e-5f);
    EXPECT_NEAR(DotProd(m[0], m[2]), 0, 1e-5f);
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(Length(m[i]), 1, 1e-5f);
    EXPECT_EQ(m.Determinant() < 0, mirrored);
    EXPECT_EQ(m.GetTrans(), Point3());
    // Row 0 keeps its direction.
    expectNear(m[0], Normalize(someAffine()[0]));
}

TEST(Matrix3, OrthogonalizeKeepsMirroring) {
    Matrix3 m = ScaleMatrix({1, 1, -1});
    m.Orthogonalize();
    EXPECT_LT(m.Determinant(), 0);
}

TEST(RandGenerator, FixedSequence) {
    // The first draws of the generator for seed 0 and seed 42 are fixed on
    // every platform; saved scenes depend on them.
    RandGenerator r(0);
    EXPECT_EQ(r.rand(), 38);
    EXPECT_EQ(r.rand(), 7719);
    EXPECT_EQ(r.rand(), 21238);
    RandGenerator s;
    s.srand(42);
    const int first = s.rand();
    EXPECT_EQ(first, static_cast<int>(((42u * 214013u + 2531011u) >> 16) & 0x7fff));
    RandGenerator t(1);
    for (int i = 0; i < 1000; ++i) {
        const float u = t.Rand01();
        ASSERT_GE(u, 0.0f);
        ASSERT_LT(u, 1.0f);
        const int k = t.Rand0X(6);
        ASSERT_GE(k, 0);
        ASSERT_LE(k, 6);
    }
}

} // namespace
} // namespace mq
