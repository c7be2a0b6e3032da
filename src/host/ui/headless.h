// A user interface without a display: every window, control and drawing
// call is a record, and tests work the controls as a user would (click,
// type, drag a spinner, pick a node, scroll a view, answer a dialog). The
// messages they cause go to the same procedures the studio would call.
#pragma once

#include "host/ui/host_ui.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mq::ui {

// What a control shows.
struct ControlState {
    ControlKind kind = ControlKind::Static;
    bool enabled = true;
    bool checked = false;
    std::string text;
    std::vector<std::string> textHistory;  // every text set, in order
    int redraws = 0;                       // redraw() calls
    std::string redrawnText;               // the text the last redraw() painted
    // Spinners.
    int linkedEdit = 0;
    EditSpinnerType editType = EDITTYPE_FLOAT;
    double minimum = 0.0, maximum = 0.0, value = 0.0;
    bool autoScale = false;
    // Pick buttons.
    Node::Handle node = 0;
};

// One call on an off-screen buffer.
struct DrawCall {
    enum class Kind { Erase, Bitmap, Rectangle, Text };
    Kind kind = Kind::Erase;
    int x = 0, y = 0;           // Bitmap, Text: where; Rectangle: left, top
    int right = 0, bottom = 0;  // Rectangle; Bitmap: x + w, y + h
    Rgb pen, fill;              // Rectangle; Erase: fill is the background
    std::string text;           // Text
    Size source;                // Bitmap: the bitmap's own size
};

class HeadlessUI;

class HeadlessView final : public View {
public:
    HeadlessView(HeadlessUI& ui, int id, Size size, const std::string& viewClass);

    int id() const override { return id_; }
    Size size() const override { return size_; }
    void* userData() const override { return userData_; }
    void setUserData(void* data) override { userData_ = data; }
    void showScrollBar(bool on) override { scrollBar_ = on; }
    void setScrollRange(int min, int max) override;
    int scrollMin() const override { return min_; }
    int scrollMax() const override { return max_; }
    void setScrollPos(int pos) override;
    int scrollPos() const override { return pos_; }
    void setFocus() override { ++focusTaken_; }
    void repaint() override;

    // Tests: what the user does, sent to the view class like the studio sends it.
    void click(int x, int y);
    void wheel(int delta);
    void scroll(ScrollRequest request, int thumbPos = 0);
    bool scrollBarShown() const { return scrollBar_; }
    int focusTaken() const { return focusTaken_; }
    // The calls of the last frame copied to the view, from its erase on.
    const std::vector<DrawCall>& frame() const { return frame_; }
    int paints() const { return paints_; }

private:
    friend class HeadlessBuffer;
    ViewClass* viewClass() const;

    HeadlessUI& ui_;
    int id_;
    Size size_;
    std::string viewClass_;
    void* userData_ = nullptr;
    bool scrollBar_ = false;
    int min_ = 0, max_ = 0, pos_ = 0;
    int focusTaken_ = 0;
    int paints_ = 0;
    std::vector<DrawCall> frame_;
};

class HeadlessWindow final : public DialogWindow {
public:
    HeadlessWindow(HeadlessUI& ui, const DialogTemplate& tmpl, DialogProc& proc);
    ~HeadlessWindow() override;

    const DialogTemplate& layout() const override { return tmpl_; }
    void enable(int id, bool on) override;
    bool isEnabled(int id) const override;
    void setChecked(int id, bool on) override;
    bool isChecked(int id) const override;
    void setText(int id, const std::string& text) override;
    std::string text(int id) const override;
    void redraw(int id) override;
    void setFocus(int id) override {}
    Spinner* spinner(int id) override;
    Node::Handle pickedNode(int id) const override;
    void setPickedNode(int id, Node::Handle node) override;
    View* view(int id) override;
    void endDialog(int result) override;

    // Tests: what the user does. Each acts only on an enabled control of
    // the right kind (a test that works a disabled one fails loudly), then
    // sends the Command the studio would send.
    void click(int id);
    void type(int id, const std::string& text);
    void setSpinner(int id, double value);
    void pick(int id, const Node* node);
    void pressEnter();
    // The user closes the window (modal dialogs).
    void close();

