#include "render/preview.h"

#include "engine/octree.h"
#include "engine/ray.h"
#include "host/math.h"

#include <cmath>
#include <cstddef>
#include <utility>

namespace mq {

namespace {

constexpr int kGridSide = 8;
constexpr int kSamples = kGridSide * kGridSide;
constexpr float kCell = 0.125f;        // one grid cell, and the jitter's reach
constexpr float kMaxSide = 2048.0f;    // pixels on the longer side at most
constexpr float kLightReach = 10.0f;   // tile units a light ray looks for a blocker
constexpr float kLightStart = 0.001f;  // of that reach: keeps the ray off its own face

// Whether the ray meets the tile itself (no segment repetition) within
// [tStart, tEnd]; on a hit ray.tEnd is its parameter.
bool hitsTile(const PatternOctreeNode* root, TileRay& ray, TileHit& hit) {
    if (!root) return false;
    return clipRayToBox(ray.origin, ray.direction, root->box, ray.tStart, ray.tEnd) &&
           traverse(ray, root, hit);
}

// Smooth pattern normal at a hit, as the render shades with.
Point3 normalAt(const PatternTile& tile, const TileHit& hit) {
    const PatternFace& face = tile.faces[size_t(hit.faceIndex)];
    return Normalize(*face.normal[0] * (1.0f - hit.beta - hit.gamma) + *face.normal[1] * hit.beta +
                     *face.normal[2] * hit.gamma);
}

}  // namespace

bool previewImageSize(const Point3& cropSize, int32_t textureSize, int& width, int& height) {
    width = height = 0;
    const float sizeX = cropSize.x, sizeY = cropSize.y;
    if (!(sizeX > 0.0f && sizeY > 0.0f) || textureSize < 1) return false;
    const float t = float(textureSize);
    const float s = std::sqrt(sizeX * sizeY);
    float w = sizeX / s * t;
    float h = sizeY / s * t;
    if (w > kMaxSide) {
        const float f = kMaxSide / w;
        w *= f;
        h *= f;
    }
    if (h > kMaxSide) {
        const float f = kMaxSide / h;
        w *= f;
        h *= f;
    }
    // Also false for NaN and infinity (extents whose product under- or overflows).
    if (!(w + 0.5f >= 1.0f && h + 0.5f >= 1.0f && w <= kMaxSide + 1.0f && h <= kMaxSide + 1.0f))
        return false;
    width = int(w + 0.5f);
    height = int(h + 0.5f);
    return true;
}

bool renderPreviewTexture(const PatternTile& tile, int32_t textureSize, PreviewImage& out) {
    out = PreviewImage();
    int width = 0, height = 0;
    if (!tile.built || !previewImageSize(tile.cropSize, textureSize, width, height)) return false;
    const float sizeX = tile.cropSize.x, sizeY = tile.cropSize.y, sizeZ = tile.cropSize.z;
    const PatternOctreeNode* root = tile.tree.get();

    // Transparent black wherever no sample lands on the pattern.
    out.rgba.assign(size_t(width) * size_t(height) * 4, 0.0f);
    out.width = width;
    out.height = height;

    // A generator in its default state: the same tile always gives the same picture.
    RandGenerator rng;
    Point3 grid[kSamples], shuffled[kSamples];
    for (int i = 0; i < kGridSide; ++i)
        for (int j = 0; j < kGridSide; ++j)
            grid[i * kGridSide + j] = Point3(float(i) * kCell, float(j) * kCell, 0.0f);
    // Light directions pair with the primary samples through a shuffle, so
    // a sample's position and its light direction are not correlated.
    for (int k = 0; k < kSamples; ++k) shuffled[k] = grid[k];
    for (int k = 0; k < kSamples; ++k)
        std::swap(shuffled[k], shuffled[int(rng.Rand01() * float(kSamples))]);

    const Point3 down(0.0f, 0.0f, -2.0f * sizeZ);
    for (int y = 0; y < height; ++y) {
        // Image rows run from the tile's largest y down.
        float* line = &out.rgba[size_t(height - 1 - y) * size_t(width) * 4];
        for (int x = 0; x < width; ++x) {
            int covered = 0;
            float light = 0.0f;
            for (int k = 0; k < kSamples; ++k) {
                // Straight down from the top of the crop box through all of it.
                const float jx = rng.Rand01() * kCell;
                const float jy = rng.Rand01() * kCell;
                TileRay ray;
                ray.origin =
                    Point3((float(x) + grid[k].x + jx) / float(width) * sizeX,
                           (float(y) + grid[k].y + jy) / float(height) * sizeY, 1.0f * sizeZ);
                ray.direction = down;
                ray.tStart = 0.0f;
                ray.tEnd = 1.0f;
                TileHit hit;
                if (!hitsTile(root, ray, hit)) continue;
                ++covered;

                // A light direction over the square -1..1; z = 2 - x^2 - y^2
                // (not 1 - ...) leans every direction towards the zenith and
                // keeps z from going negative.
                const float lx = rng.Rand01() * kCell;
                const float ly = rng.Rand01() * kCell;
                Point3 d(2.0f * (shuffled[k].x + lx) - 1.0f, 2.0f * (shuffled[k].y + ly) - 1.0f,
                         0.0f);
                d.z = 2.0f - d.x * d.x - d.y * d.y;
                if (d.z > 0.0f) d = Normalize(d);
                const float dn = DotProd(d, normalAt(tile, hit));

                // Lit unless the pattern blocks the light within reach.
                TileRay toLight;
                toLight.origin = ray.origin + ray.direction * ray.tEnd;
                toLight.direction = d * kLightReach;
                toLight.tStart = kLightStart;
                toLight.tEnd = 1.0f;
                TileHit blocker;
                if (!hitsTile(root, toLight, blocker)) light += std::fabs(dn);
            }
            float* px = line + size_t(x) * 4;
            px[0] = px[1] = px[2] = light / float(kSamples);
            px[3] = float(covered) / float(kSamples);
        }
    }
    return true;
}

}  // namespace mq
