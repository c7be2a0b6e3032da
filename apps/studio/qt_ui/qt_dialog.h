// A dialog made from a DialogTemplate as Qt widgets: each control at its
// rectangle in dialog units, and the window its procedure acts through. The
// window sends the procedure Command messages as the user works the
// controls; whoever shows the window sends Init and Destroy.
//
// Everything here runs on the Qt GUI thread.
#pragma once

#include "host/ui/dialog.h"

#include <QWidget>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace mosaiq::studio {

class QtView;
class SpinnerArrows;

class QtDialogWindow final : public QWidget, public mq::ui::DialogWindow {
    Q_OBJECT
public:
    // tmpl and proc must outlive the window. units turn the template's
    // rectangles into pixels.
    QtDialogWindow(const mq::ui::DialogTemplate& tmpl, mq::ui::DialogProc& proc,
                   const mq::ui::DialogUnits& units, QWidget* parent = nullptr);
    ~QtDialogWindow() override;

    const mq::ui::DialogTemplate& layout() const override { return tmpl_; }
    void enable(int id, bool on) override;
    bool isEnabled(int id) const override;
    void setChecked(int id, bool on) override;
    bool isChecked(int id) const override;
    void setText(int id, const std::string& text) override;
    std::string text(int id) const override;
    void redraw(int id) override;
    void setFocus(int id) override;
    mq::ui::Spinner* spinner(int id) override;
    mq::Node::Handle pickedNode(int id) const override;
    void setPickedNode(int id, mq::Node::Handle node) override;
    mq::ui::View* view(int id) override;
    void endDialog(int result) override;

    // The widget of a control (QLabel, QCheckBox, QRadioButton, QPushButton,
    // QLineEdit, SpinnerArrows, QtView); null for an unknown id.
    QWidget* widget(int id) const;
    QtView* qtView(int id) const;
    SpinnerArrows* arrows(int id) const;
    bool ended() const { return ended_; }
    int result() const { return result_; }
    // Called by endDialog (the modal QDialog ends with the result).
    std::function<void(int result)> onEnd;
    // A pick button was clicked: the host starts picking for it.
    std::function<void(QtDialogWindow&, int id)> onPickStarted;
    // The host finished a pick on button id: show the node and tell the procedure.
    void finishPick(int id, const mq::Node* node);
    // The user closed the window: the procedure decides.
    void sendClose();
    // Enter: the default button's command.
    void pressEnter();
    // Paint every view, as showing the window does.
    void paintViews();

protected:
    void keyPressEvent(QKeyEvent* e) override;

private:
    class QtSpinner;
    struct Control {
        mq::ui::ControlKind kind = mq::ui::ControlKind::Static;
        QWidget* widget = nullptr;
        int group = 0;
        mq::Node::Handle node = 0;
        std::string committed;  // an edit's text as last set or committed
    };
    Control* find(int id);
    const Control* find(int id) const;
    void command(int id, mq::ui::Notify notify);
    void makeControl(const mq::ui::ControlTemplate& c, const mq::ui::DialogUnits& units);
    void radioClicked(int id);
    void editCommitted(int id);
    // The spinner linked to editId; null when none is.
    QtSpinner* spinnerOfEdit(int editId);
    // The parameter a spinner edits, to name the undo step of a drag.
    std::string holdName(int spinnerId) const;

    const mq::ui::DialogTemplate& tmpl_;
    mq::ui::DialogProc& proc_;
    std::map<int, Control> controls_;
    std::map<int, std::unique_ptr<QtSpinner>> spinners_;
    bool ended_ = false;
    int result_ = 0;
};

}  // namespace mosaiq::studio
