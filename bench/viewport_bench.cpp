// Frame time of the studio's OpenGL viewport on a 1M-triangle scene (a
// sphere of 1000 x 500 segments): still, selected (outline pass) and while
// the view moves (the coarse stand-in), measured with the GPU finished
// each frame. Needs a display: run under
// xvfb-run -a build/release/bin/viewport_bench for Mesa's llvmpipe.
#include "viewport/viewport.h"

#include "host/node.h"

#include <benchmark/benchmark.h>
#include <QApplication>

#include <cmath>

namespace {

mq::Mesh sphere(int across, int down, float radius) {
    mq::Mesh m;
    for (int j = 0; j <= down; ++j)
        for (int i = 0; i < across; ++i) {
            const float th = 3.14159265f * j / down, ph = 6.2831853f * i / across;
            m.verts.push_back({radius * std::sin(th) * std::cos(ph),
                               radius * std::sin(th) * std::sin(ph), radius * std::cos(th)});
        }
    for (int j = 0; j < down; ++j)
        for (int i = 0; i < across; ++i) {
            const uint32_t a = j * across + i, b = j * across + (i + 1) % across;
            const uint32_t c = a + across, d = b + across;
            mq::Face f1, f2;
            f1.v[0] = a, f1.v[1] = c, f1.v[2] = b;
            f2.v[0] = b, f2.v[1] = c, f2.v[2] = d;
            m.faces.push_back(f1);
            m.faces.push_back(f2);
        }
    return m;
}

void BM_ViewportFrame(benchmark::State& state) {
    mq::HostInterface ip;
    auto node = std::make_unique<mq::Node>("Sphere");
    node->SetObjectRef(new mq::TriObject(sphere(1000, 500, 50)));
    mq::Node* n = ip.scene().root()->attachChild(std::move(node));
    mosaiq::studio::Viewport view(ip);
    view.resize(1280, 720);
    view.show();
    QApplication::processEvents();
    if (!view.glError().isEmpty() || !mosaiq::studio::Viewport::openGLAvailable()) {
        state.SkipWithError("no OpenGL 3.3 core context: run under xvfb-run -a");
        return;
    }
    view.setSelection(state.range(0) == 1 ? n : nullptr);
    view.setMoving(state.range(0) == 2);
    view.frameAll();
    view.drawNow();  // uploads the mesh
    double total = 0;
    for (auto _ : state) total += view.drawNow();
    state.counters["frame_ms"] = total / state.iterations();
    state.counters["fps"] = 1000.0 * state.iterations() / total;
    state.counters["triangles"] = double(n->GetObjectRef() ? 1000 * 500 * 2 : 0);
}
// 0: still, 1: selected, 2: while the view moves (the coarse stand-in).
BENCHMARK(BM_ViewportFrame)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
