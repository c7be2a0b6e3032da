// The pattern generator: every pattern is a sound mesh inside its tile,
// periodic across the tile's edges, with UVs and outward normals.
#include "pattern_gen.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

using mq::Point3;
using mq::patterns::Pattern;

class PatternGen : public ::testing::TestWithParam<int> {
protected:
    static const std::vector<Pattern>& patterns() {
        static const std::vector<Pattern> all = mq::patterns::allPatterns();
        return all;
    }
    const Pattern& pattern() const { return patterns()[size_t(GetParam())]; }
};

TEST_P(PatternGen, SoundMeshInsideItsTile) {
    const Pattern& p = pattern();
    const mq::Mesh& m = p.mesh;
    ASSERT_GT(m.getNumFaces(), 0) << p.name;
    EXPECT_LT(m.getNumFaces(), 20000) << p.name;
    EXPECT_TRUE(m.validate().empty()) << p.name << ": " << m.validate().front();
    const Point3 size = p.tile.Width();
    EXPECT_GT(size.x, 0.0f);
    EXPECT_GT(size.y, 0.0f);
    EXPECT_GT(size.z, 0.0f);
    for (const Point3& v : m.verts) {
        ASSERT_TRUE(mq::isFinite(v));
        ASSERT_TRUE(p.tile.Contains(v)) << p.name << ": (" << v.x << ", " << v.y << ", " << v.z << ")";
    }
    // The geometry reaches every side of the tile box in X and Y.
    const mq::Box3 b = m.getBoundingBox();
    EXPECT_EQ(b.pmin.z, p.tile.pmin.z);
    EXPECT_EQ(b.pmax.z, p.tile.pmax.z);
    EXPECT_EQ(b.pmin.x, p.tile.pmin.x) << p.name;
    EXPECT_EQ(b.pmax.x, p.tile.pmax.x) << p.name;
}

TEST_P(PatternGen, UvsAndOutwardNormals) {
    const Pattern& p = pattern();
    const mq::Mesh& m = p.mesh;
    ASSERT_TRUE(m.mapSupport(1));
    ASSERT_EQ(m.Map(1).faces.size(), m.faces.size());
    const mq::MeshNormalSpec* nspec = m.GetSpecifiedNormals();
    ASSERT_NE(nspec, nullptr);
    ASSERT_TRUE(nspec->IsExplicit());
    ASSERT_EQ(nspec->GetNumFaces(), m.getNumFaces());
    for (int i = 0; i < nspec->GetNumNormals(); ++i)
        ASSERT_NEAR(mq::Length(nspec->Normal(i)), 1.0f, 1e-4f) << p.name;
    // Winding agrees with the given normals: faces point where the surface does.
    int agree = 0;
    for (int f = 0; f < m.getNumFaces(); ++f) {
        const mq::Face& face = m.faces[size_t(f)];
        const Point3 ng = mq::CrossProd(m.verts[face.v[1]] - m.verts[face.v[0]],
                                        m.verts[face.v[2]] - m.verts[face.v[0]]);
        Point3 ns;
        for (int k = 0; k < 3; ++k) ns += nspec->Normal(nspec->GetNormalIndex(f, k));
        agree += mq::DotProd(ng, ns) > 0.0f;
    }
    EXPECT_GE(agree, m.getNumFaces() * 97 / 100) << p.name;
}

// Vertices on the tile's low side in axis reappear on the high side: the
// copy of the tile next door continues exactly where this one stops.
void expectPeriodic(const Pattern& p, int axis) {
    const int other = 1 - axis;
    const float lo = p.tile.pmin[axis], hi = p.tile.pmax[axis];
    std::vector<Point3> low, high;
    for (const Point3& v : p.mesh.verts) {
        if (v[axis] == lo) low.push_back(v);
        if (v[axis] == hi) high.push_back(v);
    }
    auto covered = [&](const std::vector<Point3>& from, const std::vector<Point3>& to) {
        int missing = 0;
        for (const Point3& a : from) {
            bool found = false;
            for (const Point3& b : to)
                found = found || (std::abs(a[other] - b[other]) < 1e-3f && std::abs(a.z - b.z) < 1e-3f);
            missing += !found;
        }
        return missing;
    };
    EXPECT_EQ(covered(low, high), 0) << p.name << " axis " << axis;
    EXPECT_EQ(covered(high, low), 0) << p.name << " axis " << axis;
}

TEST_P(PatternGen, PeriodicAcrossTileEdges) {
    expectPeriodic(pattern(), 0);
    expectPeriodic(pattern(), 1);
}

INSTANTIATE_TEST_SUITE_P(All, PatternGen, ::testing::Range(0, 4), [](const auto& info) {
    return std::string(std::vector<const char*>{"ChainMail", "Weave", "Scales", "Pavers"}[size_t(info.param)]);
});

TEST(PatternGenObj, WritesEveryElementYUp) {
    const Pattern p = mq::patterns::pavers();
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("mosaiq-pavers-" + std::to_string(getpid()) + ".obj");
    mq::patterns::writeObj(p, file);
    std::ifstream in(file);
    int v = 0, vt = 0, vn = 0, f = 0;
    float firstY = 0.0f, firstZ = 0.0f;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("v ", 0) == 0 && v++ == 0) std::sscanf(line.c_str(), "v %*f %f %f", &firstY, &firstZ);
        vt += line.rfind("vt ", 0) == 0;
        vn += line.rfind("vn ", 0) == 0;
        f += line.rfind("f ", 0) == 0;
    }
    std::filesystem::remove(file);
    EXPECT_EQ(v, p.mesh.getNumVerts());
    EXPECT_EQ(vt, p.mesh.getNumMapVerts(1));
    EXPECT_EQ(vn, p.mesh.GetSpecifiedNormals()->GetNumNormals());
    EXPECT_EQ(f, p.mesh.getNumFaces());
    // Z-up (x, y, z) is written (x, z, -y).
    EXPECT_NEAR(firstY, p.mesh.verts[0].z, 1e-5f);
    EXPECT_NEAR(firstZ, -p.mesh.verts[0].y, 1e-5f);
    EXPECT_THROW(mq::patterns::writeObj(p, "/nonexistent-folder/x.obj"), std::runtime_error);
}

}  // namespace
