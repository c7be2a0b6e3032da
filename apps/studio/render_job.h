// A render on its own thread, so the windows stay live while it runs.
#pragma once

#include "tracer/renderer.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <optional>

class QThread;

namespace mosaiq::studio {

// Renders one frame of a scene on a worker thread. The scene is read from
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
    bool cancelled() const { return cancelled_; }

signals:
    void progress(int done, int total);
    void finished();

private:
    void run();

    mq::Scene& scene_;
    mq::tracer::RenderSettings settings_;
    QThread* thread_ = nullptr;
    std::atomic<bool> cancel_{false};
    std::atomic<int> lastPercent_{-1};
    std::optional<mq::tracer::Image> image_;
    QString error_;
    bool cancelled_ = false;
};

}  // namespace mosaiq::studio
