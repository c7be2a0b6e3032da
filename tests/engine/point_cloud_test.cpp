// Area-weighted point sampling of the pattern mesh and the face distributor behind it.
#include "engine/point_cloud.h"

#include "host/object.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

namespace mq {
namespace {

using Tri = std::array<Point3, 3>;

// A mesh of the given triangles, each with its own three vertices.
Mesh triangles(std::initializer_list<Tri> tris) {
    Mesh mesh;
    for (const Tri& t : tris) {
        const uint32_t base = static_cast<uint32_t>(mesh.verts.size());
        mesh.verts.insert(mesh.verts.end(), t.begin(), t.end());
        mesh.faces.push_back({{base, base + 1, base + 2}});
    }
    return mesh;
}
// A right triangle of weight |(B - A) x (C - A)| = w at height z, from x0.
Tri right(float x0, float w, float z = 0) { return {{{x0, 0, z}, {x0 + w, 0, z}, {x0, 1, z}}}; }
// Three points on a line at height z: no area.
Tri sliver(float z) { return {{{0, 0, z}, {1, 1, z}, {2, 2, z}}}; }

std::unique_ptr<PatternPointCloud> sampled(Mesh mesh) {
    auto cloud = std::make_unique<PatternPointCloud>();
    TriObject tri(std::move(mesh));
    EXPECT_TRUE(sample(*cloud, &tri));
    EXPECT_TRUE(cloud->valid);
    return cloud;
}

TEST(PointCloud, OneFaceCarriesEveryPointTheSameWayEachTime) {
    // On the unit right triangle a point a A + b B + c C is (b, c, 0) exactly.
    const Mesh mesh = triangles({right(0, 1)});
    const auto cloud = sampled(mesh);
    EXPECT_EQ(cloud->points, sampled(mesh)->points);
    EXPECT_EQ(cloud->box.pmax, Point3(1, 1, 0));

    // The host generator written out again: seed, one discarded draw, then
    // face, a, b for each point.
    uint32_t state = 123456;
    auto next01 = [&] {
        state = state * 214013u + 2531011u;
        return static_cast<float>((state >> 16) & 0x7fffu) / 32768.0f;
    };
    next01();
    for (const Point3& p : cloud->points) {
        next01();
        float a = next01(), b = next01();
        if (a + b > 1.0f) {
            a = 1.0f - a;
            b = 1.0f - b;
        }
        ASSERT_EQ(p, Point3(b, 1.0f - a - b, 0));
    }
}

TEST(PointCloud, NoFacesNoCloud) {
    PatternPointCloud cloud;
    cloud.valid = true;  // left from an earlier sampling
    TriObject verticesOnly;
    verticesOnly.mesh.verts = {{1, 2, 3}};
    EXPECT_FALSE(sample(cloud, &verticesOnly));
    EXPECT_FALSE(cloud.valid);
    EXPECT_FALSE(sample(cloud, nullptr));
}

TEST(PointCloud, FacesWithoutAreaAreNeverPickedUnlessAllAre) {
    // Real faces at z = 0; slivers, and faces naming a missing vertex (they
    // collapse onto vertex 0), at z = 7. Face 0 is real: u = 0 picks it.
    Mesh mesh = triangles({sliver(7), right(0, 2), sliver(7), right(5, 1)});
    std::swap(mesh.faces[0], mesh.faces[1]);
    mesh.faces.push_back({{0, 1, 99}});
    FaceDistributor distributor;
    ASSERT_TRUE(distributor.build(mesh));
    EXPECT_EQ(distributor.total, 3.0);
    for (int k = 0; k < 4096; ++k) {
        const int face = distributor.pick(k / 4096.0f);
        ASSERT_TRUE(face == 0 || face == 3) << k << " picked " << face;
    }
    const auto mixed = sampled(mesh);
    for (const Point3& p : mixed->points) ASSERT_EQ(p.z, 0.0f);

    // All flat: face 0 takes every point. Without any vertex: the origin.
    const auto flat = sampled(triangles({sliver(1), sliver(2)}));
    for (const Point3& p : flat->points) ASSERT_EQ(p.z, 1.0f);
    Mesh noVertices;
    noVertices.faces.push_back({{0, 1, 2}});
    const auto origin = sampled(noVertices);
    for (const Point3& p : origin->points) ASSERT_EQ(p, Point3());
}

TEST(PointCloud, PointsFollowArea) {
    // Weights 1 and 3: three quarters on the second face, within about 5 sigma.
    const auto cloud = sampled(triangles({right(0, 1), right(10, 3)}));
    int onLarge = 0;
    for (const Point3& p : cloud->points) onLarge += p.x > 5.0f;
    EXPECT_NEAR(onLarge / 10000.0, 0.75, 0.02);
}

TEST(FaceDistributor, ABoundaryGoesToTheLowerFace) {
    FaceDistributor d;
    ASSERT_TRUE(d.build(triangles({right(0, 1), right(2, 1), right(4, 1), right(6, 1)})));
    ASSERT_EQ(d.cumulative, (std::vector<double>{0, 1, 2, 3, 4}));
    EXPECT_EQ(d.pick(0.0f), 0);
    EXPECT_EQ(d.pick(0.25f), 0);
    EXPECT_EQ(d.pick(std::nextafter(0.25f, 1.0f)), 1);
    EXPECT_EQ(d.pick(0.5f), 1);
    EXPECT_EQ(d.pick(0.75f), 2);
    EXPECT_EQ(d.pick(std::nextafter(1.0f, 0.0f)), 3);

    // A flat first face is taken by u = 0 exactly, and by nothing else.
    ASSERT_TRUE(d.build(triangles({sliver(0), right(0, 1)})));
    EXPECT_EQ(d.pick(0.0f), 0);
    EXPECT_EQ(d.pick(1.0f / 32768.0f), 1);

    EXPECT_FALSE(d.build(Mesh()));
    EXPECT_EQ(d.faceCount, 0);
    EXPECT_TRUE(d.cumulative.empty());
}

}  // namespace
}  // namespace mq
