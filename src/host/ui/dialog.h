// Dialogs as the host shows them to plug-ins: templates as data, the window a
// dialog procedure acts through, and the messages it receives.
//
// A plug-in describes each dialog once as a DialogTemplate (controls by id,
// kind, label and rectangle in dialog units). The host's user interface (the
// studio, or the headless host of the tests) turns a template into a
// DialogWindow and sends the dialog's procedure three messages: Init once
// the controls exist, Command when the user works a control, Destroy before
// they go (and Close when the user closes a modal dialog's window). The
// procedure reads and changes controls only through the window, by id.
//
// Everything here runs on the host's user-interface thread.
#pragma once

#include "host/node.h"
#include "host/paramblock.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mq::ui {

// A rectangle: dialog units in templates, pixels in views and buffers.
struct Rect {
    int x = 0, y = 0, w = 0, h = 0;
    bool contains(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
    bool operator==(const Rect&) const = default;
};

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
    bool operator==(const Rgb&) const = default;
};

enum class ControlKind {
    Static,       // a label (id kStaticId unless the code addresses it)
    CheckBox,     // an auto check box
    RadioButton,  // an auto radio button
    PushButton,
    PickButton,  // the host's node pick button; shows the picked node's name
    CustomEdit,  // the host's edit field: text, or the number of a linked spinner
    Spinner,     // the host's spinner, linked to a CustomEdit
    Edit,        // a plain edit field with a border
    View,        // a view of a class a plug-in registered (ControlTemplate::viewClass)
};

// Id of controls nobody addresses.
inline constexpr int kStaticId = -1;
// Ids of the standard buttons: the default button (Enter) and Escape.
inline constexpr int kIdOk = 1;
inline constexpr int kIdCancel = 2;

struct ControlTemplate {
    int id = kStaticId;
    ControlKind kind = ControlKind::Static;
    std::string text;  // label, caption or initial text
    Rect rect;         // dialog units
    std::string viewClass;
    // RadioButton: the buttons of one group exclude each other.
    int group = 0;
    bool border = false;          // Edit: drawn with a border
    bool scrollsText = false;     // Edit: scrolls horizontally past its width
    bool verticalScroll = false;  // View: shows a vertical scroll bar
};

struct DialogTemplate {
    int id = 0;
    std::string title;
    int width = 0, height = 0;  // dialog units
    std::string font = "MS Shell Dlg";
    int pointSize = 8;
    std::vector<ControlTemplate> controls;

    // The first control with this id; null when none has it.
    const ControlTemplate* find(int controlId) const;
};

// Dialog units become pixels as the platform that defined them made them:
// x * (average character width of the dialog font) / 4 and y * (its height) /
// 8. With an 8-point font at 96 dpi that is 1.5 and 1.625 pixels per unit.
struct DialogUnits {
    double charWidth = 6.0;    // pixels
    double charHeight = 13.0;  // pixels
    int x(int units) const { return int(units * charWidth / 4.0 + 0.5); }
    int y(int units) const { return int(units * charHeight / 8.0 + 0.5); }
    Rect toPixels(const Rect& r) const { return {x(r.x), y(r.y), x(r.w), y(r.h)}; }
};

enum class Message {
    Init,     // the controls exist
    Destroy,  // the controls are about to go
    Command,  // a control was worked: control id and notification
    Close,    // the user closed a modal dialog's window
};

// What happened to the control of a Command.
enum class Notify {
    Clicked,        // a button, check box or radio button was pressed
    ValueChanged,   // a spinner's or custom edit's value was changed by the user
    TextCommitted,  // an edit field lost the focus (or Enter) after typing
    NodePicked,     // a pick button took a node
};

class DialogWindow;
class View;

// A spinner and the edit field it is linked to.
class Spinner {
public:
    virtual ~Spinner() = default;
    // Show the value in editId, typed as kind (world units in the scene's
    // unit system, or plain numbers).
    virtual void linkToEdit(int editId, EditSpinnerType kind) = 0;
    virtual int linkedEdit() const = 0;
    virtual EditSpinnerType editType() const = 0;
    virtual void setLimits(double min, double max) = 0;
    virtual double minimum() const = 0;
    virtual double maximum() const = 0;
    // The drag step; automatic scaling picks it from the value.
    virtual void setAutoScale(bool on) = 0;
    virtual bool autoScale() const = 0;
    // The value, kept within the limits; integer kinds round it.
    virtual void setValue(double value) = 0;
    virtual double value() const = 0;
};

// What a dialog's procedure sees of its window. Unknown ids are ignored and
// read as defaults (disabled, unchecked, empty), so a procedure written for
// one template cannot crash on another.
class DialogWindow {
public:
    virtual ~DialogWindow() = default;
    virtual const DialogTemplate& layout() const = 0;

    virtual void enable(int id, bool on) = 0;
    virtual bool isEnabled(int id) const = 0;
    virtual void setChecked(int id, bool on) = 0;
    virtual bool isChecked(int id) const = 0;
    // Labels, captions, edit text.
    virtual void setText(int id, const std::string& text) = 0;
    virtual std::string text(int id) const = 0;
    // Repaint a control at once, before work that blocks the interface.
    virtual void redraw(int id) = 0;
    virtual void setFocus(int id) = 0;
    // The spinner with this id; null when it is not one.
    virtual Spinner* spinner(int id) = 0;
    // The node a pick button shows (0 for none), and setting it.
    virtual Node::Handle pickedNode(int id) const = 0;
    virtual void setPickedNode(int id, Node::Handle node) = 0;
    // The view with this id; null when it is not one.
    virtual View* view(int id) = 0;
    // End a modal dialog with result (kIdOk, kIdCancel or the dialog's own).
    virtual void endDialog(int result) = 0;
};

// The procedure of a dialog that no parameter map drives (About, the
// library browser). Returns whether it handled the message.
class DialogProc {
public:
    virtual ~DialogProc() = default;
    virtual bool message(DialogWindow& window, Message msg, int control, Notify notify) = 0;
};

}  // namespace mq::ui
