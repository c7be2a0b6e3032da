#include "host/math.h"
#include "host/suggest.h"

#include "support/test_util.h"

namespace mq {
namespace {

using test::expectNear;

Matrix3 someAffine() {
    return RotateZMatrix(0.3f) * RotateXMatrix(-1.1f) * ScaleMatrix({2, 0.5f, 3}) *
           TransMatrix({4, -5, 6});
}

TEST(Matrix3, RowVectorsChainLeftToRightAndInvert) {
    // Translate first, then scale.
    expectNear(Point3(1, 2, 3) * (TransMatrix({10, 0, 0}) * ScaleMatrix({2, 2, 2})),
               Point3(22, 4, 6));
    const Matrix3 m = someAffine(), inv = Inverse(m);
    for (const Point3& p : {Point3(0, 0, 0), Point3(1, -2, 3), Point3(100, 50, -7)})
        expectNear(p * m * inv, p, 1e-4f);
    Matrix3 singular = ScaleMatrix({1, 0, 1});
    EXPECT_FALSE(singular.Invert());
    EXPECT_TRUE(singular.IsIdentity());
}

TEST(Matrix3, OrthogonalizeNoScaleNoTransLeavesRotationKeepingMirroring) {
    Matrix3 sheared = someAffine();
    sheared[1] += sheared[0] * 0.2f;
    for (Matrix3 m : {sheared, ScaleMatrix({1, 1, -1})}) {
        const Matrix3 before = m;
        m.Orthogonalize();
        m.NoScale();
        m.NoTrans();
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(DotProd(m[i], m[(i + 1) % 3]), 0, 1e-5f);
            EXPECT_NEAR(Length(m[i]), 1, 1e-5f);
        }
        EXPECT_EQ(m.Determinant() < 0, before.Determinant() < 0);
        EXPECT_EQ(m.GetTrans(), Point3());
        expectNear(m[0], Normalize(before[0]));  // row 0 keeps its direction
    }
}

TEST(RandGenerator, FixedSequenceAndRanges) {
    // Saved scenes depend on these draws on every platform.
    RandGenerator r(0);
    EXPECT_EQ(r.rand(), 38);
    EXPECT_EQ(r.rand(), 7719);
    EXPECT_EQ(r.rand(), 21238);
    RandGenerator t(1);
    for (int i = 0; i < 1000; ++i) {
        const float u = t.Rand01();
        ASSERT_TRUE(u >= 0.0f && u < 1.0f) << u;
        const int k = t.Rand0X(6);
        ASSERT_TRUE(k >= 0 && k <= 6) << k;
    }
}

}  // namespace
}  // namespace mq

namespace mq {
namespace {

TEST(Suggest, NearestNameIgnoresCaseCountsSwapsAndRefusesFarGuesses) {
    EXPECT_EQ(editDistance("Heigth", "Height"), 1u);
    EXPECT_EQ(editDistance("HEIGHT", "height"), 0u);
    EXPECT_EQ(editDistance("", "abc"), 3u);
    const std::vector<std::string> keys = {"Height", "Pattern_File", "Random_Segment_Count"};
    EXPECT_EQ(closestName("pattern_fiel", keys), "Pattern_File");
    EXPECT_EQ(closestName("Width", keys), "");
    EXPECT_EQ(didYouMean("Hieght", keys), " (did you mean \"Height\"?)");
    EXPECT_EQ(didYouMean("x", {}), "");
}

}  // namespace
}  // namespace mq
