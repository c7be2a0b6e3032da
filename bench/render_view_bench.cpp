// The studio's render view on the demo scene at its own 640x480: time from
// a start to the first pixels on screen (the coarse preview) and to the
// first full pass, and the restart latency of a change (the notice, the
// running pass cancelled, the next start's first pixels), as the UI thread
// sees them. Offscreen Qt; wall time, so run it on a quiet machine.
//
// Targets: first pixels within 0.5 s of a start; restart latency reported.
//
// Run: build/release/bin/render_view_bench [restarts]
#include "cli.h"
#include "render_view.h"

#include "host/changes.h"
#include "host/interface.h"
#include "host/plugins.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// Runs the event loop until pred holds; false after timeoutMs.
template <class Pred>
bool waitFor(Pred pred, int timeoutMs = 60000) {
    QElapsedTimer t;
    t.start();
    while (!pred()) {
        if (t.elapsed() > timeoutMs) return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    return true;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const int restarts = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    mq::pluginManager().loadFolder(MOSAIQ_BIN_DIR);
    mq::HostInterface ip;
    mosaiq::cli::buildDemoScene(ip);
    mq::Scene& scene = ip.scene();

    mosaiq::studio::RenderView view(ip);
    view.resize(700, 560);
    view.show();
    int shown = 0, fullPasses = 0, starts = 0;
    QObject::connect(&view, &mosaiq::studio::RenderView::started, [&] { ++starts; });
    QObject::connect(&view, &mosaiq::studio::RenderView::passShown, [&](int samples) {
        ++shown;
        if (samples > 0) ++fullPasses;
    });

    QElapsedTimer t;
    t.start();
    view.start();
    if (!waitFor([&] { return shown > 0; })) return 1;
    const double firstPixels = t.nsecsElapsed() / 1e6;
    view.image().save("render_view_preview.png");  // to look at, in the working directory
    if (!waitFor([&] { return fullPasses > 0; })) return 1;
    const double firstPass = t.nsecsElapsed() / 1e6;
    view.image().save("render_view_1spp.png");
    std::printf("demo %dx%d, target %d spp; snapshot on the UI thread %.1f ms\n",
                view.image().width(), view.image().height(), view.samplesTarget(),
                view.snapshotMs());
    std::printf("start -> first pixels (preview): %.0f ms (target 500)\n", firstPixels);
    std::printf("start -> first full pass (1 spp): %.0f ms\n", firstPass);

    // Changes in the middle of a pass: a light's intensity, as a spinner writes it.
    std::vector<double> latency, cancelMs;
    for (int i = 0; i < restarts; ++i) {
        waitFor([&] { return fullPasses > 0; });
        fullPasses = 0;
        const int before = shown, startsBefore = starts;
        scene.lights[0]["intensity"] = 1.0 + 0.01 * i;
        t.restart();
        mq::sceneChanges().notify();
        // The next start follows the cancelled worker's end at once.
        if (!waitFor([&] { return starts > startsBefore; })) return 1;
        cancelMs.push_back(t.nsecsElapsed() / 1e6);
        if (!waitFor([&] { return shown > before; })) return 1;
        latency.push_back(t.nsecsElapsed() / 1e6);
    }
    std::printf("change -> cancelled and restarted: median %.0f ms, worst %.0f ms (%d restarts)\n",
                median(cancelMs), *std::max_element(cancelMs.begin(), cancelMs.end()), restarts);
    std::printf("change -> new first pixels: median %.0f ms, worst %.0f ms\n", median(latency),
                *std::max_element(latency.begin(), latency.end()));
    view.stop();
    waitFor([&] { return !view.running(); });
    return 0;
}
