// Pattern tiles built from triangles given directly in tile space.
#pragma once

#include "engine/tile.h"

#include <algorithm>
#include <array>
#include <memory>
#include <random>
#include <vector>

namespace mq::test {

using Triangle = std::array<Point3, 3>;

// Normals per face corner, or none for the mesh's own; UVs on channel 1 are
// tile positions over the crop size. The build centres the crop box on
// crop / 2; the crop matrix undoes that so mesh coordinates are tile
// coordinates.
inline std::unique_ptr<PatternTile> makeTile(const std::vector<Triangle>& tris, const Point3& crop,
                                             int segU, int segV,
                                             const std::vector<Triangle>& normals = {}) {
    Mesh mesh;
    mesh.setNumVerts(int(tris.size()) * 3);
    mesh.setNumFaces(int(tris.size()));
    mesh.setMapSupport(1);
    std::vector<Point3> normalPool;
    std::vector<std::array<int, 3>> normalFaces;
    for (size_t f = 0; f < tris.size(); ++f) {
        for (int c = 0; c < 3; ++c) {
            mesh.setVert(int(f * 3 + c), tris[f][c]);
            mesh.faces[f].v[c] = mesh.Map(1).faces[f].t[c] = uint32_t(f * 3 + c);
            const Point3& p = tris[f][c];
            mesh.Map(1).verts.push_back({p.x / crop.x, p.y / crop.y, p.z / crop.z});
            if (!normals.empty()) normalPool.push_back(normals[f][c]);
        }
        normalFaces.push_back({int(f * 3), int(f * 3 + 1), int(f * 3 + 2)});
    }
    if (!normals.empty()) {
        mesh.SpecifyNormals();
        mesh.GetSpecifiedNormals()->SetNormals(normalPool, normalFaces);
    }
    auto tile = std::make_unique<PatternTile>();
    tile->build(mesh, TransMatrix(crop * -0.5f), crop, segU, segV);
    return tile;
}

// Two triangles covering [x0, x1] x [y0, y1] at height z; the first holds
// the points below the diagonal.
inline void addFloor(std::vector<Triangle>& tris, float x0, float y0, float x1, float y1, float z) {
    tris.push_back({Point3(x0, y0, z), Point3(x1, y0, z), Point3(x1, y1, z)});
    tris.push_back({Point3(x0, y0, z), Point3(x1, y1, z), Point3(x0, y1, z)});
}

// One floor at z = 1 over the whole crop box, in one segment.
inline std::unique_ptr<PatternTile> floorTile(const Point3& crop) {
    std::vector<Triangle> tris;
    addFloor(tris, 0, 0, crop.x, crop.y, 1);
    return makeTile(tris, crop, 1, 1);
}

// `count` random triangles in (0..10)^3 whose second and third corners lie
// within spread / 2 of the first on each axis.
template <class Rng>
std::vector<Triangle> randomSoup(Rng& rng, int count, float spread) {
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Triangle> tris;
    for (int i = 0; i < count; ++i) {
        const Point3 a(unit(rng) * 10, unit(rng) * 10, unit(rng) * 10);
        auto near = [&] {
            Point3 p = a + Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f) * spread;
            for (int k = 0; k < 3; ++k) p[k] = std::clamp(p[k], 0.0f, 10.0f);
            return p;
        };
        tris.push_back({a, near(), near()});
    }
    return tris;
}

}  // namespace mq::test
