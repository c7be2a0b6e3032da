#include "render_job.h"

#include <QThread>

namespace mosaiq::studio {

namespace {
// Thrown from the progress callback to unwind the tracer's workers.
struct Cancelled {};
}  // namespace

RenderJob::RenderJob(mq::Scene& scene, mq::tracer::RenderSettings settings, QObject* parent)
    : QObject(parent), scene_(scene), settings_(std::move(settings)) {}

RenderJob::~RenderJob() {
    if (thread_) {
        cancel_ = true;
        thread_->wait();
        delete thread_;
    }
}

void RenderJob::start() {
    thread_ = QThread::create([this] { run(); });
    // finished() is emitted on this object's thread, once the worker is done with the scene.
    connect(thread_, &QThread::finished, this, &RenderJob::finished);
    thread_->start();
}

void RenderJob::cancel() { cancel_ = true; }

bool RenderJob::running() const { return thread_ && thread_->isRunning(); }

void RenderJob::run() {
    try {
        mq::tracer::Renderer renderer(scene_, settings_);
        renderer.setProgress([this](int done, int total) {
            if (cancel_) throw Cancelled{};
            // One signal per percent: the tracer reports every tile.
            const int percent = total > 0 ? done * 100 / total : 100;
            int last = lastPercent_.load();
            while (percent > last)
                if (lastPercent_.compare_exchange_weak(last, percent)) {
                    emit progress(done, total);
                    break;
                }
        });
        image_ = renderer.renderFrame(0);
        renderer.renderEnd();
        if (cancel_) {
            image_.reset();
            cancelled_ = true;
        }
    } catch (const Cancelled&) {
        cancelled_ = true;
    } catch (const std::exception& e) {
        error_ = QString::fromStdString(e.what());
    } catch (...) {
        error_ = QStringLiteral("internal error in the renderer");
    }
}

}  // namespace mosaiq::studio
