// Built-in primitive meshes. All wind counter-clockwise seen from outside,
// share geometry vertices across UV seams and put UVs on map channel 1.
// Material ids, as users number them, count from 1 (one per side where a
// primitive has sides); the mesh stores them from 0.
#include "host/mesh.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <unordered_map>
#include <utility>
#include <vector>

namespace mq {

namespace {

constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;
constexpr float kPi = std::numbers::pi_v<float>;
constexpr float kMinSize = 1e-6f;
// Keeps vertex and face counts well inside int range.
constexpr int kMaxSegs = 10000;

float clampSize(float s) { return std::isfinite(s) && s > 0.0f ? s : kMinSize; }
int clampSegs(int n, int lo) { return std::clamp(n, lo, kMaxSegs); }

// Appends geometry faces and their map faces in step.
class MeshBuilder {
public:
    MeshBuilder() { mesh_.setMapSupport(1); }

    uint32_t vert(const Point3& p) {
        mesh_.verts.push_back(p);
        return static_cast<uint32_t>(mesh_.verts.size() - 1);
    }
    uint32_t uv(float u, float v) {
        mesh_.Map(1).verts.emplace_back(u, v, 0.0f);
        return static_cast<uint32_t>(mesh_.Map(1).verts.size() - 1);
    }
    void tri(uint32_t a, uint32_t b, uint32_t c, uint32_t ta, uint32_t tb, uint32_t tc,
             uint32_t smGroup, uint16_t matId) {
        Face f;
        f.v[0] = a;
        f.v[1] = b;
        f.v[2] = c;
        f.smGroup = smGroup;
        // Users number materials from 1; meshes store them from 0.
        f.setMatID(static_cast<uint16_t>(matId - 1));
        mesh_.faces.push_back(f);
        mesh_.Map(1).faces.push_back(TVFace{{ta, tb, tc}});
    }
    // Quad a-b-c-d counter-clockwise, split along a-c.
    void quad(const uint32_t v[4], const uint32_t t[4], uint32_t smGroup, uint16_t matId) {
        tri(v[0], v[1], v[2], t[0], t[1], t[2], smGroup, matId);
        tri(v[0], v[2], v[3], t[0], t[2], t[3], smGroup, matId);
    }
    void reserve(size_t numVerts, size_t numUvs, size_t numFaces) {
        mesh_.verts.reserve(numVerts);
        mesh_.Map(1).verts.reserve(numUvs);
        mesh_.faces.reserve(numFaces);
        mesh_.Map(1).faces.reserve(numFaces);
    }
    Mesh take() { return std::move(mesh_); }

private:
    Mesh mesh_;
};

}  // namespace

Mesh makePlaneMesh(float length, float width, int lengthSegs, int widthSegs) {
    // Width runs along X, length along Y.
    length = clampSize(length);
    width = clampSize(width);
    const int nx = clampSegs(widthSegs, 1), ny = clampSegs(lengthSegs, 1);

    MeshBuilder b;
    b.reserve(size_t(nx + 1) * (ny + 1), size_t(nx + 1) * (ny + 1), size_t(nx) * ny * 2);
    for (int j = 0; j <= ny; ++j) {
        for (int i = 0; i <= nx; ++i) {
            const float u = float(i) / nx, v = float(j) / ny;
            b.vert({(u - 0.5f) * width, (v - 0.5f) * length, 0.0f});
            b.uv(u, v);
        }
    }
    // UV vertices mirror the geometry grid one to one.
    auto at = [nx](int i, int j) { return uint32_t(j * (nx + 1) + i); };
    for (int j = 0; j < ny; ++j) {
        for (int i = 0; i < nx; ++i) {
            const uint32_t q[4] = {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j + 1)};
            b.quad(q, q, 1, 1);
        }
    }
    return b.take();
}

