#include "image_window.h"

#include <QComboBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace mosaiq::studio {

ImageCanvas::ImageCanvas(QWidget* parent) : QWidget(parent) {
    setMinimumSize(200, 150);
    setAutoFillBackground(true);
    QPalette pal = palette();
    pal.setColor(QPalette::Window, QColor(48, 48, 48));
    setPalette(pal);
}

void ImageCanvas::setImage(const QImage& image) {
    const bool sameSize = image.size() == image_.size();
    image_ = image;
    if (!sameSize) pan_ = {};
    update();
}

void ImageCanvas::setZoom(double zoom) {
    zoom = std::clamp(zoom, 1.0 / 32.0, 64.0);
    if (zoom == zoom_) return;
    zoom_ = zoom;
    update();
    emit zoomChanged(zoom_);
}

void ImageCanvas::fit() {
    pan_ = {};
    double z = 1.0;
    if (!image_.isNull()) {
        while (z > 1.0 / 32.0 && (image_.width() * z > width() || image_.height() * z > height()))
            z /= 2.0;
    }
    setZoom(z);
    update();
}

void ImageCanvas::paintEvent(QPaintEvent*) {
    if (image_.isNull()) return;
    QPainter p(this);
    // Magnified pixels stay square, as an artist checks single pixels.
    p.setRenderHint(QPainter::SmoothPixmapTransform, zoom_ < 1.0);
    const QSizeF size(image_.width() * zoom_, image_.height() * zoom_);
    const QPointF topLeft = QPointF(width() / 2.0, height() / 2.0) + pan_ -
                            QPointF(size.width() / 2.0, size.height() / 2.0);
    p.drawImage(QRectF(topLeft, size), image_);
}

void ImageCanvas::wheelEvent(QWheelEvent* e) {
    const double factor = e->angleDelta().y() > 0 ? 2.0 : 0.5;
    const double before = zoom_;
    setZoom(zoom_ * factor);
    // The picture point under the cursor stays under it.
    const QPointF centre(width() / 2.0, height() / 2.0);
    const QPointF cursor = e->position() - centre;
    pan_ = cursor - (cursor - pan_) * (zoom_ / before);
    update();
}

void ImageCanvas::mousePressEvent(QMouseEvent* e) { dragFrom_ = e->pos(); }

void ImageCanvas::mouseMoveEvent(QMouseEvent* e) {
    if (!(e->buttons() & (Qt::LeftButton | Qt::MiddleButton))) return;
    pan_ += QPointF(e->pos() - dragFrom_);
    dragFrom_ = e->pos();
    update();
}

ImageWindow::ImageWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
    setWindowTitle(tr("Rendered Frame"));
    canvas_ = new ImageCanvas(this);
    channelBox_ = new QComboBox(this);
    channelBox_->addItems({tr("RGB"), tr("Red"), tr("Green"), tr("Blue"), tr("Alpha")});
    connect(channelBox_, &QComboBox::currentIndexChanged, this,
            [this](int i) { setChannel(Channel(i)); });
    auto* fit = new QPushButton(tr("Fit"), this);
    connect(fit, &QPushButton::clicked, canvas_, &ImageCanvas::fit);
    auto* actual = new QPushButton(tr("1:1"), this);
    connect(actual, &QPushButton::clicked, canvas_, [this] { canvas_->setZoom(1.0); });
    auto* save = new QPushButton(tr("Save Image..."), this);
    save->setObjectName("saveImage");
    connect(save, &QPushButton::clicked, this, &ImageWindow::saveAs);
    info_ = new QLabel(this);
    connect(canvas_, &ImageCanvas::zoomChanged, this, [this] { refresh(); });

    auto* bar = new QHBoxLayout;
    bar->addWidget(channelBox_);
    bar->addWidget(fit);
    bar->addWidget(actual);
    bar->addWidget(info_, 1);
    bar->addWidget(save);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(4, 4, 4, 4);
    layout->addLayout(bar);
    layout->addWidget(canvas_, 1);
    resize(680, 560);
}

void ImageWindow::showRender(const mq::tracer::Image& image, const QString& title) {
    image_ = image;
    setWindowTitle(title);
    refresh();
}

void ImageWindow::showImage(const mq::ui::Image& image, const QString& title) {
    mq::tracer::Image img(image.width, image.height);
    img.rgba = image.rgba;
    img.display = {0.0f, mq::tracer::ToneCurve::Linear};
    showRender(img, title);
}

void ImageWindow::setChannel(Channel channel) {
    channel_ = channel;
    if (channelBox_->currentIndex() != int(channel)) channelBox_->setCurrentIndex(int(channel));
    refresh();
}

void ImageWindow::refresh() {
    using mq::tracer::toSrgb8;
    const int w = image_.width, h = image_.height;
    const float scale = std::exp2(image_.display.exposure);
    QImage out(w, h, QImage::Format_RGB32);
    for (int y = 0; y < h; ++y) {
        auto* row = reinterpret_cast<QRgb*>(out.scanLine(y));
        for (int x = 0; x < w; ++x) {
            const float* px = image_.pixel(x, y);
            if (channel_ == Channel::Rgb) {
                row[x] = qRgb(toSrgb8(px[0], image_.display, scale),
                              toSrgb8(px[1], image_.display, scale),
                              toSrgb8(px[2], image_.display, scale));
            } else if (channel_ == Channel::Alpha) {
                // Coverage is no radiance: shown linearly.
                const int a = int(std::lround(std::clamp(px[3], 0.0f, 1.0f) * 255.0f));
                row[x] = qRgb(a, a, a);
            } else {
                const uint8_t v = toSrgb8(px[int(channel_) - 1], image_.display, scale);
                row[x] = qRgb(v, v, v);
            }
        }
    }
    canvas_->setImage(out);
    info_->setText(w > 0 ? tr("%1 x %2   %3%").arg(w).arg(h).arg(canvas_->zoom() * 100.0)
                         : QString());
}

bool ImageWindow::saveTo(const QString& path, QString* error) {
    try {
        mq::tracer::writeImage(path.toStdString(), image_, {{"Software", "mosaiq-studio"}});
        return true;
    } catch (const std::exception& e) {
        if (error) *error = QString::fromStdString(e.what());
        return false;
    }
}

void ImageWindow::saveAs() {
    if (!hasImage()) return;
    const QString path = QFileDialog::getSaveFileName(
        this, tr("Save Image"), QString(),
        tr("PNG image (*.png);;OpenEXR image (*.exr);;JPEG image (*.jpg *.jpeg)"));
    if (path.isEmpty()) return;
    QString error;
    if (!saveTo(path, &error))
        QMessageBox::warning(this, tr("Save Image"), tr("Could not save %1:\n%2").arg(path, error));
}

}  // namespace mosaiq::studio
