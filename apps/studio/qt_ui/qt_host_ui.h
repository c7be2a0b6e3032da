// The host's user interface as Qt 6 Widgets: the command panel's rollup
// pages, modal dialogs, message boxes, file and folder dialogs. The
// application owns the main window and the image window and places the
// command panel; the plug-in reaches all of it through mq::ui::HostUI only.
//
// Everything here runs on the Qt GUI thread; a QApplication must exist.
#pragma once

#include "host/ui/host_ui.h"

#include <QPointer>
#include <QWidget>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QDialog;
class QScrollArea;
class QVBoxLayout;

namespace mosaiq::studio {

class QtDialogWindow;
class RollupPage;

// Pixels per dialog unit for a dialog font of pointSize on a screen of dpi:
// the 8-point dialog font's 6 by 13 pixel cell at 96 dpi, scaled.
mq::ui::DialogUnits dialogUnitsFor(double dpi, int pointSize);

class QtHostUI final : public mq::ui::HostUI {
public:
    // dpi 0: the primary screen's logical dpi.
    explicit QtHostUI(double dpi = 0.0);
    ~QtHostUI() override;

    mq::ui::DialogWindow& openPage(int page, const mq::ui::DialogTemplate& tmpl,
                                   const std::string& title, bool closed, int category,
                                   mq::ui::DialogProc& proc) override;
    void closePage(int page) override;
    int runModal(const mq::ui::DialogTemplate& tmpl, mq::ui::DialogProc& proc) override;
    std::unique_ptr<mq::ui::OffScreenBuffer> createOffScreenBuffer(mq::ui::View& view) override;
    int messageBox(const std::string& text, const std::string& caption,
                   mq::ui::MessageBoxButtons buttons, mq::ui::MessageBoxIcon icon) override;
    std::optional<std::string> pickFolder(const std::string& title,
                                          const std::string& start) override;
    std::optional<std::string> openFile(const std::string& title,
                                        const std::vector<mq::ui::FileFilter>& filters,
                                        const std::string& start) override;
    void showImage(const mq::ui::Image& image, const std::string& title) override;

    const mq::ui::DialogUnits& units() const { return units_; }

    // The scrolling column of rollup pages, by category then order added.
    // Owned here until the application parents it.
    QWidget* commandPanel() const;
    // Where showImage sends images (the application's image window).
    void setImageSink(std::function<void(const mq::ui::Image&, const std::string&)> sink) {
        imageSink_ = std::move(sink);
    }
    // Parent of modal dialogs (the main window); null: none.
    void setDialogParent(QWidget* parent) { dialogParent_ = parent; }

    // Node picking: a pick button's click starts it; the application calls
    // pickNode when the user clicks a node (the outliner). The node goes to
    // the waiting button when the filter takes it; returns whether it did.
    // The filter sees the dialog and pick button asking; none takes any node.
    using PickFilter = std::function<bool(const QtDialogWindow&, int control, const mq::Node&)>;
    void setPickFilter(PickFilter filter) { pickFilter_ = std::move(filter); }
    bool picking() const;
    bool pickNode(mq::Node* node);
    void cancelPick();
    // Told when picking starts (true) and ends (false), for the status bar.
    std::function<void(bool picking)> onPickMode;

    // The open pages in panel order, their titles, and a page's window by title.
    std::vector<std::string> pageTitles() const;
    QtDialogWindow* page(const std::string& title) const;
    // The collapsible page widget holding the window with this title.
    RollupPage* rollup(const std::string& title) const;

    // Tests and scripted runs: what the user does in the next modal dialog,
    // run once its event loop shows it; a driver that leaves it open closes
    // it as the user would, unless handOver leaves it to the user from there.
    // Without a queued driver the user works it.
    void onNextModal(std::function<void(QtDialogWindow&)> driver, bool handOver = false);
    QtDialogWindow* modal() const { return modal_; }
    // Answers for the next message box, folder picker and open-file dialog;
    // without one queued the real Qt dialog asks the user.
    void answerMessageBox(int answer) { boxAnswers_.push_back(answer); }
    void answerFolderPicker(std::optional<std::string> folder) {
        folderAnswers_.push_back(std::move(folder));
    }
    void answerOpenFile(std::optional<std::string> file) {
        fileAnswers_.push_back(std::move(file));
    }
    // The texts of the message boxes shown.
    const std::vector<std::string>& messageBoxTexts() const { return boxTexts_; }

private:
    struct Page;
    void startPick(QtDialogWindow& window, int control);
    void relayout();

    double dpi_ = 96.0;
    mq::ui::DialogUnits units_;
    QPointer<QScrollArea> panel_;
    QVBoxLayout* column_ = nullptr;
    std::vector<std::unique_ptr<Page>> pages_;
    int added_ = 0;
    std::function<void(const mq::ui::Image&, const std::string&)> imageSink_;
    QPointer<QWidget> dialogParent_;
    PickFilter pickFilter_;
    QPointer<QtDialogWindow> pickWindow_;
    int pickControl_ = 0;
    struct ModalDriver {
        std::function<void(QtDialogWindow&)> drive;
        bool handOver = false;
    };
    std::deque<ModalDriver> modalDrivers_;
    QtDialogWindow* modal_ = nullptr;
    std::deque<int> boxAnswers_;
    std::deque<std::optional<std::string>> folderAnswers_, fileAnswers_;
    std::vector<std::string> boxTexts_;
};

// A rollup page: a header button with the title that opens and closes it,
// above its dialog.
class RollupPage final : public QWidget {
    Q_OBJECT
public:
    RollupPage(const std::string& title, QtDialogWindow* window, bool closed);
    bool isOpen() const;
    void setOpen(bool open);
    QtDialogWindow* window() const { return window_; }
    QWidget* header() const { return header_; }

private:
    QtDialogWindow* window_;
    QWidget* header_;
};

}  // namespace mosaiq::studio
