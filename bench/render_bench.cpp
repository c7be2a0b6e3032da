// Surface mapping per frame over a 1,000,000-face plane (1000 x 500 quads
// with UVs): the whole frame from the parameter block (mesh copy, world
// transform, analysis, pieces), and the part after the world mesh.
// Target: at least 1 million surface faces per second.
#include "engine/tile.h"
#include "host/mesh.h"
#include "host/node.h"
#include "host/object.h"
#include "render/surface_mapping.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace mq {
namespace {

Mesh surfaceMesh() {
    Mesh mesh = makePlaneMesh(500.0f, 1000.0f, 500, 1000);
    for (Face& f : mesh.faces) f.setMatID(0);  // in the default Poli_ID range 1..1
    return mesh;
}

// A tile of one floor triangle pair over a 10 x 10 x 5 crop box.
std::unique_ptr<PatternTile> floorTile() {
    const Point3 crop(10, 10, 5);
    Mesh mesh;
    mesh.verts = {{0, 0, 1}, {10, 0, 1}, {10, 10, 1}, {0, 10, 1}};
    mesh.faces.resize(2);
    const uint32_t tris[2][3] = {{0, 1, 2}, {0, 2, 3}};
    for (int f = 0; f < 2; ++f) {
        for (int c = 0; c < 3; ++c) mesh.faces[f].v[c] = tris[f][c];
    }
    auto tile = std::make_unique<PatternTile>();
    tile->build(mesh, TransMatrix(crop * -0.5f), crop, 1, 1, {.threadLimit = 0});
    return tile;
}

void BM_SurfaceMappingFrame(benchmark::State& state) {
    auto tile = floorTile();
    Node node("Surface");
    node.SetObjectRef(new TriObject(surfaceMesh()));
    node.setLocalTM(RotateZMatrix(0.2f) * TransMatrix(Point3(5, -3, 2)));
    SurfaceMappingSettings settings;
    settings.surface = node.GetHandle();
    std::vector<MosaiqPrimitive> pieces;  // kept across frames, as the render instance does
    SurfaceMapping mapping;
    mapping.build(settings, *tile, 0, pieces);  // first frame sizes the pieces array
    int64_t faces = 0;
    for (auto _ : state) {
        if (!mapping.build(settings, *tile, 0, pieces)) state.SkipWithError("mapping failed");
        benchmark::DoNotOptimize(pieces.data());
        faces += mapping.stats.facesInRange;
    }
    state.SetItemsProcessed(faces);
    state.counters["pieces"] = double(mapping.primitiveCount);
}
BENCHMARK(BM_SurfaceMappingFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SurfaceMappingFromWorldMesh(benchmark::State& state) {
    auto tile = floorTile();
    Mesh mesh = surfaceMesh();
    std::vector<MosaiqPrimitive> pieces;
    SurfaceMapping mapping;
    const SurfaceMappingSettings settings;
    mapping.buildFromMesh(mesh, *tile, settings, pieces);
    int64_t faces = 0;
    for (auto _ : state) {
        if (!mapping.buildFromMesh(mesh, *tile, settings, pieces))
            state.SkipWithError("mapping failed");
        benchmark::DoNotOptimize(pieces.data());
        faces += mapping.stats.facesInRange;
    }
    state.SetItemsProcessed(faces);
}
BENCHMARK(BM_SurfaceMappingFromWorldMesh)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace mq
