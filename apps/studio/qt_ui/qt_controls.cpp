#include "qt_ui/qt_controls.h"

#include "host/ui/host_ui.h"

#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QStyle>
#include <QStyleOption>
#include <QWheelEvent>

#include <algorithm>

namespace mosaiq::studio {

namespace {

QColor qcolor(mq::ui::Rgb c) { return QColor(c.r, c.g, c.b); }

}  // namespace

// ---- Spinner arrows ----

SpinnerArrows::SpinnerArrows(QWidget* parent) : QWidget(parent) {
    setCursor(Qt::SizeVerCursor);
    setFocusPolicy(Qt::NoFocus);
}

void SpinnerArrows::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const int half = height() / 2;
    for (int i = 0; i < 2; ++i) {
        QStyleOption opt;
        opt.initFrom(this);
        opt.rect = QRect(0, i * half, width(), i ? height() - half : half);
        if (pressed_ && !dragged_ && upPressed_ == (i == 0)) opt.state |= QStyle::State_Sunken;
        style()->drawPrimitive(QStyle::PE_PanelButtonBevel, &opt, &p, this);
        style()->drawPrimitive(i ? QStyle::PE_IndicatorArrowDown : QStyle::PE_IndicatorArrowUp,
                               &opt, &p, this);
    }
}

void SpinnerArrows::mousePressEvent(QMouseEvent* e) {
    if (e->button() == Qt::RightButton) {
        if (onReset) onReset();
        return;
    }
    if (e->button() != Qt::LeftButton) return;
    pressed_ = true;
    dragged_ = false;
    upPressed_ = e->position().y() < height() / 2;
    pressY_ = lastY_ = int(e->position().y());
    if (onGestureBegin) onGestureBegin();
    update();
}

void SpinnerArrows::mouseMoveEvent(QMouseEvent* e) {
    if (!pressed_) return;
    const int y = int(e->position().y());
    // A few pixels of slack so that a click does not scrub.
    if (!dragged_ && std::abs(y - pressY_) < 3) return;
    dragged_ = true;
    double scale = 1.0;
    if (e->modifiers() & Qt::ControlModifier) scale = 10.0;
    if (e->modifiers() & Qt::AltModifier) scale = 0.1;
    // Up is more, as the arrows point.
    const double steps = double(lastY_ - y) / kPixelsPerStep * scale;
    lastY_ = y;
    if (steps != 0.0 && onStep) onStep(steps);
    update();
}

void SpinnerArrows::mouseReleaseEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton || !pressed_) return;
    if (!dragged_ && onStep) onStep(upPressed_ ? 1.0 : -1.0);
    pressed_ = false;
    dragged_ = false;
    if (onGestureEnd) onGestureEnd();
    update();
}

void SpinnerArrows::endGesture() {
    if (!pressed_) return;
    pressed_ = dragged_ = false;
    if (onGestureEnd) onGestureEnd();
}

// ---- Views ----

QtView::QtView(int id, const std::string& viewClass, QWidget* parent)
    : QWidget(parent), id_(id), viewClass_(viewClass), bar_(new QScrollBar(Qt::Vertical, this)) {
    bar_->hide();
    bar_->setRange(0, 0);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setFocusPolicy(Qt::ClickFocus);
    connect(bar_, &QScrollBar::actionTriggered, this, &QtView::scrollAction);
}

mq::ui::ViewClass* QtView::viewClass() const {
    // Without user data the host's default handling applies.
    return userData_ ? mq::ui::findViewClass(viewClass_) : nullptr;
}

mq::ui::Size QtView::size() const {
    const int barWidth = bar_->isVisibleTo(this) ? bar_->sizeHint().width() : 0;
    return {std::max(0, width() - barWidth), height()};
}

void QtView::layoutBar() {
    const int w = bar_->sizeHint().width();
    bar_->setGeometry(width() - w, 0, w, height());
}

void QtView::showScrollBar(bool on) {
    if (on == bar_->isVisibleTo(this)) return;
    bar_->setVisible(on);
    layoutBar();
    stale_ = true;
    update();
}

void QtView::setScrollRange(int min, int max) {
    min_ = min;
    max_ = std::max(min, max);
    pos_ = std::clamp(pos_, min_, max_);
    const QSignalBlocker block(bar_);
    bar_->setRange(min_, max_);
    bar_->setPageStep(std::max(1, height()));
    bar_->setValue(pos_);
}

void QtView::setScrollPos(int pos) {
    pos_ = std::clamp(pos, min_, max_);
    const QSignalBlocker block(bar_);
    bar_->setValue(pos_);
}