Mesh makeBoxMesh(float length, float width, float height, int lengthSegs, int widthSegs,
                 int heightSegs) {
    // Width along X, length along Y, height up Z from the base at z = 0.
    const float size[3] = {clampSize(width), clampSize(length), clampSize(height)};
    const int segs[3] = {clampSegs(widthSegs, 1), clampSegs(lengthSegs, 1),
                         clampSegs(heightSegs, 1)};

    // Each side is a grid walked from a lattice corner along two lattice
    // directions whose cross product points out of the box. Lattice points
    // name the welded vertices, so edges and corners are shared.
    struct Side {
        int base[3];
        int du[3];
        int dv[3];
    };
    const int nx = segs[0], ny = segs[1], nz = segs[2];
    const Side sides[6] = {
        {{nx, 0, 0}, {-1, 0, 0}, {0, 1, 0}},   // bottom, -Z
        {{0, 0, nz}, {1, 0, 0}, {0, 1, 0}},    // top, +Z
        {{0, 0, 0}, {1, 0, 0}, {0, 0, 1}},     // front, -Y
        {{nx, 0, 0}, {0, 1, 0}, {0, 0, 1}},    // right, +X
        {{nx, ny, 0}, {-1, 0, 0}, {0, 0, 1}},  // back, +Y
        {{0, ny, 0}, {0, -1, 0}, {0, 0, 1}},   // left, -X
    };

    MeshBuilder b;
    std::unordered_map<uint64_t, uint32_t> lattice;
    auto latticeVert = [&](const int p[3]) {
        const uint64_t key = (uint64_t(p[0]) << 42) | (uint64_t(p[1]) << 21) | uint64_t(p[2]);
        auto [it, inserted] = lattice.try_emplace(key, 0);
        if (inserted) {
            Point3 pos;
            for (int a = 0; a < 3; ++a) pos[a] = size[a] * float(p[a]) / float(segs[a]);
            pos.x -= 0.5f * size[0];
            pos.y -= 0.5f * size[1];
            it->second = b.vert(pos);
        }
        return it->second;
    };
    auto axisOf = [](const int d[3]) { return d[0] != 0 ? 0 : (d[1] != 0 ? 1 : 2); };

    for (int s = 0; s < 6; ++s) {
        const Side& side = sides[s];
        const int nu = segs[axisOf(side.du)], nv = segs[axisOf(side.dv)];
        std::vector<uint32_t> gv(size_t(nu + 1) * (nv + 1)), tv(gv.size());
        for (int j = 0; j <= nv; ++j) {
            for (int i = 0; i <= nu; ++i) {
                int p[3];
                for (int a = 0; a < 3; ++a) p[a] = side.base[a] + i * side.du[a] + j * side.dv[a];
                const size_t k = size_t(j) * (nu + 1) + i;
                gv[k] = latticeVert(p);
                tv[k] = b.uv(float(i) / nu, float(j) / nv);
            }
        }
        auto at = [nu](int i, int j) { return size_t(j) * (nu + 1) + i; };
        for (int j = 0; j < nv; ++j) {
            for (int i = 0; i < nu; ++i) {
                const size_t k[4] = {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j + 1)};
                const uint32_t q[4] = {gv[k[0]], gv[k[1]], gv[k[2]], gv[k[3]]};
                const uint32_t t[4] = {tv[k[0]], tv[k[1]], tv[k[2]], tv[k[3]]};
                // Distinct smoothing bits keep the sides' normals apart.
                b.quad(q, t, 1u << s, uint16_t(s + 1));
            }
        }
    }
    return b.take();
}

Mesh makeSphereMesh(float radius, int segments) {
    radius = clampSize(radius);
    const int segs = clampSegs(segments, 4);
    const int rings = segs / 2;  // latitude bands from pole to pole

    MeshBuilder b;
    // Geometry: north pole, rings-1 parallels of segs vertices, south pole.
    const uint32_t north = b.vert({0, 0, radius});
    for (int r = 1; r < rings; ++r) {
        const float theta = kPi * float(r) / float(rings);
        for (int s = 0; s < segs; ++s) {
            const float phi = kTwoPi * float(s) / float(segs);
            b.vert({radius * std::sin(theta) * std::cos(phi),
                    radius * std::sin(theta) * std::sin(phi), radius * std::cos(theta)});
        }
    }
    const uint32_t south = b.vert({0, 0, -radius});
    auto ring = [segs](int r, int s) { return uint32_t(1 + (r - 1) * segs + s % segs); };

    // UVs: one pole vertex per segment (centred on it), and segs+1 per
    // parallel so the seam at u = 1 has its own column.
    const uint32_t northUv = b.uv(0.5f / segs, 1.0f);
    for (int s = 1; s < segs; ++s) b.uv((s + 0.5f) / segs, 1.0f);
    const uint32_t ringUv0 = northUv + segs;
    for (int r = 1; r < rings; ++r) {
        for (int s = 0; s <= segs; ++s) b.uv(float(s) / segs, 1.0f - float(r) / rings);
    }
    const uint32_t southUv = ringUv0 + uint32_t((rings - 1) * (segs + 1));
    for (int s = 0; s < segs; ++s) b.uv((s + 0.5f) / segs, 0.0f);
    auto ringUv = [&](int r, int s) { return ringUv0 + uint32_t((r - 1) * (segs + 1) + s); };

    for (int s = 0; s < segs; ++s) {
        b.tri(north, ring(1, s), ring(1, s + 1), northUv + s, ringUv(1, s), ringUv(1, s + 1), 1, 1);
    }
    // Going down a parallel then east turns outward.
    for (int r = 1; r < rings - 1; ++r) {
        for (int s = 0; s < segs; ++s) {
            const uint32_t q[4] = {ring(r, s), ring(r + 1, s), ring(r + 1, s + 1), ring(r, s + 1)};
            const uint32_t t[4] = {ringUv(r, s), ringUv(r + 1, s), ringUv(r + 1, s + 1),
                                   ringUv(r, s + 1)};
            b.quad(q, t, 1, 1);
        }
    }
    const int last = rings - 1;
    for (int s = 0; s < segs; ++s) {
        b.tri(ring(last, s), south, ring(last, s + 1), ringUv(last, s), southUv + s,
              ringUv(last, s + 1), 1, 1);
    }
    return b.take();
}

