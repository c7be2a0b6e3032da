#include "render/preview.h"

#include "engine/octree.h"
#include "engine/ray.h"
#include "host/math.h"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

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

namespace {

// One covered sample as the stream drew it: where the ray met the tile and
// the light jitter drawn for it.
struct CoveredSample {
    Point3 at;
    int32_t faceIndex;
    float beta, gamma;
    float lx, ly;
    int32_t k;
};

// The covered samples of a band of rows, pixel by pixel.
struct Band {
    std::vector<CoveredSample> samples;
    std::vector<uint32_t> pixelStart;  // width * rows + 1 offsets into samples
};

constexpr int kBandRows = 1;
// Bands traced but not yet shaded, per thread: bounds the memory held.
constexpr int kPendingPerThread = 4;

}  // namespace

bool renderPreviewTexture(const PatternTile& tile, int32_t textureSize, PreviewImage& out,
                          int threads) {
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

    // The stream's draws depend on which primary rays hit (a miss draws no
    // light jitter), so the primary rays are traced in stream order on this
    // thread; shading and the light rays, which draw nothing, run on all.
    const Point3 down(0.0f, 0.0f, -2.0f * sizeZ);
    auto trace = [&](int firstRow, int rows, Band& band) {
        band.samples.clear();
        band.pixelStart.assign(1, 0);
        for (int y = firstRow; y < firstRow + rows; ++y) {
            for (int x = 0; x < width; ++x) {
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
                    const float lx = rng.Rand01() * kCell;
                    const float ly = rng.Rand01() * kCell;
                    band.samples.push_back({ray.origin + ray.direction * ray.tEnd, hit.faceIndex,
                                            hit.beta, hit.gamma, lx, ly, k});
                }
                band.pixelStart.push_back(uint32_t(band.samples.size()));
            }
        }
    };
    auto shade = [&](int firstRow, const Band& band) {
        for (size_t p = 0; p + 1 < band.pixelStart.size(); ++p) {
            const int y = firstRow + int(p / size_t(width)), x = int(p % size_t(width));
            float light = 0.0f;
            for (uint32_t i = band.pixelStart[p]; i < band.pixelStart[p + 1]; ++i) {
                const CoveredSample& s = band.samples[i];
                // A light direction over the square -1..1; z = 2 - x^2 - y^2
                // (not 1 - ...) leans every direction towards the zenith and
                // keeps z from going negative.
                Point3 d(2.0f * (shuffled[s.k].x + s.lx) - 1.0f,
                         2.0f * (shuffled[s.k].y + s.ly) - 1.0f, 0.0f);
                d.z = 2.0f - d.x * d.x - d.y * d.y;
                if (d.z > 0.0f) d = Normalize(d);
                TileHit hit;
                hit.faceIndex = s.faceIndex;
                hit.beta = s.beta;
                hit.gamma = s.gamma;
                const float dn = DotProd(d, normalAt(tile, hit));

                // Lit unless the pattern blocks the light within reach.
                TileRay toLight;
                toLight.origin = s.at;
                toLight.direction = d * kLightReach;
                toLight.tStart = kLightStart;
                toLight.tEnd = 1.0f;
                TileHit blocker;
                if (!hitsTile(root, toLight, blocker)) light += std::fabs(dn);
            }
            // Image rows run from the tile's largest y down.
            float* px = &out.rgba[(size_t(height - 1 - y) * size_t(width) + size_t(x)) * 4];
            px[0] = px[1] = px[2] = light / float(kSamples);
            px[3] = float(band.pixelStart[p + 1] - band.pixelStart[p]) / float(kSamples);
        }
    };

    if (threads <= 0) threads = int(std::max(1u, std::thread::hardware_concurrency()));
    const int bandCount = (height + kBandRows - 1) / kBandRows;
    std::vector<Band> bands(static_cast<size_t>(bandCount));
    std::mutex mutex;
    std::condition_variable changed;
    int traced = 0, taken = 0;  // bands traced; bands taken for shading
    bool stop = false;
    std::exception_ptr error;

    // Shades one band when one is waiting; false when none is.
    auto shadeOne = [&](std::unique_lock<std::mutex>& lock) {
        if (taken >= traced || stop) return false;
        const int b = taken++;
        lock.unlock();
        try {
            shade(b * kBandRows, bands[size_t(b)]);
            bands[size_t(b)] = Band();
        } catch (...) {
            lock.lock();
            if (!error) error = std::current_exception();
            stop = true;
            changed.notify_all();
            return false;
        }
        lock.lock();
        changed.notify_all();
        return true;
    };
    auto worker = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return stop || taken < traced || taken == bandCount; });
            if (stop || taken == bandCount) return;
            shadeOne(lock);
        }
    };
    std::vector<std::thread> workers;
    for (int t = 1; t < threads && t < bandCount; ++t) {
        try {
            workers.emplace_back(worker);
        } catch (const std::system_error&) {
            break;  // fewer threads only take longer
        }
    }

    try {
        std::unique_lock<std::mutex> lock(mutex);
        const int maxPending = kPendingPerThread * (int(workers.size()) + 1);
        for (int b = 0; b < bandCount && !stop; ++b) {
            // Ahead by too much: shade instead of tracing on.
            while (traced - taken >= maxPending && shadeOne(lock)) {
            }
            if (stop) break;
            lock.unlock();
            trace(b * kBandRows, std::min(kBandRows, height - b * kBandRows), bands[size_t(b)]);
            lock.lock();
            ++traced;
            changed.notify_one();
        }
        while (shadeOne(lock)) {
        }
    } catch (...) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) error = std::current_exception();
        stop = true;
        changed.notify_all();
    }
    for (std::thread& w : workers) w.join();
    if (error) {
        out = PreviewImage();
        std::rethrow_exception(error);
    }
    return true;
}

}  // namespace mq
