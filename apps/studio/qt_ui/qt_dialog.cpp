#include "qt_ui/qt_dialog.h"

#include "host/hold.h"
#include "host/ui/param_map.h"
#include "host/ui/spinner_text.h"
#include "qt_ui/qt_controls.h"

#include <QCheckBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>

#include <algorithm>
#include <cmath>

namespace mosaiq::studio {

using mq::ui::ControlKind;
using mq::ui::Message;
using mq::ui::Notify;

namespace {

// The application font at the size whose average character (over the
// alphabet, as the platform measures its dialog font) fits the dialog unit's
// cell, so that captions laid out for the platform's font fit their controls.
QFont dialogFont(QFont f, const mq::ui::DialogUnits& units) {
    static const QString alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    const int largest = std::max(6, int(std::lround(units.charHeight * 11.0 / 13.0)));
    for (int px = largest; px > largest * 3 / 4; --px) {
        f.setPixelSize(px);
        if (QFontMetricsF(f).horizontalAdvance(alphabet) / 52.0 <= units.charWidth + 0.25) break;
    }
    return f;
}

}  // namespace

// ---- Spinners ----

class QtDialogWindow::QtSpinner final : public mq::ui::Spinner {
public:
    QtSpinner(QtDialogWindow& window, int id) : window_(window), id_(id) {}

    void linkToEdit(int editId, mq::EditSpinnerType kind) override {
        edit_ = editId;
        type_ = kind;
        showInEdit();
    }
    int linkedEdit() const override { return edit_; }
    mq::EditSpinnerType editType() const override { return type_; }
    void setLimits(double min, double max) override {
        min_ = min;
        max_ = max;
        setValue(value_);
    }
    double minimum() const override { return min_; }
    double maximum() const override { return max_; }
    void setAutoScale(bool on) override { autoScale_ = on; }
    bool autoScale() const override { return autoScale_; }
    void setValue(double value) override {
        value_ = clamp(value);
        showInEdit();
    }
    double value() const override { return value_; }

    double clamp(double value) const {
        if (type_ == mq::EDITTYPE_INT) value = std::round(value);
        return std::clamp(value, min_, std::max(min_, max_));
    }
    // One arrow step: whole numbers step by one; automatic scaling steps by a
    // tenth of the value's decade (0.1 from 1 to 10), so that large and
    // small values scrub alike and land on round numbers.
    double step() const {
        if (type_ == mq::EDITTYPE_INT) return 1.0;
        if (!autoScale_) return 0.1;
        const double magnitude = std::max(std::abs(scrub), 0.01);
        return std::pow(10.0, std::floor(std::log10(magnitude))) / 10.0;
    }
    // The value shown in the linked edit, as text.
    std::string shown() const {
        return mq::ui::formatSpinnerText(value_, type_, mq::currentSceneUnit());
    }

    // A gesture scrubs an unrounded value so slow drags of whole numbers move.
    double scrub = 0.0;

private:
    void showInEdit() {
        if (QtDialogWindow::Control* edit = window_.find(edit_)) {
            edit->committed = shown();
            if (auto* line = qobject_cast<QLineEdit*>(edit->widget)) {
                line->setText(QString::fromStdString(edit->committed));
                // A text wider than the field shows its digits; the unit is what clips.
                line->setCursorPosition(0);
            }
        }
    }

