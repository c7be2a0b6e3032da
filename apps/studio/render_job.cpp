#include "render_job.h"

#include <QThread>

#include <algorithm>

namespace mosaiq::studio {

namespace {

// Thrown from the progress callback to unwind the tracer's workers.
struct Cancelled {};

// Rows [y0, y1) of every pass from one image of the same size into another.
void copyRows(const mq::tracer::Image& from, mq::tracer::Image& to, int y0, int y1) {
    const size_t first = size_t(y0) * from.width, last = size_t(y1) * from.width;
    auto copy = [&](const std::vector<float>& a, std::vector<float>& b, size_t perPixel) {
        std::copy(a.begin() + first * perPixel, a.begin() + last * perPixel,
                  b.begin() + first * perPixel);
    };
    copy(from.rgba, to.rgba, 4);
    copy(from.normal, to.normal, 3);
    copy(from.depth, to.depth, 1);
    copy(from.objectId, to.objectId, 1);
    copy(from.uv, to.uv, 3);
}

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

mq::tracer::Image RenderJob::arrived() const {
    std::lock_guard lock(arrivedMutex_);
    return arrived_;
}

void RenderJob::run() {
    try {
        // Bands of at least 160 rows: the setup each repeats stays small
        // beside the tracing. A crop of the user's own renders whole.
        const int height = settings_.height;
        const int bands = settings_.crop ? 1 : std::clamp(height / 160, 1, 6);
        mq::tracer::Image frame;
        for (int band = 0; band < bands && !cancel_; ++band) {
            mq::tracer::RenderSettings s = settings_;
            const int y0 = height * band / bands, y1 = height * (band + 1) / bands;
            if (bands > 1) s.crop = mq::tracer::CropRegion{0, s.width, y0, y1};
            mq::tracer::Renderer renderer(scene_, s);
            renderer.setProgress([this, band, bands](int done, int total) {
                if (cancel_) throw Cancelled{};
                // One signal per percent: the tracer reports every tile.
                const int percent = (band * 100 + (total > 0 ? done * 100 / total : 100)) / bands;
                int last = lastPercent_.load();
                while (percent > last)
                    if (lastPercent_.compare_exchange_weak(last, percent)) {
                        emit progress(percent, 100);
                        break;
                    }
            });
            mq::tracer::Image img = renderer.renderFrame(0);
            renderer.renderEnd();
            if (band == 0) {
                frame = std::move(img);
            } else {
                copyRows(img, frame, y0, y1);
            }
            {
                std::lock_guard lock(arrivedMutex_);
                arrived_ = frame;
            }
            emit bandArrived();
        }
        image_ = std::move(frame);
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
