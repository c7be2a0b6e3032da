#include "host/mesh.h"

#include "support/test_util.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <set>
#include <utility>

namespace mq {
namespace {

constexpr float kPi = std::numbers::pi_v<float>;

Face makeFace(uint32_t a, uint32_t b, uint32_t c, uint32_t smGroup = 1, uint16_t mtl = 0) {
    Face f{{a, b, c}, smGroup, 0};
    f.setMatID(mtl);
    return f;
}

// The unit square in z = 0 as two faces, with UVs and vertex colours.
Mesh makeQuad() {
    Mesh m;
    m.verts = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
    m.faces = {makeFace(0, 1, 2, 1, 3), makeFace(0, 2, 3, 1, 4)};
    m.faces[0].flags |= 0x7;
    for (int ch : {0, 1}) {
        m.setMapSupport(ch);
        m.Map(ch).verts = m.verts;
        m.Map(ch).faces = {{{0, 1, 2}}, {{0, 2, 3}}};
    }
    m.SpecifyNormals();
    return m;
}

Point3 cornerNormal(const MeshNormalSpec& nspec, int f, int c) {
    return nspec.Normal(nspec.GetNormalIndex(f, c));
}

using test::expectNear;

TEST(MeshCopy, DeepCopyTakesOnlySelectedChannelsAndOwnsThem) {
    Mesh src = makeQuad();
    src.GetSpecifiedNormals()->CheckNormals();
    Mesh dst;
    dst.verts = {{5, 5, 5}};
    dst.faces = {makeFace(0, 0, 0, 8, 9)};

    dst.DeepCopy(src, GEOM_CHANNEL | TEXMAP_CHANNEL);
    EXPECT_EQ(dst.verts, src.verts);
    EXPECT_EQ(dst.faces[0].smGroup, 8u);
    EXPECT_TRUE(dst.mapSupport(1) && !dst.mapSupport(0) && !dst.GetSpecifiedNormals());

    // Topology without materials keeps this mesh's ids on the faces it had.
    dst.DeepCopy(src, TOPO_CHANNEL);
    ASSERT_EQ(dst.getNumFaces(), 2);
    EXPECT_EQ(dst.faces[0].flags, (9u << 16) | 0x7u);
    EXPECT_EQ(dst.faces[1].getMatID(), 0);
    dst.DeepCopy(src, MTL_CHANNEL | VERTCOLOR_CHANNEL | EXTENSION_CHANNEL);
    EXPECT_EQ(dst.faces[0].getMatID(), 3);
    EXPECT_TRUE(dst.mapSupport(0));
    ASSERT_NE(dst.GetSpecifiedNormals(), nullptr);
    EXPECT_EQ(dst.GetSpecifiedNormals()->GetParent(), &dst);

    // Changing the source afterwards leaves the copy alone.
    src.verts[0] = src.mapVerts(1)[0] = src.GetSpecifiedNormals()->Normal(0) = {9, 9, 9};
    EXPECT_TRUE(dst.verts[0] == Point3() && dst.mapVerts(1)[0] == Point3() &&
                dst.GetSpecifiedNormals()->Normal(0) != Point3(9, 9, 9));
    EXPECT_TRUE(dst.validate().empty());
}

TEST(MeshCopy, CopiesAndMovesKeepNormalSpecParent) {
    Mesh a = makeQuad();
    Mesh b(a), c;
    c = a;
    const Mesh& alias = c;
    c = alias;
    Mesh d(std::move(b)), e;
    e = std::move(d);
    std::vector<Mesh> grown(5, a);  // reallocation moves the meshes
    grown.push_back(a);
    for (const Mesh* m : {&a, &c, &e, &grown[0], &grown[5]})
        EXPECT_EQ(m->GetSpecifiedNormals()->GetParent(), m);
}

TEST(MeshValidate, ReportsEachKindOfProblem) {
    EXPECT_TRUE(makeQuad().validate().empty());
    Mesh m = makeQuad();
    m.faces[1].v[2] = 42;
    m.verts[2].y = NAN;
    m.mapFaces(1)[0].t[1] = 17;
    m.Map(0).faces.pop_back();
    m.GetSpecifiedNormals()->SetNormals({{0, 0, 1}}, {{0, 0, 0}, {0, 5, 0}});
    const auto problems = m.validate();
    EXPECT_EQ(problems.size(), 5u);
    for (const char* text :
         {"face 1 corner 2: vertex index 42", "vertex 2 is not finite",
          "map channel 1 face 0 corner 1", "map channel 0: 1 map faces for 2 faces",
          "normals: face 1 corner 1: normal index 5"}) {
        EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [&](const std::string& p) {
            return p.find(text) != std::string::npos;
        })) << text;
    }
}

