// One tetrahedral piece of tiled geometry: carries world rays into tile
// space and intersects them with the pattern.
#pragma once

#include "engine/ray.h"
#include "engine/tile.h"
#include "host/math.h"

#include <cstdint>

namespace mq {

class MosaiqPrimitive;

// A world-space ray as the renderer hands it over: double-precision origin,
// range, current best distance, and the key of the face it starts on. A hit
// writes bestDistance, hitPrimitive and hitKey.
struct WorldRay {
    double origin[3] = {0, 0, 0};
    Point3 direction;
    float tMin = 0.0f;
    float tMax = 1e30f;
    double bestDistance = 1e30;  // written on a nearer hit
    int64_t skipKey = -1;
    const MosaiqPrimitive* hitPrimitive = nullptr;  // the piece of the best hit
    int64_t hitKey = -1;                            // faceKey of the best hit
};

class MosaiqPrimitive {
public:
    // Set up from world corners w, tile corners tc, corner normals, up vector
    // and cell seed. False when the piece is degenerate or inside out; the
    // fields are written up to the failing step either way.
    bool init(const Point3 w[4], const Point3 tc[4], const Point3 cornerDirs[4], const Point3& up,
              int32_t seed);

    // World box of the four corners (empty box: min 1e20, max -1e20).
    Box3 boundingBox() const;
    // Split the piece's box at position on axis into the parts below and above.
    void splitBox(int axis, float position, Box3& lower, Box3& upper) const;

    // Intersect within [tMin, min(tMax, bestDistance)]. On a hit writes
    // ray.bestDistance, ray.hitPrimitive, ray.hitKey and hit (face index,
    // barycentrics, shading-space point) and returns true; on a miss leaves
    // both untouched. Needs tile set; never allocates; thread-safe.
    bool intersect(WorldRay& ray, TileHit& hit) const;

    // Unit world-space normals at a hit this piece reported.
    Point3 geometricNormal(const TileHit& hit) const;
    Point3 shadingNormal(const TileHit& hit) const;

    const PatternTile* tile = nullptr;
    Matrix3 worldToTile, tileToWorld, shadingTM, normalTM;
    Point3 upVector;
    Point3 cornerNormals[4];
    int32_t seed = 0;
    Point3 corners[4];
    struct Plane {
        Point3 point, normal;  // normal points out of the tetrahedron
    } sidePlanes[4];
};

}  // namespace mq
