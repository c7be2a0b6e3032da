// The studio's own controls behind the host UI interfaces: the spinner's
// arrows, plug-in views and their off-screen buffers.
//
// Everything here runs on the Qt GUI thread.
#pragma once

#include "host/ui/view.h"

#include <QImage>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <string>

class QScrollBar;

namespace mosaiq::studio {

// The up/down arrows of a spinner. A click on an arrow steps once; pressing
// and dragging vertically scrubs (Ctrl ten times faster, Alt ten times
// slower); a right click resets. Every press to release is one gesture: the
// owner opens an undo hold at begin and accepts it at end.
class SpinnerArrows final : public QWidget {
    Q_OBJECT
public:
    explicit SpinnerArrows(QWidget* parent = nullptr);

    // Called with the signed number of steps to apply (fractional when scrubbing).
    std::function<void(double steps)> onStep;
    std::function<void()> onReset;
    std::function<void()> onGestureBegin, onGestureEnd;

    // End a gesture still in progress (the window goes mid-drag).
    void endGesture();

    // Pixels of vertical drag per step.
    static constexpr double kPixelsPerStep = 2.0;

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void mouseReleaseEvent(QMouseEvent* e) override;

private:
    bool pressed_ = false;
    bool dragged_ = false;
    bool upPressed_ = false;
    int pressY_ = 0, lastY_ = 0;
};

// A view of a class a plug-in registered. The plug-in paints into an
// off-screen buffer that blit() hands over as one QImage; the widget shows
// the last image. Its size() is the client area, without the scroll bar.
class QtView final : public QWidget, public mq::ui::View {
    Q_OBJECT
public:
    QtView(int id, const std::string& viewClass, QWidget* parent);

    int id() const override { return id_; }
    mq::ui::Size size() const override;
    void* userData() const override { return userData_; }
    void setUserData(void* user) override { userData_ = user; }
    void showScrollBar(bool on) override;
    void setScrollRange(int min, int max) override;
    int scrollMin() const override { return min_; }
    int scrollMax() const override { return max_; }
    void setScrollPos(int pos) override;
    int scrollPos() const override { return pos_; }
    void setFocus() override { QWidget::setFocus(); }
    void repaint() override;

    // The buffer's picture, shown until the next blit.
    void setFrame(const QImage& image);
    const QImage& frame() const { return frame_; }
    QScrollBar* scrollBar() const { return bar_; }
    int paints() const { return paints_; }

protected:
    void paintEvent(QPaintEvent*) override;
    void resizeEvent(QResizeEvent*) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void wheelEvent(QWheelEvent* e) override;

private:
    mq::ui::ViewClass* viewClass() const;
    void layoutBar();
    void scrollAction(int action);

    int id_;
    std::string viewClass_;
    void* userData_ = nullptr;
    QScrollBar* bar_;
    int min_ = 0, max_ = 0, pos_ = 0;
    QImage frame_;
    bool stale_ = true;  // the frame does not show the current size yet
    bool painting_ = false;
    int paints_ = 0;
};

// A QImage the size of a view; text in the view's font.
class QtOffScreenBuffer final : public mq::ui::OffScreenBuffer {
public:
    explicit QtOffScreenBuffer(QtView& view);

    void setBackground(mq::ui::Rgb colour) override { background_ = colour; }
    void erase() override;
    void drawBitmap(const mq::ui::Bitmap& bitmap, int x, int y, int w, int h) override;
    void rectangle(int left, int top, int right, int bottom, mq::ui::Rgb pen,
                   mq::ui::Rgb fill) override;
    void text(int x, int y, const std::string& text) override;
    mq::ui::Size textExtent(const std::string& text) const override;
    void blit() override;

private:
    QPointer<QtView> view_;
    QImage image_;
    mq::ui::Rgb background_{255, 255, 255};
};

}  // namespace mosaiq::studio
