#include "render_view.h"

#include "host/changes.h"
#include "host/hold.h"
#include "host/interface.h"
#include "host/scenefile.h"

#include <QAction>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QTemporaryDir>
#include <QThread>
#include <QToolBar>
#include <QVBoxLayout>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <mutex>

namespace mosaiq::studio {

namespace {

constexpr int kMinRestartMs = 50;
constexpr int kPreviewStep = 4;

// Samples per pixel after each pass: 1, 2, 4, ... then the target.
std::vector<int> passPlan(int target) {
    std::vector<int> ends;
    for (int n = 1; n < target; n *= 2) ends.push_back(n);
    ends.push_back(target);
    return ends;
}

// The frame as the view shows it: 8-bit sRGB through the render's display transform.
QImage toQImage(const mq::tracer::Image& img) {
    QImage out(img.width, img.height, QImage::Format_RGB888);
    const float scale = std::exp2(img.display.exposure);
    for (int y = 0; y < img.height; ++y) {
        uchar* line = out.scanLine(y);
        for (int x = 0; x < img.width; ++x) {
            const float* p = img.pixel(x, y);
            for (int c = 0; c < 3; ++c)
                line[3 * x + c] = mq::tracer::toSrgb8(p[c], img.display, scale);
        }
    }
    return out;
}

}  // namespace

// Where scene-change notices land. The listener may run on any thread and
// after the view is gone: it posts at most one queued call at a time, and
// only while the view lives.
struct ChangeInbox {
    std::mutex mutex;
    RenderView* view = nullptr;
    std::atomic<bool> posted{false};
};

// One render on its worker thread: the cancel flag and the renderer to
// cancel once it exists.
struct RenderRun {
    std::atomic<bool> cancelled{false};
    std::mutex mutex;
    mq::tracer::Renderer* renderer = nullptr;
    QThread* thread = nullptr;

    void cancel() {
        cancelled = true;
        std::lock_guard lock(mutex);
        if (renderer) renderer->cancel();
    }
};

// The image, fitted to the widget; in region mode a drag draws the region.
class RenderCanvas : public QWidget {
public:
    RenderCanvas(RenderView& view, QWidget* parent) : QWidget(parent), view_(view) {
        setMinimumSize(160, 120);
        setMouseTracking(false);
    }
    bool regionMode = false;
    std::function<void(const QRect&)> regionDrawn;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.fillRect(rect(), QColor(40, 40, 40));
        const QImage& img = view_.image();
        if (img.isNull()) return;
        const QRect target = imageRect();
        p.drawImage(target, img);
        // The region, and the one being dragged.
        p.setPen(QPen(QColor(255, 170, 0), 1, Qt::DashLine));
        if (dragging_) p.drawRect(QRect(dragFrom_, dragTo_).normalized());
        if (const auto& r = view_.region()) {
            const double s = double(target.width()) / img.width();
            p.drawRect(QRectF(target.x() + r->x0 * s, target.y() + r->y0 * s, (r->x1 - r->x0) * s,
                              (r->y1 - r->y0) * s));
        }
    }
    void mousePressEvent(QMouseEvent* e) override {
        if (!regionMode || e->button() != Qt::LeftButton) return;
        dragging_ = true;
        dragFrom_ = dragTo_ = e->position().toPoint();
    }
    void mouseMoveEvent(QMouseEvent* e) override {
        if (!dragging_) return;
        dragTo_ = e->position().toPoint();
        update();
    }
    void mouseReleaseEvent(QMouseEvent* e) override {
        if (!dragging_) return;
        dragging_ = false;
        dragTo_ = e->position().toPoint();
        const QRect target = imageRect();
        const QImage& img = view_.image();
        if (img.isNull() || target.isEmpty()) return;
        const double s = double(img.width()) / target.width();
        const QRect widget = QRect(dragFrom_, dragTo_).normalized();
        const QRect pixels(int((widget.left() - target.x()) * s),
                           int((widget.top() - target.y()) * s), int(std::ceil(widget.width() * s)),
                           int(std::ceil(widget.height() * s)));
        const QRect clipped = pixels.intersected(img.rect());
        update();
        if (clipped.width() > 1 && clipped.height() > 1 && regionDrawn) regionDrawn(clipped);
    }

private:
    QRect imageRect() const {
        const QImage& img = view_.image();
        QSize size = img.size().scaled(this->size(), Qt::KeepAspectRatio);
        return QRect(QPoint((width() - size.width()) / 2, (height() - size.height()) / 2), size);
    }

    RenderView& view_;
    bool dragging_ = false;
    QPoint dragFrom_, dragTo_;
};

