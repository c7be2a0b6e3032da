#include "engine/primitive.h"

#include "engine/segment_walk.h"
#include "host/check.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace mq {

namespace {

// Both the unit-to-tile and unit-to-world frames must be at least this far
// from singular.
constexpr float kMinDeterminant = 1e-30f;

Box3 emptyBox() { return Box3(Point3(1e20f, 1e20f, 1e20f), Point3(-1e20f, -1e20f, -1e20f)); }

}  // namespace

bool MosaiqPrimitive::init(const Point3 w[4], const Point3 tc[4], const Point3 cornerDirs[4],
                           const Point3& up, int32_t cellSeed) {
    for (int i = 0; i < 4; ++i) corners[i] = w[i];

    // Face i lies opposite corner i; its point is the centroid of the other three.
    sidePlanes[0] = {(w[1] + w[2] + w[3]) / 3.0f, Normalize(CrossProd(w[3] - w[2], w[1] - w[2]))};
    sidePlanes[1] = {(w[0] + w[2] + w[3]) / 3.0f, Normalize(CrossProd(w[3] - w[0], w[2] - w[3]))};
    sidePlanes[2] = {(w[1] + w[0] + w[3]) / 3.0f, Normalize(CrossProd(w[1] - w[0], w[3] - w[0]))};
    sidePlanes[3] = {(w[1] + w[2] + w[0]) / 3.0f, Normalize(CrossProd(w[1] - w[2], w[0] - w[1]))};

    for (int i = 0; i < 4; ++i) cornerNormals[i] = Normalize(cornerDirs[i]);
    upVector = Normalize(up);

    // Unit tetrahedron coordinates -> tile space.
    Matrix3 unitToTile(tc[1] - tc[0], tc[2] - tc[0], tc[3] - tc[0], tc[0]);
    if (std::fabs(unitToTile.Determinant()) < kMinDeterminant) return false;
    unitToTile.Invert();
    // Unit tetrahedron coordinates -> world space.
    const Matrix3 unitToWorld(w[1] - w[0], w[2] - w[0], w[3] - w[0], w[0]);
    if (std::fabs(unitToWorld.Determinant()) < kMinDeterminant) return false;

    tileToWorld = unitToTile * unitToWorld;
    shadingTM = Inverse(unitToWorld);
    worldToTile = Inverse(tileToWorld);
    // Normals go back with the inverse transpose; only the 3x3 part is used.
    normalTM = Transpose3(worldToTile);
    seed = cellSeed;

    // Corners in the other winding turn the side normals inwards.
    return DotProd(w[0] - sidePlanes[0].point, sidePlanes[0].normal) < 0.0f;
}

Box3 MosaiqPrimitive::boundingBox() const {
    Box3 box = emptyBox();
    for (const Point3& c : corners) box += c;
    return box;
}

void MosaiqPrimitive::splitBox(int axis, float position, Box3& lower, Box3& upper) const {
    lower = emptyBox();
    upper = emptyBox();
    // Edges crossing the plane contribute their crossing point to both sides.
    static constexpr int kPairs[6][2] = {{1, 0}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}};
    for (const auto& pair : kPairs) {
        const Point3& ci = corners[pair[0]];
        const Point3& cj = corners[pair[1]];
        if ((ci[axis] < position) != (cj[axis] < position)) {
            const float t = (position - ci[axis]) / (cj[axis] - ci[axis]);
            const Point3 crossing = cj * t + ci * (1.0f - t);
            lower += crossing;
            upper += crossing;
        }
    }
    for (const Point3& c : corners) {
        if (c[axis] < position) {
            lower += c;
        } else {
            upper += c;
        }
    }
}

bool MosaiqPrimitive::intersect(WorldRay& ray, TileHit& hit) const {
    MQ_DCHECK(tile != nullptr);
    TileRay tileRay;
    tileRay.ownerKey = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this));
    tileRay.skipKey = ray.skipKey;
    tileRay.tStart = ray.tMin;
    tileRay.tEnd = static_cast<float>(std::min(static_cast<double>(ray.tMax), ray.bestDistance));

    // Clip to the tetrahedron in world space, with the origin in single precision.
    const Point3 origin(static_cast<float>(ray.origin[0]), static_cast<float>(ray.origin[1]),
                        static_cast<float>(ray.origin[2]));
    const Point3& direction = ray.direction;
    for (const Plane& plane : sidePlanes) {
        const float dn = DotProd(direction, plane.normal);
        if (dn > 0.0f) {
            tileRay.tEnd = std::min(tileRay.tEnd, DotProd(plane.point - origin, plane.normal) / dn);
        } else if (dn < 0.0f) {
            tileRay.tStart =
                std::max(tileRay.tStart, DotProd(plane.point - origin, plane.normal) / dn);
        } else if (DotProd(origin - plane.point, plane.normal) > 0.0f) {
            return false;  // parallel to the plane and outside it
        }
        // The range only shrinks: once empty it stays so (NaN is left to
        // the test below).
        if (tileRay.tStart > tileRay.tEnd) return false;
    }
    if (!(tileRay.tStart <= tileRay.tEnd)) return false;

    // Into tile space; the direction keeps its length so t carries over.
    tileRay.direction = worldToTile.VectorTransform(direction);
    tileRay.origin = worldToTile.PointTransform(origin);
    tileRay.seed = seed;

    TileHit tileHit;
    if (!tile || !walkSegments(*tile, tileRay, tileHit)) return false;

    // The hit point starts from the renderer's double-precision origin.
    const float t = tileRay.tEnd;
    const Point3 worldPoint(static_cast<float>(ray.origin[0] + double(direction.x) * t),
                            static_cast<float>(ray.origin[1] + double(direction.y) * t),
                            static_cast<float>(ray.origin[2] + double(direction.z) * t));
    tileHit.shadingPoint = worldPoint * shadingTM;
    hit = tileHit;
    ray.bestDistance = t;
    ray.hitPrimitive = this;
    ray.hitKey = tileHit.faceKey;
    return true;
}

Point3 MosaiqPrimitive::geometricNormal(const TileHit& hit) const {
    const PatternFace& face = tile->faces[hit.faceIndex];
    return Normalize(normalTM.VectorTransform(face.faceNormal));
}

Point3 MosaiqPrimitive::shadingNormal(const TileHit& hit) const {
    const Point3& s = hit.shadingPoint;
    // Surface normal blended over the piece by the shading point.
    const Point3 n =
        Normalize(cornerNormals[0] * (1.0f - s.x - s.y - s.z) + cornerNormals[1] * s.x +
                  cornerNormals[2] * s.y + cornerNormals[3] * s.z);
    const Point3 up = Normalize(upVector);

    // Bend: the rotation that turns up into n; none when they are parallel or
    // opposite (the cross product is exactly zero).
    Matrix3 bend;
    Point3 axis = CrossProd(up, n);
    const float axisLength = Length(axis);
    if (axisLength != 0.0f) {
        axis = axis / axisLength;
        const Matrix3 fromFrame(up, CrossProd(up, axis), axis, Point3());
        const Matrix3 toFrame(n, CrossProd(n, axis), axis, Point3());
        bend = Inverse(fromFrame) * toFrame;
    }

    // Smooth pattern normal from the hit face's corners.
    const PatternFace& face = tile->faces[hit.faceIndex];
    const Point3 m = Normalize(*face.normal[0] * (1.0f - hit.beta - hit.gamma) +
                               *face.normal[1] * hit.beta + *face.normal[2] * hit.gamma);
    return Normalize(bend.VectorTransform(normalTM.VectorTransform(m)));
}

}  // namespace mq
