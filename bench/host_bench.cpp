// Host-layer costs that scale with scene size.
#include "host/mesh.h"

#include <benchmark/benchmark.h>

namespace mq {
namespace {

// Normals of a million-face mesh with mixed smoothing groups, as an
// imported surface without file normals gets them.
void BM_CheckNormals(benchmark::State& state) {
    Mesh m = makePlaneMesh(10, 10, 1000, static_cast<int>(state.range(0)) / 2000);
    for (size_t f = 0; f < m.faces.size(); ++f) m.faces[f].smGroup = 1u << (f / 2000 % 32);
    m.SpecifyNormals();
    for (auto _ : state) {
        m.GetSpecifiedNormals()->Clear();
        m.GetSpecifiedNormals()->CheckNormals();
        benchmark::DoNotOptimize(m.GetSpecifiedNormals()->GetNumNormals());
    }
    state.SetItemsProcessed(state.iterations() * m.getNumFaces());
}
BENCHMARK(BM_CheckNormals)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace mq