RenderView::RenderView(mq::HostInterface& ip, QWidget* parent)
    : QDockWidget(tr("Render View"), parent), ip_(ip), inbox_(std::make_shared<ChangeInbox>()) {
    setObjectName("renderView");
    auto* body = new QWidget(this);
    auto* layout = new QVBoxLayout(body);
    layout->setContentsMargins(2, 2, 2, 2);
    auto* tools = new QToolBar(body);
    startAction_ = tools->addAction(tr("Start"), this, [this] { start(); });
    startAction_->setObjectName("renderViewStart");
    stopAction_ = tools->addAction(tr("Stop"), this, [this] { stop(); });
    stopAction_->setObjectName("renderViewStop");
    tools->addSeparator();
    regionAction_ = tools->addAction(tr("Region"));
    regionAction_->setObjectName("renderViewRegion");
    regionAction_->setCheckable(true);
    regionAction_->setToolTip(
        tr("Drag a rectangle to render only it; uncheck for the whole frame"));
    canvas_ = new RenderCanvas(*this, body);
    canvas_->regionDrawn = [this](const QRect& r) {
        setRegion(mq::tracer::CropRegion{r.left(), r.right() + 1, r.top(), r.bottom() + 1});
    };
    connect(regionAction_, &QAction::toggled, this, [this](bool on) {
        canvas_->regionMode = on;
        if (!on && region_) setRegion(std::nullopt);
    });
    status_ = new QLabel(body);
    status_->setObjectName("renderViewStatus");
    layout->addWidget(tools);
    layout->addWidget(canvas_, 1);
    layout->addWidget(status_);
    setWidget(body);

    restartTimer_.setSingleShot(true);
    connect(&restartTimer_, &QTimer::timeout, this, [this] { startNow(); });
    clock_.start();

    inbox_->view = this;
    listenerId_ = mq::sceneChanges().addListener([inbox = inbox_] {
        if (inbox->posted.exchange(true)) return;  // one call in the queue is enough
        std::lock_guard lock(inbox->mutex);
        if (!inbox->view) return;
        QMetaObject::invokeMethod(
            inbox->view,
            [inbox] {
                inbox->posted = false;
                if (inbox->view && inbox->view->active_) inbox->view->requestRestart();
            },
            Qt::QueuedConnection);
    });
    updateStatus();
}

RenderView::~RenderView() {
    mq::sceneChanges().removeListener(listenerId_);
    {
        std::lock_guard lock(inbox_->mutex);
        inbox_->view = nullptr;
    }
    if (run_) {
        run_->cancel();
        run_->thread->wait();
        delete run_->thread;
    }
}

void RenderView::start() {
    active_ = true;
    error_.clear();
    requestRestart();
}

void RenderView::stop() {
    active_ = false;
    restartPending_ = false;
    restartTimer_.stop();
    cancelRun();
    updateStatus();
}

void RenderView::hideEvent(QHideEvent* event) {
    // A hidden view renders nothing; showing it again through the menu starts it.
    if (!isVisible()) stop();
    QDockWidget::hideEvent(event);
}

void RenderView::setRegion(const std::optional<mq::tracer::CropRegion>& region) {
    region_ = region;
    if (regionAction_->isChecked() != region.has_value()) {
        const QSignalBlocker block(regionAction_);
        regionAction_->setChecked(region.has_value());
        canvas_->regionMode = region.has_value();
    }
    canvas_->update();
    if (active_) requestRestart();
}

void RenderView::cancelRun() {
    if (run_) run_->cancel();
}

void RenderView::requestRestart() {
    // A drag makes changes faster than renders start: the running pass is
    // cancelled now, the next start waits for it to end and for the interval.
    cancelRun();
    restartPending_ = true;
    if (run_ || restartTimer_.isActive()) return;
    const qint64 since = lastStartMs_ < 0 ? kMinRestartMs : clock_.elapsed() - lastStartMs_;
    restartTimer_.start(int(std::max<qint64>(0, kMinRestartMs - since)));
}