TEST(MeshNormals, GroupsJoinTransitivelyAndWeighByArea) {
    // At vertex 0: a face of area 2 facing +Z, and faces of area 1/2 facing +X and +Y.
    Mesh m;
    m.verts = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {0, 0, 1}, {0, -1, 0}, {-1, 0, 0}};
    m.faces = {makeFace(0, 1, 2), makeFace(0, 3, 4), makeFace(0, 5, 3)};
    m.SpecifyNormals();
    MeshNormalSpec& nspec = *m.GetSpecifiedNormals();
    auto normalsAtOrigin = [&](uint32_t g0, uint32_t g1, uint32_t g2) {
        m.faces[0].smGroup = g0, m.faces[1].smGroup = g1, m.faces[2].smGroup = g2;
        nspec.CheckNormals();
        return std::set<int>{nspec.GetNormalIndex(0, 0), nspec.GetNormalIndex(1, 0),
                             nspec.GetNormalIndex(2, 0)}
            .size();
    };
    EXPECT_EQ(normalsAtOrigin(1, 1 | 2, 2), 1u);  // the middle face links the others
    expectNear(cornerNormal(nspec, 0, 0), Normalize(Point3(1, 1, 4)));
    expectNear(cornerNormal(nspec, 0, 1), {0, 0, 1});  // vertex 1 sees one face
    EXPECT_EQ(normalsAtOrigin(1, 2, 4), 3u);
    EXPECT_EQ(normalsAtOrigin(1, 1u << 31, 1u << 31), 2u);
    EXPECT_EQ(normalsAtOrigin(0, 0, 0), 3u);  // group 0 never joins
    expectNear(cornerNormal(nspec, 1, 0), {1, 0, 0});
}

TEST(MeshNormals, ExplicitKeptOnlyWhileTheyFit) {
    Mesh m = makeQuad();
    MeshNormalSpec& nspec = *m.GetSpecifiedNormals();
    const Point3 tilted = Normalize(Point3(1, 0, 1));
    nspec.SetNormals({tilted, {0, 0, 1}}, {{0, 1, 0}, {0, 0, 1}});
    nspec.CheckNormals();
    EXPECT_TRUE(nspec.IsExplicit());
    EXPECT_EQ(cornerNormal(nspec, 0, 0), tilted);

    using Indices = std::vector<std::array<int, 3>>;
    for (const auto& [normals, indices] : std::vector<std::pair<std::vector<Point3>, Indices>>{
             {{tilted}, {{0, 0, 0}}},                     // a face short
             {{tilted}, {{0, 0, 0}, {0, 1, 0}}},          // index past the end
             {{tilted}, {{0, 0, 0}, {0, -1, 0}}},         // negative index
             {{{0, NAN, 1}}, {{0, 0, 0}, {0, 0, 0}}}}) {  // non-finite normal
        nspec.SetNormals(normals, indices);
        nspec.CheckNormals();
        EXPECT_FALSE(nspec.IsExplicit());
        ASSERT_EQ(nspec.GetNumFaces(), 2);
        for (int c = 0; c < 3; ++c) expectNear(cornerNormal(nspec, 1, c), {0, 0, 1});
    }
}

TEST(MeshNormals, SurvivesBrokenAndDegenerateFaces) {
    Mesh m;
    m.verts = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0}};
    m.faces = {makeFace(0, 1, 99),     // out of range
               makeFace(0, 0, 1),      // degenerate
               makeFace(1, 2, 3, 2),   // facing up...
               makeFace(1, 3, 2, 2)};  // ...and down in one group: the sums cancel
    m.SpecifyNormals();
    MeshNormalSpec& nspec = *m.GetSpecifiedNormals();
    nspec.CheckNormals();
    ASSERT_EQ(nspec.GetNumFaces(), 4);
    for (int f = 0; f < 4; ++f)
        for (int c = 0; c < 3; ++c)
            expectNear(cornerNormal(nspec, f, c), {0, 0, f == 3 ? -1.f : 1.f});
}

// Closed and consistently wound: every directed edge appears once, and so does its reverse.
bool isClosedManifold(const Mesh& m) {
    std::map<std::pair<uint32_t, uint32_t>, int> directed;
    for (const Face& f : m.faces) {
        for (int c = 0; c < 3; ++c) ++directed[{f.v[c], f.v[(c + 1) % 3]}];
    }
    for (const auto& [edge, count] : directed) {
        const auto back = directed.find({edge.second, edge.first});
        if (count != 1 || back == directed.end() || back->second != 1) return false;
    }
    return true;
}

