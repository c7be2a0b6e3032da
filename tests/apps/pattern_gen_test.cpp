// The pattern generator: every pattern is a sound mesh inside its tile,
// periodic across the tile's edges, with UVs and outward normals.
#include "pattern_gen.h"

#include "support/test_util.h"

#include <algorithm>
#include <cstdio>

namespace {

using mq::Point3;
using mq::patterns::Pattern;

// Vertices on the tile's low side in axis reappear on the high side, and
// back: the copy of the tile next door continues exactly where this one stops.
int unmatchedAcross(const Pattern& p, int axis) {
    std::vector<Point3> low, high;
    for (const Point3& v : p.mesh.verts) {
        if (v[axis] == p.tile.pmin[axis]) low.push_back(v);
        if (v[axis] == p.tile.pmax[axis]) high.push_back(v);
    }
    auto missing = [&](const std::vector<Point3>& from, const std::vector<Point3>& to) {
        int n = 0;
        for (const Point3& a : from)
            n += std::none_of(to.begin(), to.end(), [&](const Point3& b) {
                return std::abs(a[1 - axis] - b[1 - axis]) < 1e-3f && std::abs(a.z - b.z) < 1e-3f;
            });
        return n;
    };
    return missing(low, high) + missing(high, low);
}

TEST(PatternGen, EverySoundPeriodicInsideItsTileWithUvsAndOutwardNormals) {
    for (const Pattern& p : mq::patterns::allPatterns()) {
        SCOPED_TRACE(p.name);
        const mq::Mesh& m = p.mesh;
        ASSERT_GT(m.getNumFaces(), 0);
        EXPECT_LT(m.getNumFaces(), 20000);
        ASSERT_TRUE(m.validate().empty()) << m.validate().front();
        for (const Point3& v : m.verts)
            ASSERT_TRUE(mq::isFinite(v) && p.tile.Contains(v)) << v.x << ", " << v.y << ", " << v.z;
        // The geometry reaches every side of the tile box in X and Z.
        const mq::Box3 b = m.getBoundingBox();
        EXPECT_TRUE(b.pmin.x == p.tile.pmin.x && b.pmax.x == p.tile.pmax.x &&
                    b.pmin.z == p.tile.pmin.z && b.pmax.z == p.tile.pmax.z);
        EXPECT_EQ(unmatchedAcross(p, 0), 0);
        EXPECT_EQ(unmatchedAcross(p, 1), 0);

        ASSERT_TRUE(m.mapSupport(1));
        const mq::MeshNormalSpec* nspec = m.GetSpecifiedNormals();
        ASSERT_TRUE(nspec && nspec->IsExplicit() && nspec->GetNumFaces() == m.getNumFaces());
        for (int i = 0; i < nspec->GetNumNormals(); ++i)
            ASSERT_NEAR(mq::Length(nspec->Normal(i)), 1.0f, 1e-4f);
        // Winding agrees with the given normals: faces point where the surface does.
        int agree = 0;
        for (int f = 0; f < m.getNumFaces(); ++f) {
            const mq::Face& face = m.faces[size_t(f)];
            Point3 ns;
            for (int k = 0; k < 3; ++k) ns += nspec->Normal(nspec->GetNormalIndex(f, k));
            agree += mq::DotProd(mq::CrossProd(m.verts[face.v[1]] - m.verts[face.v[0]],
                                               m.verts[face.v[2]] - m.verts[face.v[0]]),
                                 ns) > 0.0f;
        }
        EXPECT_GE(agree, m.getNumFaces() * 97 / 100);
    }
}

}  // namespace