    QtDialogWindow& window_;
    int id_;
    int edit_ = 0;
    mq::EditSpinnerType type_ = mq::EDITTYPE_FLOAT;
    double min_ = -1e30, max_ = 1e30, value_ = 0.0;
    bool autoScale_ = false;
};

// ---- The window ----

QtDialogWindow::QtDialogWindow(const mq::ui::DialogTemplate& tmpl, mq::ui::DialogProc& proc,
                               const mq::ui::DialogUnits& units, QWidget* parent)
    : QWidget(parent), tmpl_(tmpl), proc_(proc) {
    setFont(dialogFont(font(), units));
    setFixedSize(units.x(tmpl.width), units.y(tmpl.height));
    for (const mq::ui::ControlTemplate& c : tmpl.controls) makeControl(c, units);
}

QtDialogWindow::~QtDialogWindow() {
    // A drag cut short still closes its undo hold, while the procedure exists.
    for (auto& [id, c] : controls_)
        if (auto* a = qobject_cast<SpinnerArrows*>(c.widget)) a->endGesture();
}

void QtDialogWindow::makeControl(const mq::ui::ControlTemplate& c,
                                 const mq::ui::DialogUnits& units) {
    const mq::ui::Rect r = units.toPixels(c.rect);
    const QString text = QString::fromStdString(c.text);
    const int id = c.id;
    QWidget* w = nullptr;
    switch (c.kind) {
        case ControlKind::Static: {
            auto* label = new QLabel(text, this);
            label->setAlignment(Qt::AlignLeft | Qt::AlignTop);
            label->setWordWrap(r.h > 2 * fontMetrics().height());
            w = label;
            break;
        }
        case ControlKind::CheckBox: {
            auto* box = new QCheckBox(text, this);
            connect(box, &QCheckBox::clicked, this, [this, id] { command(id, Notify::Clicked); });
            w = box;
            break;
        }
        case ControlKind::RadioButton: {
            // Groups come from the template, not from sharing a parent.
            auto* radio = new QRadioButton(text, this);
            radio->setAutoExclusive(false);
            connect(radio, &QRadioButton::clicked, this, [this, id] { radioClicked(id); });
            w = radio;
            break;
        }
        case ControlKind::PushButton:
        case ControlKind::PickButton: {
            auto* button = new QPushButton(text, this);
            // Enter goes to the dialog's procedure, never to a focused button.
            button->setAutoDefault(false);
            button->setDefault(false);
            if (c.kind == ControlKind::PickButton) {
                button->setCheckable(true);
                connect(button, &QPushButton::clicked, this, [this, id, button] {
                    button->setChecked(true);
                    command(id, Notify::Clicked);
                    if (onPickStarted) onPickStarted(*this, id);
                });
            } else {
                connect(button, &QPushButton::clicked, this,
                        [this, id] { command(id, Notify::Clicked); });
            }
            w = button;
            break;
        }
        case ControlKind::CustomEdit:
        case ControlKind::Edit: {
            auto* edit = new QLineEdit(text, this);
            edit->setFrame(c.kind == ControlKind::CustomEdit || c.border);
            connect(edit, &QLineEdit::editingFinished, this, [this, id] { editCommitted(id); });
            w = edit;
            break;
        }
        case ControlKind::Spinner: {
            auto* arrows = new SpinnerArrows(this);
            spinners_[id] = std::make_unique<QtSpinner>(*this, id);
            QtSpinner* s = spinners_[id].get();
            // One undo step per press to release, named after the parameter.
            arrows->onGestureBegin = [s] {
                s->scrub = s->value();
                mq::theHold.Begin();
            };
            arrows->onGestureEnd = [this, id] { mq::theHold.Accept(holdName(id)); };
            arrows->onStep = [this, s, id](double steps) {
                if (!isEnabled(id)) return;
                s->scrub = s->clamp(s->scrub + steps * s->step());
                const double before = s->value();
                s->setValue(s->scrub);
                if (s->value() != before) command(id, Notify::ValueChanged);
            };
            // Zero, or the limit nearest it.
            arrows->onReset = [this, s, id] {
                if (!isEnabled(id)) return;
                const double before = s->value();
                s->setValue(0.0);
                if (s->value() != before) command(id, Notify::ValueChanged);
            };
            w = arrows;
            break;
        }
        case ControlKind::View: {
            auto* view = new QtView(id, c.viewClass, this);
            view->showScrollBar(c.verticalScroll);
            w = view;
            break;
        }
    }
    w->setGeometry(r.x, r.y, r.w, r.h);
    if (id == mq::ui::kStaticId) return;
    Control& control = controls_[id];
    control.kind = c.kind;
    control.widget = w;
    control.group = c.group;
    control.committed = c.text;
}

QtDialogWindow::Control* QtDialogWindow::find(int id) {
    const auto it = controls_.find(id);
    return it == controls_.end() ? nullptr : &it->second;
}

const QtDialogWindow::Control* QtDialogWindow::find(int id) const {
    const auto it = controls_.find(id);
    return it == controls_.end() ? nullptr : &it->second;
}

QWidget* QtDialogWindow::widget(int id) const {
    const Control* c = find(id);
    return c ? c->widget : nullptr;
}

QtView* QtDialogWindow::qtView(int id) const { return qobject_cast<QtView*>(widget(id)); }

SpinnerArrows* QtDialogWindow::arrows(int id) const {
    return qobject_cast<SpinnerArrows*>(widget(id));
}

void QtDialogWindow::command(int id, Notify notify) {
    proc_.message(*this, Message::Command, id, notify);
}

void QtDialogWindow::enable(int id, bool on) {
    if (Control* c = find(id)) c->widget->setEnabled(on);
}

bool QtDialogWindow::isEnabled(int id) const {
    const Control* c = find(id);
    // Enabled as far as the dialog goes: a closed rollup hides, not disables.
    return c && c->widget->isEnabledTo(const_cast<QtDialogWindow*>(this));
}

void QtDialogWindow::setChecked(int id, bool on) {
    if (Control* c = find(id))
        if (auto* button = qobject_cast<QAbstractButton*>(c->widget))
            if (button->isCheckable()) button->setChecked(on);
}

bool QtDialogWindow::isChecked(int id) const {
    const Control* c = find(id);
    if (!c || c->kind == ControlKind::PickButton) return false;
    const auto* button = qobject_cast<const QAbstractButton*>(c->widget);
    return button && button->isChecked();
}

void QtDialogWindow::setText(int id, const std::string& text) {
    Control* c = find(id);
    if (!c) return;
    const QString q = QString::fromStdString(text);
    if (auto* label = qobject_cast<QLabel*>(c->widget))
        label->setText(q);
    else if (auto* button = qobject_cast<QAbstractButton*>(c->widget))
        button->setText(q);
    else if (auto* edit = qobject_cast<QLineEdit*>(c->widget))
        edit->setText(q);
    else
        return;
    c->committed = text;
}

std::string QtDialogWindow::text(int id) const {
    const Control* c = find(id);
    if (!c) return {};
    if (const auto* label = qobject_cast<const QLabel*>(c->widget))
        return label->text().toStdString();
    if (const auto* button = qobject_cast<const QAbstractButton*>(c->widget))
        return button->text().toStdString();
    if (const auto* edit = qobject_cast<const QLineEdit*>(c->widget))
        return edit->text().toStdString();
    return {};
}

void QtDialogWindow::redraw(int id) {
    if (Control* c = find(id)) c->widget->repaint();
}

void QtDialogWindow::setFocus(int id) {
    if (Control* c = find(id)) c->widget->setFocus();
}

mq::ui::Spinner* QtDialogWindow::spinner(int id) {
    const auto it = spinners_.find(id);
    return it == spinners_.end() ? nullptr : it->second.get();
}

mq::Node::Handle QtDialogWindow::pickedNode(int id) const {
    const Control* c = find(id);
    return c ? c->node : 0;
}

void QtDialogWindow::setPickedNode(int id, mq::Node::Handle node) {
    if (Control* c = find(id)) c->node = node;
}

mq::ui::View* QtDialogWindow::view(int id) { return qtView(id); }

void QtDialogWindow::endDialog(int result) {
    ended_ = true;
    result_ = result;
    if (onEnd) onEnd(result);
}

void QtDialogWindow::finishPick(int id, const mq::Node* node) {
    Control* c = find(id);
    if (!c || c->kind != ControlKind::PickButton) return;
    static_cast<QPushButton*>(c->widget)->setChecked(false);
    if (!node || !c->widget->isEnabled()) return;
    c->node = node->GetHandle();
    setText(id, node->GetName());
    command(id, Notify::NodePicked);
}

void QtDialogWindow::sendClose() { proc_.message(*this, Message::Close, 0, Notify::Clicked); }

void QtDialogWindow::pressEnter() { command(mq::ui::kIdOk, Notify::Clicked); }

void QtDialogWindow::paintViews() {
    for (auto& [id, c] : controls_)
        if (auto* v = qobject_cast<QtView*>(c.widget)) v->repaint();
}

void QtDialogWindow::keyPressEvent(QKeyEvent* e) {
    if (e->key() == Qt::Key_Return || e->key() == Qt::Key_Enter) {
        pressEnter();
        e->accept();
        return;
    }
    QWidget::keyPressEvent(e);
}

void QtDialogWindow::radioClicked(int id) {
    Control* c = find(id);
    if (!c) return;
    // An auto radio button checks itself and clears the rest of its group.
    for (auto& [otherId, other] : controls_)
        if (other.kind == ControlKind::RadioButton && other.group == c->group)
            static_cast<QRadioButton*>(other.widget)->setChecked(otherId == id);
    command(id, Notify::Clicked);
}

QtDialogWindow::QtSpinner* QtDialogWindow::spinnerOfEdit(int editId) {
    for (auto& [id, s] : spinners_)
        if (s->linkedEdit() == editId) return s.get();
    return nullptr;
}

void QtDialogWindow::editCommitted(int id) {
    Control* c = find(id);
    if (!c || !c->widget->isEnabled()) return;
    const std::string typed = static_cast<QLineEdit*>(c->widget)->text().toStdString();
    if (QtSpinner* s = spinnerOfEdit(id)) {
        // A number for the spinner; anything else shows the value again.
        const std::optional<double> value =
            mq::ui::parseSpinnerText(typed, s->editType(), mq::currentSceneUnit());
        const double before = s->value();
        if (!value) {
            s->setValue(before);
            return;
        }
        s->setValue(*value);
        if (s->value() == before) return;
        for (auto& [spinnerId, spinner] : spinners_)
            if (spinner.get() == s) command(spinnerId, Notify::ValueChanged);
        return;
    }
    // Leaving a field untouched is no edit.
    if (typed == c->committed) return;
    c->committed = typed;
    command(id, Notify::TextCommitted);
}

std::string QtDialogWindow::holdName(int spinnerId) const {
    if (const auto* map = dynamic_cast<const mq::ui::ParamMap*>(&proc_)) {
        for (const mq::ParamDef& def : map->GetParamBlock()->GetDesc()->params()) {
            if (!def.ui || def.ui->map != map->GetMapID() || def.ui->control != mq::TYPE_SPINNER)
                continue;
            const std::vector<int>& ids = def.ui->controls;
            if (std::find(ids.begin(), ids.end(), spinnerId) != ids.end()) return def.internalName;
        }
    }
    return "Spinner";
}

}  // namespace mosaiq::studio
