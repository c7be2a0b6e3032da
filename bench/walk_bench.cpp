// Ray queries through the segment walk and the octree, in tile space and
// through a world-space piece. Run: build/release/bin/walk_bench
#include "engine/octree.h"
#include "engine/primitive.h"
#include "engine/segment_walk.h"
#include "engine/tile.h"
#include "host/mesh.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace mq {
namespace {

const Point3 kCrop(100, 100, 20);

// A wavy height field of 160 x 160 quads (51,200 triangles) filling the
// crop box, split into 2 x 2 segments.
const PatternTile& denseTile() {
    static const std::unique_ptr<PatternTile> tile = [] {
        Mesh mesh = makePlaneMesh(100, 100, 160, 160);
        for (Point3& v : mesh.verts) v.z = 6.0f * std::sin(v.x / 7.0f) * std::cos(v.y / 5.0f);
        auto t = std::make_unique<PatternTile>();
        t->build(mesh, Matrix3(), kCrop, 2, 2);
        SegmentRandomTable::fill();
        return t;
    }();
    return *tile;
}

// Rays from above the slab over 10 x 10 tiles; slope is the largest
// horizontal step per unit of descent (large = grazing, long walks).
std::vector<TileRay> tileRays(float slope, int count) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> spread(-500.0f, 500.0f), unit(-1.0f, 1.0f);
    std::vector<TileRay> rays(count);
    for (int i = 0; i < count; ++i) {
        TileRay& r = rays[i];
        r.origin = Point3(spread(rng), spread(rng), 30.0f);
        r.direction = Point3(unit(rng) * slope, unit(rng) * slope, -1.0f);
        r.tStart = 0.0f;
        r.tEnd = 1e30f;
        r.seed = i % 97;
    }
    return rays;
}

void BM_TileRayWalk(benchmark::State& state) {
    const PatternTile& tile = denseTile();
    const std::vector<TileRay> rays = tileRays(float(state.range(0)) / 10.0f, 1 << 14);
    size_t i = 0;
    int64_t hits = 0;
    for (auto _ : state) {
        TileRay ray = rays[i++ & (rays.size() - 1)];
        TileHit hit;
        const bool found = walkSegments(tile, ray, hit);
        hits += found;
        benchmark::DoNotOptimize(hit);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["hit_fraction"] = double(hits) / double(state.iterations());
    const OctreeStats stats = octreeStats(tile.tree.get());
    state.counters["leaves"] = stats.leaves;
    state.counters["largest_leaf"] = stats.largestLeaf;
}
// Argument: slope x 10 (0.5: steep rays; 50: grazing rays crossing many cells).
BENCHMARK(BM_TileRayWalk)->Arg(5)->Arg(50);

// One piece spanning 2 x 2 tiles and the full crop height, under an affine
// world map; world rays aimed at random points inside it.
void BM_PrimitiveIntersect(benchmark::State& state) {
    const PatternTile& tile = denseTile();
    const Point3 tc[4] = {{0, 0, 0}, {200, 0, 0}, {0, 200, 0}, {0, 0, 20}};
    const Matrix3 map = ScaleMatrix(Point3(0.05f, 0.05f, 0.04f)) * RotateZMatrix(0.4f) *
                        TransMatrix(Point3(3, -2, 1));
    Point3 w[4], dirs[4];
    for (int i = 0; i < 4; ++i) {
        w[i] = tc[i] * map;
        dirs[i] = Point3(0, 0, 1);
    }
    MosaiqPrimitive prim;
    prim.tile = &tile;
    if (!prim.init(w, tc, dirs, Point3(0, 0, 1), 42)) {
        state.SkipWithError("piece dropped");
        return;
    }
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<WorldRay> rays(1 << 14);
    for (WorldRay& ray : rays) {
        const float b[4] = {unit(rng), unit(rng), unit(rng), unit(rng)};
        const Point3 target =
            (w[0] * b[0] + w[1] * b[1] + w[2] * b[2] + w[3] * b[3]) / (b[0] + b[1] + b[2] + b[3]);
        const Point3 dir = Normalize(Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f));
        const Point3 origin = target - dir * 5.0f;
        ray.origin[0] = origin.x;
        ray.origin[1] = origin.y;
        ray.origin[2] = origin.z;
        ray.direction = dir;
    }
    size_t i = 0;
    int64_t hits = 0;
    for (auto _ : state) {
        WorldRay ray = rays[i++ & (rays.size() - 1)];
        TileHit hit;
        hits += prim.intersect(ray, hit);
        benchmark::DoNotOptimize(hit);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["hit_fraction"] = double(hits) / double(state.iterations());
}
BENCHMARK(BM_PrimitiveIntersect);

}  // namespace
}  // namespace mq