void RenderView::startNow() {
    if (!restartPending_ || run_) return;
    restartPending_ = false;
    error_.clear();
    mq::Scene& scene = ip_.scene();

    // The snapshot: everything the worker reads, taken here on the UI thread.
    QElapsedTimer snapshotTimer;
    snapshotTimer.start();
    mq::tracer::RenderSettings settings;
    std::filesystem::path file;
    try {
        mq::tracer::checkRenderData(scene);
        settings = mq::tracer::RenderSettings::fromJson(scene.render);
        settings.assetFolder = scene.folder;
        if (region_) settings.crop = region_;
        if (!snapshotDir_) snapshotDir_ = std::make_unique<QTemporaryDir>();
        file = std::filesystem::path(snapshotDir_->path().toStdString()) /
               ("snapshot-" + std::to_string(generation_ + 1) + ".mosaiq");
        mq::saveScene(scene, file);
    } catch (const std::exception& e) {
        error_ = tr("Cannot render: %1").arg(QString::fromStdString(e.what()));
        updateStatus();
        return;
    }
    snapshotMs_ = snapshotTimer.nsecsElapsed() / 1e6;

    const uint64_t generation = ++generation_;
    const std::vector<int> plan = passPlan(settings.samplesPerPixel);
    samplesTarget_ = settings.samplesPerPixel;
    passesTarget_ = int(plan.size());
    passesDone_ = 0;
    samplesDone_ = 0;
    elapsedMs_ = 0;
    if (image_.size() != QSize(settings.width, settings.height)) {
        image_ = QImage(settings.width, settings.height, QImage::Format_RGB888);
        image_.fill(Qt::black);
    }

    auto run = std::make_shared<RenderRun>();
    QPointer<RenderView> self(this);
    const std::filesystem::path folder = scene.folder;
    run->thread = QThread::create([this, run, file, folder, settings, plan, generation] {
        QString error;
        try {
            // The copy is private: its reading and rendering are no change of the scene.
            // Nor are its parameter writes undo steps (suspension is per thread).
            const mq::SceneChangesMute mute;
            mq::theHold.Suspend();
            struct Resume {
                ~Resume() { mq::theHold.Resume(); }
            } resume;
            mq::ILoad iload;
            std::unique_ptr<mq::Scene> copy =
                mq::readSceneFile(file, iload, [](const std::string&) {});
            copy->folder = folder;
            iload.runPostLoadCallbacks();
            std::error_code ec;
            std::filesystem::remove(file, ec);
            if (!run->cancelled) {
                mq::tracer::Renderer renderer(*copy, settings);
                {
                    std::lock_guard lock(run->mutex);
                    run->renderer = &renderer;
                    if (run->cancelled) renderer.cancel();
                }
                int passIndex = 0;
                renderer.renderPasses(
                    0, plan, kPreviewStep,
                    [this, generation, &passIndex](const mq::tracer::Image& img, int done) {
                        QImage pixels = toQImage(img);
                        const int index = done == 0 ? 0 : ++passIndex;
                        QMetaObject::invokeMethod(
                            this,
                            [this, generation, pixels = std::move(pixels), done, index] {
                                onPass(generation, pixels, done, index);
                            },
                            Qt::QueuedConnection);
                    });
                {
                    std::lock_guard lock(run->mutex);
                    run->renderer = nullptr;
                }
                renderer.renderEnd();
            }
        } catch (const mq::tracer::RenderCancelled&) {
        } catch (const std::exception& e) {
            error = QString::fromStdString(e.what());
        } catch (...) {
            error = QStringLiteral("internal error in the renderer");
        }
        QMetaObject::invokeMethod(
            this, [this, generation, error] { onRunEnded(generation, error); },
            Qt::QueuedConnection);
    });
    run_ = run;
    lastStartMs_ = clock_.elapsed();
    sinceStart_.start();
    run->thread->start();
    emit started();
    updateStatus();
}

void RenderView::onPass(uint64_t generation, QImage pixels, int samplesDone, int passIndex) {
    if (generation != generation_ || (run_ && run_->cancelled)) return;
    // A region replaces only its own pixels; the rest keeps the last frame.
    if (region_ && pixels.size() == image_.size()) {
        QPainter p(&image_);
        const auto& r = *region_;
        const QRect rect(r.x0, r.y0, r.x1 - r.x0, r.y1 - r.y0);
        p.drawImage(rect, pixels, rect);
    } else {
        image_ = std::move(pixels);
    }
    samplesDone_ = samplesDone;
    passesDone_ = passIndex;
    elapsedMs_ = sinceStart_.nsecsElapsed() / 1e6;
    canvas_->update();
    updateStatus();
    emit passShown(samplesDone);
    if (passIndex == passesTarget_) emit finished();
}

void RenderView::onRunEnded(uint64_t generation, QString error) {
    if (!run_ || generation != generation_) return;
    run_->thread->wait();
    delete run_->thread;
    run_.reset();
    if (!error.isEmpty()) error_ = tr("Render failed: %1").arg(error);
    updateStatus();
    if (restartPending_ && active_) {
        const qint64 since = clock_.elapsed() - lastStartMs_;
        restartTimer_.start(int(std::max<qint64>(0, kMinRestartMs - since)));
    } else {
        emit idle();
    }
}

QString RenderView::statusText() const { return status_->text(); }

void RenderView::updateStatus() {
    startAction_->setEnabled(!active_);
    stopAction_->setEnabled(active_);
    QString text;
    if (!error_.isEmpty()) {
        text = error_;
    } else if (passesTarget_ == 0) {
        text = active_ ? tr("Starting...") : tr("Stopped");
    } else {
        text = tr("Pass %1 / %2  (%3 / %4 spp)  %5 s")
                   .arg(passesDone_)
                   .arg(passesTarget_)
                   .arg(samplesDone_)
                   .arg(samplesTarget_)
                   .arg(elapsedMs_ / 1000.0, 0, 'f', 2);
        if (!active_)
            text += tr("  - stopped");
        else if (passesDone_ < passesTarget_)
            text += tr("  - rendering");
    }
    status_->setText(text);
}

}  // namespace mosaiq::studio
