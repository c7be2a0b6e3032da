#include "units_dialog.h"

#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>

namespace mosaiq::studio {

namespace {

// As the list shows them, in the host's order of units.
struct Choice {
    mq::SceneUnit unit;
    const char* label;
};
constexpr Choice kChoices[] = {
    {mq::SceneUnit::Generic, "Generic Units"},
    {mq::SceneUnit::Millimeters, "Millimeters"},
    {mq::SceneUnit::Centimeters, "Centimeters"},
    {mq::SceneUnit::Meters, "Meters"},
    {mq::SceneUnit::Kilometers, "Kilometers"},
    {mq::SceneUnit::Inches, "Inches"},
    {mq::SceneUnit::Feet, "Feet"},
};

}  // namespace

UnitsSetupDialog::UnitsSetupDialog(mq::SceneUnit unit, QWidget* parent) : QDialog(parent) {
    setWindowTitle(tr("Units Setup"));
    units_ = new QComboBox(this);
    units_->setObjectName("units");
    for (const Choice& c : kChoices) {
        units_->addItem(tr(c.label), int(c.unit));
        if (c.unit == unit) units_->setCurrentIndex(units_->count() - 1);
    }
    auto* note = new QLabel(
        tr("Lengths show and take this unit; values are not rescaled.\nType another unit "
           "after a number (\"1in\") to convert it."),
        this);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* form = new QFormLayout(this);
    form->addRow(tr("Display unit:"), units_);
    form->addRow(note);
    form->addRow(buttons);
}

mq::SceneUnit UnitsSetupDialog::unit() const {
    return static_cast<mq::SceneUnit>(units_->currentData().toInt());
}

}  // namespace mosaiq::studio
