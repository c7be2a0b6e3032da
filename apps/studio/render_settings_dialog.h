// Render Settings: resolution, samples, seed, and the file a finished
// render is written to. Edits a copy of the scene's "render" section, so
// keys the dialog does not show are kept as they are.
#pragma once

#include <QDialog>

#include <nlohmann/json.hpp>

class QLineEdit;
class QSpinBox;

namespace mosaiq::studio {

class RenderSettingsDialog : public QDialog {
    Q_OBJECT
public:
    RenderSettingsDialog(const nlohmann::json& render, const QString& output,
                         QWidget* parent = nullptr);
    // The section with the dialog's values; keys left at the tracer's
    // defaults are not added, so saved scenes stay as small as before.
    nlohmann::json render() const;
    QString output() const;

private:
    nlohmann::json render_;
    QSpinBox* width_;
    QSpinBox* height_;
    QSpinBox* spp_;
    QSpinBox* seed_;
    QLineEdit* output_;
};

}  // namespace mosaiq::studio
