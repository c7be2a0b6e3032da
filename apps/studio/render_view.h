// The interactive render view: a dock that renders the scene progressively
// on a worker thread and starts again whenever the scene changes.
#pragma once

#include "tracer/renderer.h"

#include <QDockWidget>
#include <QElapsedTimer>
#include <QImage>
#include <QTimer>

#include <memory>
#include <optional>

class QAction;
class QLabel;
class QTemporaryDir;

namespace mq {
class HostInterface;
}

namespace mosaiq::studio {

class RenderCanvas;
struct RenderRun;

// Each start snapshots the scene on the UI thread (saved through the scene
// writer into a private temporary file) and the worker reads that copy into
// a scene of its own: the live scene is never read off the UI thread. The
// worker shows a coarse preview (every 4th pixel and row), then passes of
// 1, 2, 4, ... samples per pixel up to the scene's spp; the last pass equals
// the one-shot render bit for bit. Scene changes restart it, at most every
// 50 ms, always ending with a render of the final state. Lives on the UI
// thread; ip must outlive it.
class RenderView : public QDockWidget {
    Q_OBJECT
public:
    explicit RenderView(mq::HostInterface& ip, QWidget* parent = nullptr);
    // Cancels the render and waits for its thread (a fraction of a row of tiles).
    ~RenderView() override;

    // Start (or restart) rendering, and keep restarting on changes; stop
    // cancels the running pass and stays stopped.
    void start();
    void stop();
    bool active() const { return active_; }
    // True while a worker thread renders (or winds down after a cancel).
    bool running() const { return run_ != nullptr; }

    // Render only these pixels of the frame (restarts); none: the whole
    // frame. The pixels outside keep what was last shown there.
    void setRegion(const std::optional<mq::tracer::CropRegion>& region);
    const std::optional<mq::tracer::CropRegion>& region() const { return region_; }

    // What the view shows: the frame as 8-bit RGB.
    const QImage& image() const { return image_; }
    // Samples per pixel of the last pass shown (0: the preview) and the target.
    int samplesDone() const { return samplesDone_; }
    int samplesTarget() const { return samplesTarget_; }
    int passesDone() const { return passesDone_; }
    int passesTarget() const { return passesTarget_; }
    // The status line: passes, samples and time, or why rendering stopped.
    QString statusText() const;
    // Milliseconds the last snapshot took on the UI thread.
    double snapshotMs() const { return snapshotMs_; }

signals:
    // A render was started on a fresh snapshot.
    void started();
    // A pass arrived and is shown (samples 0: the preview).
    void passShown(int samplesDone);
    // The final pass arrived.
    void finished();
    // The worker ended (finished, cancelled or failed) and nothing is running.
    void idle();

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void requestRestart();  // coalesced, at most one start every kMinRestartMs
    void startNow();
    void cancelRun();
    void onPass(uint64_t generation, QImage pixels, int samplesDone, int passIndex);
    void onRunEnded(uint64_t generation, QString error);
    void updateStatus();

    mq::HostInterface& ip_;
    int listenerId_ = 0;
    std::shared_ptr<struct ChangeInbox> inbox_;
    std::unique_ptr<QTemporaryDir> snapshotDir_;

    RenderCanvas* canvas_;
    QLabel* status_;
    QAction* startAction_;
    QAction* stopAction_;
    QAction* regionAction_;

    bool active_ = false;
    bool restartPending_ = false;
    std::shared_ptr<RenderRun> run_;
    uint64_t generation_ = 0;
    QTimer restartTimer_;
    QElapsedTimer sinceStart_;  // since the running render's start
    qint64 lastStartMs_ = -1;   // on clock_, when the last render started
    QElapsedTimer clock_;
    double snapshotMs_ = 0;
    double elapsedMs_ = 0;  // start to the last pass shown
    QString error_;

    std::optional<mq::tracer::CropRegion> region_;
    QImage image_;
    int samplesDone_ = 0, samplesTarget_ = 0;
    int passesDone_ = 0, passesTarget_ = 0;
};

}  // namespace mosaiq::studio
