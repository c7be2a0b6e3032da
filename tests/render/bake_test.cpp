// Baking: the baked mesh of a flat surface under a floor tile (where it lies,
// its area, normals and UVs), the triangle limit, and the main oracle: rays
// shot at the procedural pieces and at the baked triangles hit alike.
#include "render/bake.h"

#include "render/surface_mapping.h"
#include "support/test_util.h"
#include "support/tile_test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <vector>

// Bytes allocated with operator new on a thread while it counts: the limit
// test checks that a refused bake allocates nothing of its output size.
namespace {
thread_local bool gCountAllocations = false;
thread_local size_t gAllocatedBytes = 0;
}  // namespace

// The replacements pair malloc with free, which the compiler cannot see through.
// Every form is replaced: a sanitizer intercepts any left to the library.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    if (gCountAllocations) gAllocatedBytes += size;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return operator new(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace mq {
namespace {

// The floor tile's crop box is (kCrop, kCrop, 4).
constexpr float kCrop = 10.0f;

struct Frame {
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
};

// The pieces of surface (material ids set to 0, the default Poli_ID range).
std::unique_ptr<Frame> mapSurface(Mesh surface, const PatternTile& tile, float tilingU,
                                  float tilingV) {
    for (Face& f : surface.faces) f.setMatID(0);
    SurfaceMappingSettings settings;
    settings.height = 100.0f;
    settings.tilingU = tilingU;
    settings.tilingV = tilingV;
    auto frame = std::make_unique<Frame>();
    EXPECT_TRUE(frame->mapping.buildFromMesh(surface, tile, settings, frame->pieces));
    EXPECT_GT(frame->mapping.primitiveCount, 0);
    return frame;
}

Mesh bake(const Frame& frame, const PatternTile& tile, BakeStats* statsOut = nullptr) {
    Mesh mesh;
    BakeStats stats;
    std::string error;
    EXPECT_TRUE(bakePieces(frame.pieces.data(), frame.mapping.primitiveCount, tile, BakeLimits(),
                           mesh, stats, error))
        << error;
    EXPECT_EQ(stats.triangles, mesh.getNumFaces());
    if (statsOut) *statsOut = stats;
    return mesh;
}

// The piece whose tetrahedron holds p, within eps of its side planes, or null.
const MosaiqPrimitive* pieceHolding(const Frame& frame, const Point3& p, float eps) {
    for (int i = 0; i < frame.mapping.primitiveCount; ++i) {
        const MosaiqPrimitive& piece = frame.pieces[size_t(i)];
        bool inside = true;
        for (const auto& plane : piece.sidePlanes)
            inside = inside && DotProd(p - plane.point, plane.normal) <= eps;
        if (inside) return &piece;
    }
    return nullptr;
}

Point3 corner(const Mesh& mesh, int face, int c) { return mesh.verts[mesh.faces[face].v[c]]; }

TEST(BakeFlat, FloorCoversThePlaneInsideItsPiecesWithItsNormalsAndUvs) {
    // Cells straddle the faces (1.5 cells per face in U), so pieces and cells cut each other.
    auto tile = test::floorTile(Point3(kCrop, kCrop, 4));
    auto frame = mapSurface(makePlaneMesh(30, 20, 2, 2), *tile, 3, 2);
    BakeStats stats;
    const Mesh mesh = bake(*frame, *tile, &stats);
    ASSERT_GT(mesh.getNumFaces(), 0);
    EXPECT_EQ(stats.pieces, frame->mapping.primitiveCount);
    EXPECT_GE(stats.cells, 6);  // at least the 3 x 2 cells of the plane

    const MeshNormalSpec* normals = mesh.GetSpecifiedNormals();
    ASSERT_NE(normals, nullptr);
    ASSERT_TRUE(mesh.mapSupport(1));
    double area = 0.0;
    for (int f = 0; f < mesh.getNumFaces(); ++f) {
        const Point3 a = corner(mesh, f, 0), b = corner(mesh, f, 1), c = corner(mesh, f, 2);
        const Point3 n = CrossProd(b - a, c - a);
        area += 0.5 * double(Length(n));
        EXPECT_GT(n.z, 0.0f) << "face " << f << " wound away from its normal";
        for (int k = 0; k < 3; ++k) {
            test::expectNear(normals->Normal(normals->GetNormalIndex(f, k)), Point3(0, 0, 1));
            ASSERT_NE(pieceHolding(*frame, corner(mesh, f, k), 1e-4f), nullptr)
                << "face " << f << " corner " << k << " lies outside every piece";
        }
        // The pattern's UV inside the cell, from where the centroid falls in tile space.
        const Point3 centroid = (a + b + c) / 3.0f;
        const MosaiqPrimitive* piece = pieceHolding(*frame, centroid, 1e-4f);
        ASSERT_NE(piece, nullptr);
        const Point3 t = centroid * piece->worldToTile;
        const Point3 expected((t.x - std::floor(t.x / kCrop) * kCrop) / kCrop,
                              (t.y - std::floor(t.y / kCrop) * kCrop) / kCrop, 1.0f / 4);
        const MeshMap& uv = mesh.Map(1);
        const Point3 baked =
            (uv.verts[uv.faces[f].t[0]] + uv.verts[uv.faces[f].t[1]] + uv.verts[uv.faces[f].t[2]]) /
            3.0f;
        test::expectNear(baked, expected, 1e-4f);
    }
    // Every point of the plane shows the floor exactly once.
    EXPECT_NEAR(area, 30.0 * 20.0, 600.0 * 1e-5);
}

TEST(BakeLimit, RefusesBeforeAllocatingTheOutput) {
    auto tile = test::floorTile(Point3(kCrop, kCrop, 4));
    auto frame = mapSurface(makePlaneMesh(30, 20, 1, 1), *tile, 60, 60);
    BakeStats full;
    const Mesh all = bake(*frame, *tile, &full);
    ASSERT_GT(full.triangles, 5000);

    BakeLimits limits;
    limits.maxTriangles = full.triangles - 1;
    Mesh out;
    out.verts = {Point3(1, 2, 3)};  // must survive the refusal
    BakeStats stats;
    std::string error;
    gAllocatedBytes = 0;
    gCountAllocations = true;
    const bool baked = bakePieces(frame->pieces.data(), frame->mapping.primitiveCount, *tile,
                                  limits, out, stats, error);
    gCountAllocations = false;
    EXPECT_FALSE(baked);
    EXPECT_EQ(stats.triangles, full.triangles);
    EXPECT_NE(error.find("would write " + std::to_string(full.triangles) + " triangles"),
              std::string::npos)
        << error;
    EXPECT_EQ(out.verts.size(), 1u);
    EXPECT_TRUE(out.faces.empty());
    // The output takes over 40 bytes a triangle; what was allocated is the input's bookkeeping.
    EXPECT_LT(gAllocatedBytes, size_t(full.triangles) * 4) << gAllocatedBytes << " bytes";

    limits.maxTriangles = full.triangles;
    EXPECT_TRUE(bakePieces(frame->pieces.data(), frame->mapping.primitiveCount, *tile, limits, out,
                           stats, error));
    EXPECT_EQ(out.getNumFaces(), all.getNumFaces());
}

// Nearest hit of a ray with a triangle, both sides, in double precision.
bool hitTriangle(const double o[3], const double d[3], const Point3& a, const Point3& b,
                 const Point3& c, double& t, double& u, double& v) {
    const double e1[3] = {b.x - double(a.x), b.y - double(a.y), b.z - double(a.z)};
    const double e2[3] = {c.x - double(a.x), c.y - double(a.y), c.z - double(a.z)};
    const double p[3] = {d[1] * e2[2] - d[2] * e2[1], d[2] * e2[0] - d[0] * e2[2],
                         d[0] * e2[1] - d[1] * e2[0]};
    const double det = e1[0] * p[0] + e1[1] * p[1] + e1[2] * p[2];
    if (det == 0.0) return false;
    const double s[3] = {o[0] - a.x, o[1] - a.y, o[2] - a.z};
    u = (s[0] * p[0] + s[1] * p[1] + s[2] * p[2]) / det;
    if (u < 0.0 || u > 1.0) return false;
    const double q[3] = {s[1] * e1[2] - s[2] * e1[1], s[2] * e1[0] - s[0] * e1[2],
                         s[0] * e1[1] - s[1] * e1[0]};
    v = (d[0] * q[0] + d[1] * q[1] + d[2] * q[2]) / det;
    if (v < 0.0 || u + v > 1.0) return false;
    t = (e2[0] * q[0] + e2[1] * q[1] + e2[2] * q[2]) / det;
    return t > 0.0;
}

TEST(BakeOracle, RaysHitThePiecesAndTheBakedMeshAtTheSameDistance) {
    // Sloped random triangles in four segments, over a cylinder whose side
    // prisms bend with its normals and whose caps are islands of their own
    // (other seeds): segment picks, seeds, shifts and bends all count.
    std::mt19937 rng(11);
    auto tile = test::makeTile(test::randomSoup(rng, 60, 3.0f), Point3(10, 10, 10), 2, 2);
    auto frame = mapSurface(makeCylinderMesh(9, 12, 2, 12), *tile, 1.5f, 1.5f);
    std::set<int32_t> seeds;
    for (int i = 0; i < frame->mapping.primitiveCount; ++i) seeds.insert(frame->pieces[i].seed);
    ASSERT_GE(seeds.size(), 3u);
    const Mesh mesh = bake(*frame, *tile);
    ASSERT_GT(mesh.getNumFaces(), 100);
    const MeshNormalSpec& normals = *mesh.GetSpecifiedNormals();

    std::normal_distribution<float> gauss;
    auto anyDirection = [&] { return Normalize(Point3(gauss(rng), gauss(rng), gauss(rng))); };
    const int kRays = 3000;
    int hits = 0, onlyProcedural = 0, onlyBaked = 0, elsewhere = 0, normalsApart = 0;
    for (int r = 0; r < kRays; ++r) {
        // From a sphere round the cylinder towards a point near its middle.
        const Point3 from = anyDirection() * 40.0f;
        const Point3 direction = Normalize(anyDirection() * (13.0f * gauss(rng)) - from);
        WorldRay ray;
        for (int a = 0; a < 3; ++a) ray.origin[a] = from[a];
        ray.direction = direction;
        TileHit hit, best;
        for (int i = 0; i < frame->mapping.primitiveCount; ++i) {
            if (frame->pieces[size_t(i)].intersect(ray, hit)) best = hit;
        }
        const bool procedural = ray.hitPrimitive != nullptr;

        const double o[3] = {from.x, from.y, from.z};
        const double d[3] = {direction.x, direction.y, direction.z};
        double tBaked = std::numeric_limits<double>::infinity(), uBaked = 0, vBaked = 0;
        int faceBaked = -1;
        for (int f = 0; f < mesh.getNumFaces(); ++f) {
            double t, u, v;
            if (hitTriangle(o, d, corner(mesh, f, 0), corner(mesh, f, 1), corner(mesh, f, 2), t, u,
                            v) &&
                t < tBaked) {
                tBaked = t;
                uBaked = u;
                vBaked = v;
                faceBaked = f;
            }
        }
        const bool baked = faceBaked >= 0;

        if (procedural && !baked) {
            ++onlyProcedural;
        } else if (baked && !procedural) {
            ++onlyBaked;
        } else if (procedural) {
            ++hits;
            if (std::fabs(ray.bestDistance - tBaked) > 1e-4 * tBaked) {
                ++elsewhere;
                continue;
            }
            // The baked normals, interpolated, follow the renderer's shading normals.
            Point3 n;
            for (int c = 0; c < 3; ++c) {
                const double w = c == 0 ? 1.0 - uBaked - vBaked : c == 1 ? uBaked : vBaked;
                n += normals.Normal(normals.GetNormalIndex(faceBaked, c)) * float(w);
            }
            if (DotProd(Normalize(n), ray.hitPrimitive->shadingNormal(best)) < 0.995f)
                ++normalsApart;
        }
    }
    const int differ = onlyProcedural + onlyBaked + elsewhere;
    std::printf(
        "[ oracle   ] %d rays, %d hit both; differ: %d procedural only, %d baked only, "
        "%d at another distance; %d normals apart\n",
        kRays, hits, onlyProcedural, onlyBaked, elsewhere, normalsApart);
    EXPECT_GT(hits, kRays / 4) << "too few rays reach the pattern to tell anything";
    EXPECT_LE(differ, kRays * 5 / 1000);
    EXPECT_LE(normalsApart, hits / 100);
}

}  // namespace
}  // namespace mq
