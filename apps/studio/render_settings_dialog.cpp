#include "render_settings_dialog.h"

#include "tracer/renderer.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>

namespace mosaiq::studio {

namespace {

QSpinBox* spin(int lo, int hi, int value, QWidget* parent) {
    auto* s = new QSpinBox(parent);
    s->setRange(lo, hi);
    s->setValue(value);
    return s;
}

}  // namespace

RenderSettingsDialog::RenderSettingsDialog(const nlohmann::json& render, const QString& output,
                                           QWidget* parent)
    : QDialog(parent), render_(render.is_object() ? render : nlohmann::json::object()) {
    setWindowTitle(tr("Render Settings"));
    // The values the render would use now; a section it cannot read shows the defaults.
    mq::tracer::RenderSettings now;
    try {
        now = mq::tracer::RenderSettings::fromJson(render_);
    } catch (const std::exception&) {
    }
    width_ = spin(1, 65536, now.width, this);
    height_ = spin(1, 65536, now.height, this);
    spp_ = spin(1, 1 << 20, now.samplesPerPixel, this);
    seed_ = spin(0, 2147483647, int(now.seed), this);
    output_ = new QLineEdit(output, this);
    output_->setPlaceholderText(tr("not written; save from the frame buffer"));
    auto* browse = new QPushButton(tr("..."), this);
    connect(browse, &QPushButton::clicked, this, [this] {
        const QString p = QFileDialog::getSaveFileName(
            this, tr("Render Output"), output_->text(),
            tr("PNG image (*.png);;OpenEXR image (*.exr);;JPEG image (*.jpg *.jpeg)"));
        if (!p.isEmpty()) output_->setText(p);
    });
    auto* resolution = new QHBoxLayout;
    resolution->addWidget(width_);
    resolution->addWidget(height_);
    auto* out = new QHBoxLayout;
    out->addWidget(output_, 1);
    out->addWidget(browse);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* form = new QFormLayout(this);
    form->addRow(tr("Resolution (width, height)"), resolution);
    form->addRow(tr("Samples per pixel"), spp_);
    form->addRow(tr("Seed"), seed_);
    form->addRow(tr("Output"), out);
    form->addRow(buttons);
}

nlohmann::json RenderSettingsDialog::render() const {
    nlohmann::json r = render_;
    const mq::tracer::RenderSettings defaults;
    auto put = [&r](const char* key, int value, int dflt) {
        if (value != dflt || r.contains(key)) r[key] = value;
    };
    put("width", width_->value(), defaults.width);
    put("height", height_->value(), defaults.height);
    put("spp", spp_->value(), defaults.samplesPerPixel);
    put("seed", seed_->value(), int(defaults.seed));
    return r;
}

QString RenderSettingsDialog::output() const { return output_->text().trimmed(); }

}  // namespace mosaiq::studio
