// Pattern capture costs: the tile build with its octree over a
// 100k-triangle pattern, on one thread and with the default thread limit.
#include "engine/octree.h"
#include "engine/tile.h"
#include "host/mesh.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <random>

namespace mq {
namespace {

// A torus of 250 x 200 quads: 100,000 triangles.
const Mesh& torusPattern() {
    static const Mesh mesh = makeTorusMesh(50.0f, 12.0f, 250, 200);
    return mesh;
}
const Point3 kCropSize(130.0f, 130.0f, 26.0f);

// What capture does once it has the pattern's mesh: the deep copy, then the
// tile build (normals, faces, octree, links, map channels). Arg: the thread
// limit, -1 for the default (twice the processor count).
void BM_CaptureBuild(benchmark::State& state) {
    const int threadLimit = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Mesh mesh;
        mesh.DeepCopy(torusPattern(), 0x23FF);
        PatternTile tile;
        tile.build(mesh, Matrix3(), kCropSize, 1, 1, {.threadLimit = threadLimit});
        benchmark::DoNotOptimize(tile.tree.get());
        state.PauseTiming();  // freeing the tile is release()'s cost, not capture's
        tile.release();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * torusPattern().getNumFaces());
    state.SetLabel(threadLimit < 0 ? "default thread limit" : "one thread");
}
BENCHMARK(BM_CaptureBuild)->Arg(0)->Arg(-1)->Unit(benchmark::kMillisecond)->UseRealTime();

// The octree alone, over the faces of a built tile.
void BM_OctreeBuild(benchmark::State& state) {
    Mesh mesh = torusPattern();
    PatternTile tile;
    tile.build(mesh, Matrix3(), kCropSize, 1, 1, {.threadLimit = 0});
    std::vector<const PatternFace*> faces;
    for (const PatternFace& f : tile.faces) faces.push_back(&f);
    const int limit = state.range(0) < 0 ? defaultBuildThreadLimit() : int(state.range(0));
    for (auto _ : state) {
        OctreeBuild build;
        build.threadLimit = limit;
        PatternOctreeNode root(tile.tree->box, faces, 0, 0, build);
        linkNeighbours(&root);
        benchmark::DoNotOptimize(&root);
        state.PauseTiming();
        state.counters["nodes"] = octreeStats(&root).nodes;
        state.ResumeTiming();
    }
}
BENCHMARK(BM_OctreeBuild)->Arg(0)->Arg(-1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Rays from above the tile down onto the pattern, walked through the octree.
void BM_Traverse(benchmark::State& state) {
    Mesh mesh = torusPattern();
    PatternTile tile;
    tile.build(mesh, Matrix3(), kCropSize, 1, 1);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<TileRay> rays(4096);
    for (TileRay& r : rays) {
        r.origin = Point3(kCropSize.x * u(rng), kCropSize.y * u(rng), kCropSize.z);
        r.direction = Point3(u(rng) - 0.5f, u(rng) - 0.5f, -1.0f);
        r.tEnd = 1e30f;
        clipRayToBox(r.origin, r.direction, tile.tree->box, r.tStart, r.tEnd);
    }
    size_t i = 0, hits = 0;
    for (auto _ : state) {
        TileRay r = rays[i++ & 4095];
        TileHit hit;
        hits += traverse(r, tile.tree.get(), hit);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["hit rate"] = double(hits) / double(state.iterations());
}
BENCHMARK(BM_Traverse);

}  // namespace
}  // namespace mq