Mesh makeTorusMesh(float radius1, float radius2, int segments, int sides) {
    radius1 = clampSize(radius1);
    radius2 = clampSize(radius2);
    const int segs = clampSegs(segments, 3), nSides = clampSegs(sides, 3);

    MeshBuilder b;
    b.reserve(size_t(segs) * nSides, size_t(segs + 1) * (nSides + 1), size_t(segs) * nSides * 2);
    // Vertex (i, j): i around the ring (about Z), j around the tube.
    for (int i = 0; i < segs; ++i) {
        const float phi = kTwoPi * float(i) / float(segs);
        for (int j = 0; j < nSides; ++j) {
            const float theta = kTwoPi * float(j) / float(nSides);
            const float rho = radius1 + radius2 * std::cos(theta);
            b.vert({rho * std::cos(phi), rho * std::sin(phi), radius2 * std::sin(theta)});
        }
    }
    for (int i = 0; i <= segs; ++i) {
        for (int j = 0; j <= nSides; ++j) b.uv(float(i) / segs, float(j) / nSides);
    }
    auto gv = [&](int i, int j) { return uint32_t((i % segs) * nSides + j % nSides); };
    auto tv = [&](int i, int j) { return uint32_t(i * (nSides + 1) + j); };
    // Along the ring then around the tube turns outward.
    for (int i = 0; i < segs; ++i) {
        for (int j = 0; j < nSides; ++j) {
            const uint32_t q[4] = {gv(i, j), gv(i + 1, j), gv(i + 1, j + 1), gv(i, j + 1)};
            const uint32_t t[4] = {tv(i, j), tv(i + 1, j), tv(i + 1, j + 1), tv(i, j + 1)};
            b.quad(q, t, 1, 1);
        }
    }
    return b.take();
}

Mesh makeCylinderMesh(float radius, float height, int heightSegs, int sides) {
    radius = clampSize(radius);
    height = clampSize(height);
    const int nh = clampSegs(heightSegs, 1), ns = clampSegs(sides, 3);

    MeshBuilder b;
    b.reserve(size_t(nh + 1) * ns + 2, size_t(nh + 1) * (ns + 1) + 2 * size_t(ns + 1),
              size_t(ns) * (2 * nh + 2));
    // Rings of side vertices from the base up, then the two cap centres.
    for (int k = 0; k <= nh; ++k) {
        const float z = height * float(k) / float(nh);
        for (int j = 0; j < ns; ++j) {
            const float phi = kTwoPi * float(j) / float(ns);
            b.vert({radius * std::cos(phi), radius * std::sin(phi), z});
        }
    }
    const uint32_t bottomCentre = b.vert({0, 0, 0});
    const uint32_t topCentre = b.vert({0, 0, height});
    auto gv = [&](int k, int j) { return uint32_t(k * ns + j % ns); };

    // Side UVs wrap once around with a seam column; caps are mapped flat,
    // the bottom mirrored so it reads unflipped from below.
    for (int k = 0; k <= nh; ++k) {
        for (int j = 0; j <= ns; ++j) b.uv(float(j) / ns, float(k) / nh);
    }
    auto sideUv = [&](int k, int j) { return uint32_t(k * (ns + 1) + j); };
    const uint32_t bottomUv = b.uv(0.5f, 0.5f);
    for (int j = 0; j < ns; ++j) {
        const float phi = kTwoPi * float(j) / float(ns);
        b.uv(0.5f - 0.5f * std::cos(phi), 0.5f + 0.5f * std::sin(phi));
    }
    const uint32_t topUv = b.uv(0.5f, 0.5f);
    for (int j = 0; j < ns; ++j) {
        const float phi = kTwoPi * float(j) / float(ns);
        b.uv(0.5f + 0.5f * std::cos(phi), 0.5f + 0.5f * std::sin(phi));
    }
    auto capUv = [&](uint32_t centre, int j) { return centre + 1 + uint32_t(j % ns); };

    constexpr uint32_t kSideGroup = 1, kBottomGroup = 2, kTopGroup = 4;
    constexpr uint16_t kBottomMtl = 1, kTopMtl = 2, kSideMtl = 3;
    for (int j = 0; j < ns; ++j) {
        b.tri(bottomCentre, gv(0, j + 1), gv(0, j), bottomUv, capUv(bottomUv, j + 1),
              capUv(bottomUv, j), kBottomGroup, kBottomMtl);
    }
    // Around then up turns outward.
    for (int k = 0; k < nh; ++k) {
        for (int j = 0; j < ns; ++j) {
            const uint32_t q[4] = {gv(k, j), gv(k, j + 1), gv(k + 1, j + 1), gv(k + 1, j)};
            const uint32_t t[4] = {sideUv(k, j), sideUv(k, j + 1), sideUv(k + 1, j + 1),
                                   sideUv(k + 1, j)};
            b.quad(q, t, kSideGroup, kSideMtl);
        }
    }
    for (int j = 0; j < ns; ++j) {
        b.tri(topCentre, gv(nh, j), gv(nh, j + 1), topUv, capUv(topUv, j), capUv(topUv, j + 1),
              kTopGroup, kTopMtl);
    }
    return b.take();
}

}  // namespace mq
