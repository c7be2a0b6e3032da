// The host's frame buffer: a window that shows a rendered frame (or any
// float picture a plug-in shows), with zoom, pan, a per-channel and alpha
// view, and saving as EXR, PNG or JPEG.
#pragma once

#include "host/ui/host_ui.h"
#include "tracer/renderer.h"

#include <QImage>
#include <QWidget>

class QComboBox;
class QLabel;

namespace mosaiq::studio {

// The picture, zoomed and panned: wheel zooms about the cursor, dragging pans.
class ImageCanvas : public QWidget {
    Q_OBJECT
public:
    explicit ImageCanvas(QWidget* parent = nullptr);
    void setImage(const QImage& image);
    const QImage& image() const { return image_; }
    double zoom() const { return zoom_; }
    void setZoom(double zoom);
    // Zoom to the largest power of two that shows the whole picture.
    void fit();
    QPointF pan() const { return pan_; }

signals:
    void zoomChanged(double zoom);

protected:
    void paintEvent(QPaintEvent*) override;
    void wheelEvent(QWheelEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void mouseMoveEvent(QMouseEvent*) override;

private:
    QImage image_;
    double zoom_ = 1.0;
    QPointF pan_;  // offset of the picture's centre from the widget's, in pixels
    QPoint dragFrom_;
};

class ImageWindow : public QWidget {
    Q_OBJECT
public:
    enum class Channel { Rgb, Red, Green, Blue, Alpha };

    explicit ImageWindow(QWidget* parent = nullptr);

    // A rendered frame; shown through its own display transform.
    void showRender(const mq::tracer::Image& image, const QString& title);
    // A picture of the host UI layer (a preview texture): linear, no tone curve.
    void showImage(const mq::ui::Image& image, const QString& title);

    void setChannel(Channel channel);
    Channel channel() const { return channel_; }
    bool hasImage() const { return image_.width > 0; }
    const mq::tracer::Image& frame() const { return image_; }
    ImageCanvas* canvas() const { return canvas_; }
    // The 8-bit picture shown for the current channel.
    QImage displayed() const { return canvas_->image(); }

    // Writes the frame by its extension (.exr keeps the floats). False with
    // a message naming the file and the reason.
    bool saveTo(const QString& path, QString* error);

private:
    void refresh();
    void saveAs();

    mq::tracer::Image image_;
    Channel channel_ = Channel::Rgb;
    ImageCanvas* canvas_;
    QComboBox* channelBox_;
    QLabel* info_;
};

// Linear radiance to an 8-bit sRGB value through exposure and tone curve, as
// the tracer writes PNG and JPEG files, so the window shows what a save writes.
uint8_t displayValue(float linear, const mq::tracer::DisplayTransform& display);

}  // namespace mosaiq::studio