void QtView::scrollAction(int action) {
    using mq::ui::ScrollRequest;
    ScrollRequest request = ScrollRequest::Other;
    switch (action) {
        case QAbstractSlider::SliderSingleStepSub:
            request = ScrollRequest::LineUp;
            break;
        case QAbstractSlider::SliderSingleStepAdd:
            request = ScrollRequest::LineDown;
            break;
        case QAbstractSlider::SliderPageStepSub:
            request = ScrollRequest::PageUp;
            break;
        case QAbstractSlider::SliderPageStepAdd:
            request = ScrollRequest::PageDown;
            break;
        case QAbstractSlider::SliderMove:
            request = ScrollRequest::ThumbTrack;
            break;
        default:
            break;
    }
    const int thumb = bar_->sliderPosition();
    if (mq::ui::ViewClass* cls = viewClass()) cls->verticalScroll(*this, request, thumb);
    // The view's procedure owns the position; the bar's own step is overridden.
    bar_->setSliderPosition(pos_);
}

void QtView::repaint() {
    mq::ui::ViewClass* cls = viewClass();
    if (!cls || painting_) return;
    painting_ = true;
    ++paints_;
    stale_ = false;
    cls->paint(*this);
    painting_ = false;
}

void QtView::setFrame(const QImage& image) {
    frame_ = image;
    update();
}

void QtView::paintEvent(QPaintEvent*) {
    // A view shown or resized asks its procedure for a frame of the new size.
    if (stale_) repaint();
    QPainter p(this);
    p.fillRect(rect(), palette().window());
    if (!frame_.isNull()) p.drawImage(0, 0, frame_);
}

void QtView::resizeEvent(QResizeEvent*) {
    layoutBar();
    bar_->setPageStep(std::max(1, height()));
    stale_ = true;
}

void QtView::mouseReleaseEvent(QMouseEvent* e) {
    if (e->button() != Qt::LeftButton) return;
    if (mq::ui::ViewClass* cls = viewClass())
        cls->leftButtonUp(*this, int(e->position().x()), int(e->position().y()));
}

void QtView::wheelEvent(QWheelEvent* e) {
    const int delta = e->angleDelta().y();
    if (delta == 0) return;
    if (mq::ui::ViewClass* cls = viewClass()) cls->wheel(*this, delta);
    e->accept();
}

// ---- Off-screen buffers ----

QtOffScreenBuffer::QtOffScreenBuffer(QtView& view) : view_(&view) {
    const mq::ui::Size s = view.size();
    image_ = QImage(std::max(1, s.w), std::max(1, s.h), QImage::Format_RGB32);
    image_.fill(Qt::white);
}

void QtOffScreenBuffer::erase() { image_.fill(qcolor(background_)); }

void QtOffScreenBuffer::drawBitmap(const mq::ui::Bitmap& bitmap, int x, int y, int w, int h) {
    if (bitmap.width <= 0 || bitmap.height <= 0 ||
        bitmap.rgb.size() < size_t(bitmap.width) * size_t(bitmap.height) * 3)
        return;
    const QImage source(bitmap.rgb.data(), bitmap.width, bitmap.height, bitmap.width * 3,
                        QImage::Format_RGB888);
    QPainter p(&image_);
    p.drawImage(x, y, source, 0, 0, std::min(w, bitmap.width), std::min(h, bitmap.height));
}

void QtOffScreenBuffer::rectangle(int left, int top, int right, int bottom, mq::ui::Rgb pen,
                                  mq::ui::Rgb fill) {
    if (right <= left || bottom <= top) return;
    QPainter p(&image_);
    p.fillRect(left, top, right - left, bottom - top, qcolor(fill));
    p.setPen(qcolor(pen));
    p.setBrush(Qt::NoBrush);
    p.drawRect(left, top, right - left - 1, bottom - top - 1);
}

void QtOffScreenBuffer::text(int x, int y, const std::string& text) {
    QPainter p(&image_);
    if (view_) p.setFont(view_->font());
    p.setPen(Qt::black);
    // y is the top of the text's cell, as the buffer's callers measure it.
    p.drawText(QRect(x, y, image_.width() + std::abs(x), image_.height() + std::abs(y)),
               Qt::AlignLeft | Qt::AlignTop | Qt::TextSingleLine, QString::fromStdString(text));
}

mq::ui::Size QtOffScreenBuffer::textExtent(const std::string& text) const {
    const QFontMetrics metrics(view_ ? view_->font() : QFont());
    return {metrics.horizontalAdvance(QString::fromStdString(text)), metrics.height()};
}

void QtOffScreenBuffer::blit() {
    if (view_) view_->setFrame(image_);
}

}  // namespace mosaiq::studio