double signedVolume(const Mesh& m) {
    double v = 0;
    for (const Face& f : m.faces) {
        v += DotProd(m.verts[f.v[0]], CrossProd(m.verts[f.v[1]], m.verts[f.v[2]])) / 6.0;
    }
    return v;
}

// No map face wraps across a seam (spans over half the texture in u) or leaves 0..1.
bool uvsStayUnwrapped(const Mesh& m) {
    for (const TVFace& t : m.Map(1).faces) {
        const Point3 *a = &m.mapVerts(1)[t.t[0]], *b = &m.mapVerts(1)[t.t[1]],
                     *c = &m.mapVerts(1)[t.t[2]];
        const auto [lo, hi] = std::minmax({a->x, b->x, c->x});
        if (hi - lo > 0.5f || lo < 0 || hi > 1) return false;
    }
    return true;
}

TEST(Primitive, ClosedOutwardWithAnalyticVolumeEvenForTheSmallestAndInvalidArguments) {
    const float r = 1.5f, h = 2.0f;
    const int n = 96;
    const double ngonArea = 0.5 * n * r * r * std::sin(2 * std::numbers::pi / n);
    const struct {
        const char* name;
        Mesh mesh;
        double volume, tolerance;  // volume 0: any positive volume
    } cases[] = {
        {"box", makeBoxMesh(2, 3, 4, 3, 2, 5), 24.0, 1e-5},
        {"sphere", makeSphereMesh(r, n), 4.0 / 3.0 * kPi * r * r * r, 0.01},
        {"torus", makeTorusMesh(3, 1, n, n / 2), 2 * kPi * kPi * 3 * 1, 0.01},
        {"cylinder", makeCylinderMesh(r, h, 4, n), ngonArea * h, 1e-5},  // exact for an n-gon
        {"sphere(-1, 0)", makeSphereMesh(-1, 0), 0, 0},
        {"sphere(1, 5)", makeSphereMesh(1, 5), 0, 0},
        {"torus(0, NaN, 1, 1)", makeTorusMesh(0, NAN, 1, 1), 0, 0},
        {"cylinder(1, -3, 0, 0)", makeCylinderMesh(1, -3, 0, 0), 0, 0},
        {"box(0, 0, 0, -2, 0, 0)", makeBoxMesh(0, 0, 0, -2, 0, 0), 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(c.mesh.validate().empty());
        EXPECT_TRUE(isClosedManifold(c.mesh));
        if (c.volume > 0) {
            EXPECT_NEAR(signedVolume(c.mesh) / c.volume, 1.0, c.tolerance);
            EXPECT_TRUE(uvsStayUnwrapped(c.mesh));
        } else {
            EXPECT_GT(signedVolume(c.mesh), 0.0);
        }
    }
    // Too few segments are raised to the fewest that close.
    EXPECT_EQ(makeSphereMesh(1, 0).getNumVerts(), 2 + 4);
    EXPECT_EQ(makeTorusMesh(2, 1, 0, 0).getNumFaces(), 3 * 3 * 2);
    EXPECT_EQ(makeCylinderMesh(1, 1, 0, 0).getNumFaces(), 3 * 4);
}

TEST(Primitive, PlaneUvsFollowPositionsAndBoxSidesNumberMaterialsFromZero) {
    const Mesh plane = makePlaneMesh(2, 4, 3, 5);  // length along Y, width along X
    EXPECT_EQ(plane.getNumFaces(), 3 * 5 * 2);
    for (int f = 0; f < plane.getNumFaces(); ++f) {
        const Point3* v = plane.verts.data();
        const Face& face = plane.faces[f];
        EXPECT_GT(CrossProd(v[face.v[1]] - v[face.v[0]], v[face.v[2]] - v[face.v[0]]).z, 0.0f);
        for (int c = 0; c < 3; ++c) {
            const Point3 p = plane.verts[plane.faces[f].v[c]];
            EXPECT_EQ(p.z, 0.0f);
            expectNear(plane.mapVerts(1)[plane.mapFaces(1)[f].t[c]],
                       {p.x / 4 + 0.5f, p.y / 2 + 0.5f, 0});
        }
    }
    // One smoothing group per side, and the user's material 1 is id 0.
    const Mesh box = makeBoxMesh(1, 2, 3, 1, 1, 1);
    std::map<uint16_t, uint32_t> groupOfMaterial;
    for (const Face& f : box.faces)
        EXPECT_EQ(groupOfMaterial.try_emplace(f.getMatID(), f.smGroup).first->second, f.smGroup);
    EXPECT_EQ(groupOfMaterial.size(), 6u);
    EXPECT_EQ(groupOfMaterial.begin()->first, 0);
    expectNear(box.getBoundingBox().pmin, {-1, -0.5f, 0});  // base on z = 0
}

}  // namespace
}  // namespace mq
