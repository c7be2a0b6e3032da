// A render on its own thread, so the windows stay live while it runs.
#pragma once

#include "tracer/renderer.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

class QThread;

namespace mosaiq::studio {

// Renders one frame of a scene on a worker thread, in bands of rows that
// are shown as each arrives (a crop renders the same pixels as the whole
// frame, so the bands add up to it; each costs the render's setup again). The scene is read from
// that thread until finished() is emitted: the caller keeps it unchanged
// until then (the main window locks every edit while a job runs).
// Signals arrive on the thread that owns the job.
class RenderJob : public QObject {
    Q_OBJECT
public:
    RenderJob(mq::Scene& scene, mq::tracer::RenderSettings settings, QObject* parent = nullptr);
    // Cancels a running render and waits for its thread.
    ~RenderJob() override;

    void start();
    // Asks the render to stop at its next finished tile; finished() follows.
    void cancel();
    bool running() const;

    // After finished(): the image, or none when cancelled or failed.
    const std::optional<mq::tracer::Image>& image() const { return image_; }
    const QString& error() const { return error_; }
    // The frame so far: the bands finished, black below them. Any thread.
    mq::tracer::Image arrived() const;
    bool cancelled() const { return cancelled_; }

signals:
    // Done of total, in hundredths of the whole frame.
    void progress(int done, int total);
    // Another band of the frame arrived (see arrived()).
    void bandArrived();
    void finished();

private:
    void run();

    mq::Scene& scene_;
    mq::tracer::RenderSettings settings_;
    QThread* thread_ = nullptr;
    std::atomic<bool> cancel_{false};
    std::atomic<int> lastPercent_{-1};
    std::optional<mq::tracer::Image> image_;
    mutable std::mutex arrivedMutex_;
    mq::tracer::Image arrived_;
    QString error_;
    bool cancelled_ = false;
};

}  // namespace mosaiq::studio