    const ControlState& control(int id) const;
    HeadlessView* headlessView(int id);
    // Paint every view, as showing the window does.
    void paintViews();
    bool ended() const { return ended_; }
    int result() const { return result_; }

private:
    class HeadlessSpinner;
    ControlState* find(int id);
    ControlState& require(int id, ControlKind kind, const char* action);
    void command(int id, Notify notify);

    HeadlessUI& ui_;
    const DialogTemplate& tmpl_;
    DialogProc& proc_;
    std::map<int, ControlState> controls_;
    std::map<int, std::unique_ptr<HeadlessSpinner>> spinners_;
    std::map<int, std::unique_ptr<HeadlessView>> views_;
    bool ended_ = false;
    int result_ = 0;
};

// A message box as it was shown.
struct MessageBoxRecord {
    std::string text, caption;
    MessageBoxButtons buttons = MessageBoxButtons::Ok;
    MessageBoxIcon icon = MessageBoxIcon::None;
    int answer = 0;
};

class HeadlessUI final : public HostUI {
public:
    // Pixels per dialog unit and the application font's cell: an 8-point
    // font at 96 dpi, every character 6 by 13 pixels.
    DialogUnits units;
    int charWidth = 6, charHeight = 13;

    DialogWindow& openPage(int page, const DialogTemplate& tmpl, const std::string& title,
                           bool closed, int category, DialogProc& proc) override;
    void closePage(int page) override;
    int runModal(const DialogTemplate& tmpl, DialogProc& proc) override;
    std::unique_ptr<OffScreenBuffer> createOffScreenBuffer(View& view) override;
    int messageBox(const std::string& text, const std::string& caption, MessageBoxButtons buttons,
                   MessageBoxIcon icon) override;
    std::optional<std::string> pickFolder(const std::string& title,
                                          const std::string& start) override;
    std::optional<std::string> openFile(const std::string& title,
                                        const std::vector<FileFilter>& filters,
                                        const std::string& start) override;
    void showImage(const Image& image, const std::string& title) override;

    // Tests: the open pages, in the order the command panel shows them.
    struct Page {
        int id = 0;
        std::string title;
        bool closed = false;
        int category = 0;
        std::unique_ptr<HeadlessWindow> window;
    };
    std::vector<const Page*> pages() const;
    // The open page with this title; null when none.
    HeadlessWindow* page(const std::string& title) const;

    // Tests: what the user will do in the next modal dialog. Without a
    // driver, or when the driver leaves the dialog open, the user closes it.
    void onNextModal(std::function<void(HeadlessWindow&)> driver);
    // The modal dialog running now; null when none.
    HeadlessWindow* modal() const { return modal_; }
    int modalsRun() const { return modalsRun_; }

    // Tests: answers for the next message box, folder picker and open-file
    // dialog (Cancel, or cancelled, when none is queued), and what was shown.
    void answerMessageBox(int answer) { boxAnswers_.push_back(answer); }
    void answerFolderPicker(std::optional<std::string> folder) {
        folderAnswers_.push_back(std::move(folder));
    }
    void answerOpenFile(std::optional<std::string> file) {
        fileAnswers_.push_back(std::move(file));
    }
    const std::vector<MessageBoxRecord>& messageBoxes() const { return boxes_; }
    const std::vector<std::string>& folderPickerStarts() const { return folderStarts_; }
    const std::vector<Image>& images() const { return images_; }
    const std::vector<std::string>& imageTitles() const { return imageTitles_; }

private:
    std::vector<std::unique_ptr<Page>> pages_;
    std::deque<std::function<void(HeadlessWindow&)>> modalDrivers_;
    HeadlessWindow* modal_ = nullptr;
    int modalsRun_ = 0;
    std::deque<int> boxAnswers_;
    std::deque<std::optional<std::string>> folderAnswers_, fileAnswers_;
    std::vector<MessageBoxRecord> boxes_;
    std::vector<std::string> folderStarts_;
    std::vector<Image> images_;
    std::vector<std::string> imageTitles_;
};

}  // namespace mq::ui
