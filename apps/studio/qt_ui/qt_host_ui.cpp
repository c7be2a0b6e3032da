#include "qt_ui/qt_host_ui.h"

#include "qt_ui/qt_controls.h"
#include "qt_ui/qt_dialog.h"

#include <QApplication>
#include <QDialog>
#include <QFileDialog>
#include <QMessageBox>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

namespace mosaiq::studio {

using mq::ui::MessageBoxButtons;
using mq::ui::MessageBoxIcon;

mq::ui::DialogUnits dialogUnitsFor(double dpi, int pointSize) {
    // The platform's dialog font: an 8-point cell of 6 by 13 pixels at 96 dpi.
    const double scale = dpi / 96.0 * pointSize / 8.0;
    return {.charWidth = 6.0 * scale, .charHeight = 13.0 * scale};
}

namespace {

// A modal dialog whose window close and Escape go to the procedure, which
// decides whether the dialog ends.
class ModalDialog final : public QDialog {
public:
    ModalDialog(QWidget* parent, QtDialogWindow*& window) : QDialog(parent), window_(window) {}
    void reject() override {
        if (window_ && !window_->ended()) window_->sendClose();
    }

private:
    QtDialogWindow*& window_;
};

}  // namespace

// ---- Rollup pages ----

RollupPage::RollupPage(const std::string& title, QtDialogWindow* window, bool closed)
    : window_(window) {
    auto* button = new QToolButton(this);
    button->setText(QString::fromStdString(title));
    button->setCheckable(true);
    button->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    button->setFixedWidth(window->width());
    button->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    header_ = button;
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
    layout->addWidget(button);
    layout->addWidget(window);
    connect(button, &QToolButton::toggled, this, [this](bool open) { setOpen(open); });
    setOpen(!closed);
}

bool RollupPage::isOpen() const { return !window_->isHidden(); }

void RollupPage::setOpen(bool open) {
    auto* button = static_cast<QToolButton*>(header_);
    const QSignalBlocker block(button);
    button->setChecked(open);
    button->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
    window_->setVisible(open);
}

// ---- The user interface ----

struct QtHostUI::Page {
    int id = 0;
    std::string title;
    int category = 0;
    int order = 0;
    RollupPage* widget = nullptr;  // owned by the panel
};

QtHostUI::QtHostUI(double dpi) {
    if (dpi <= 0.0) {
        const QScreen* screen = QGuiApplication::primaryScreen();
        dpi = screen ? screen->logicalDotsPerInch() : 96.0;
    }
    dpi_ = dpi;
    units_ = dialogUnitsFor(dpi, 8);
    panel_ = new QScrollArea;
    panel_->setObjectName("commandPanel");
    panel_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    panel_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    auto* column = new QWidget;
    column_ = new QVBoxLayout(column);
    column_->setContentsMargins(4, 4, 4, 4);
    column_->setSpacing(4);
    column_->addStretch(1);
    panel_->setWidget(column);
    panel_->setWidgetResizable(true);
    // A rollout and the bar beside it.
    panel_->setMinimumWidth(units_.x(108) + 8 + panel_->verticalScrollBar()->sizeHint().width() +
                            2 * panel_->frameWidth());
}

QtHostUI::~QtHostUI() {
    cancelPick();
    // Only an unparented panel is ours; a parented one goes with its parent.
    if (panel_ && !panel_->parent()) delete panel_.data();
}

QWidget* QtHostUI::commandPanel() const { return panel_; }

mq::ui::DialogWindow& QtHostUI::openPage(int page, const mq::ui::DialogTemplate& tmpl,
                                         const std::string& title, bool closed, int category,
                                         mq::ui::DialogProc& proc) {
    auto* window = new QtDialogWindow(tmpl, proc, dialogUnitsFor(dpi_, tmpl.pointSize));
    window->onPickStarted = [this](QtDialogWindow& w, int control) { startPick(w, control); };
    auto p = std::make_unique<Page>();
    p->id = page;
    p->title = title;
    p->category = category;
    p->order = added_++;
    p->widget = new RollupPage(title, window, closed);
    pages_.push_back(std::move(p));
    relayout();
    return *window;
}

void QtHostUI::closePage(int page) {
    const auto it = std::find_if(pages_.begin(), pages_.end(),
                                 [&](const std::unique_ptr<Page>& p) { return p->id == page; });
    if (it == pages_.end()) return;
    if (pickWindow_ == (*it)->widget->window()) cancelPick();
    column_->removeWidget((*it)->widget);
    delete (*it)->widget;
    pages_.erase(it);
}

void QtHostUI::relayout() {
    std::vector<Page*> order;
    for (const auto& p : pages_) order.push_back(p.get());
    std::sort(order.begin(), order.end(), [](const Page* a, const Page* b) {
        return a->category != b->category ? a->category < b->category : a->order < b->order;
    });
    for (Page* p : order) column_->removeWidget(p->widget);
    // Pages first, then the stretch that keeps them at the top.
    for (size_t i = 0; i < order.size(); ++i)
        column_->insertWidget(int(i), order[i]->widget, 0, Qt::AlignHCenter);
}

std::vector<std::string> QtHostUI::pageTitles() const {
    std::vector<std::string> titles;
    for (int i = 0; i < column_->count(); ++i)
        if (auto* page = qobject_cast<RollupPage*>(column_->itemAt(i)->widget()))
            for (const auto& p : pages_)
                if (p->widget == page) titles.push_back(p->title);
    return titles;
}

RollupPage* QtHostUI::rollup(const std::string& title) const {
    for (const auto& p : pages_)
        if (p->title == title) return p->widget;
    return nullptr;
}

QtDialogWindow* QtHostUI::page(const std::string& title) const {
    RollupPage* r = rollup(title);
    return r ? r->window() : nullptr;
}

// ---- Picking ----

void QtHostUI::startPick(QtDialogWindow& window, int control) {
    // A second click on the waiting button stops picking.
    if (pickWindow_ == &window && pickControl_ == control) {
        cancelPick();
        return;
    }
    // A second pick button takes over; the first shows itself idle again.
    if (pickWindow_ && (pickWindow_ != &window || pickControl_ != control))
        pickWindow_->finishPick(pickControl_, nullptr);
    pickWindow_ = &window;
    pickControl_ = control;
    if (onPickMode) onPickMode(true);
}

bool QtHostUI::picking() const { return pickWindow_ != nullptr; }

bool QtHostUI::pickNode(mq::Node* node) {
    if (!pickWindow_ || !node) return false;
    if (pickFilter_ && !pickFilter_(*pickWindow_, pickControl_, *node)) return false;
    QPointer<QtDialogWindow> window = pickWindow_;
    pickWindow_ = nullptr;
    window->finishPick(pickControl_, node);
    if (onPickMode) onPickMode(false);
    return true;
}

void QtHostUI::cancelPick() {
    if (!pickWindow_) return;
    QPointer<QtDialogWindow> window = pickWindow_;
    pickWindow_ = nullptr;
    window->finishPick(pickControl_, nullptr);
    if (onPickMode) onPickMode(false);
}

// ---- Modal dialogs ----

void QtHostUI::onNextModal(std::function<void(QtDialogWindow&)> driver, bool handOver) {
    modalDrivers_.push_back({std::move(driver), handOver});
}

int QtHostUI::runModal(const mq::ui::DialogTemplate& tmpl, mq::ui::DialogProc& proc) {
    QtDialogWindow* window = nullptr;
    ModalDialog dialog(dialogParent_, window);
    dialog.setWindowTitle(QString::fromStdString(tmpl.title));
    window = new QtDialogWindow(tmpl, proc, dialogUnitsFor(dpi_, tmpl.pointSize), &dialog);
    window->onPickStarted = [this](QtDialogWindow& w, int control) { startPick(w, control); };
    window->onEnd = [&dialog](int result) {
        if (dialog.isVisible()) dialog.done(result);
    };
    dialog.setFixedSize(window->size());

    QtDialogWindow* outer = modal_;
    modal_ = window;
    proc.message(*window, mq::ui::Message::Init, 0, mq::ui::Notify::Clicked);
    // A dialog shown for the first time paints its views.
    window->paintViews();
    if (!window->ended()) {
        if (!modalDrivers_.empty()) {
            ModalDriver driver = std::move(modalDrivers_.front());
            modalDrivers_.pop_front();
            QTimer::singleShot(0, &dialog, [window, driver] {
                if (driver.drive) driver.drive(*window);
                if (driver.handOver || window->ended()) return;
                window->sendClose();
                // A procedure that ignores Close keeps a real dialog open; a driven one ends.
                if (!window->ended()) window->endDialog(mq::ui::kIdCancel);
            });
        }
        dialog.exec();
    }
    if (pickWindow_ == window) cancelPick();
    proc.message(*window, mq::ui::Message::Destroy, 0, mq::ui::Notify::Clicked);
    modal_ = outer;
    return window->result();
}

std::unique_ptr<mq::ui::OffScreenBuffer> QtHostUI::createOffScreenBuffer(mq::ui::View& view) {
    return std::make_unique<QtOffScreenBuffer>(static_cast<QtView&>(view));
}

// ---- Standard dialogs ----

int QtHostUI::messageBox(const std::string& text, const std::string& caption,
                         MessageBoxButtons buttons, MessageBoxIcon icon) {
    boxTexts_.push_back(text);
    if (!boxAnswers_.empty()) {
        const int answer = boxAnswers_.front();
        boxAnswers_.pop_front();
        return answer;
    }
    QMessageBox box(dialogParent_);
    box.setWindowTitle(QString::fromStdString(caption));
    box.setText(QString::fromStdString(text));
    switch (icon) {
        case MessageBoxIcon::None:
            box.setIcon(QMessageBox::NoIcon);
            break;
        case MessageBoxIcon::Information:
            box.setIcon(QMessageBox::Information);
            break;
        case MessageBoxIcon::Question:
            box.setIcon(QMessageBox::Question);
            break;
        case MessageBoxIcon::Warning:
            box.setIcon(QMessageBox::Warning);
            break;
        case MessageBoxIcon::Error:
            box.setIcon(QMessageBox::Critical);
            break;
    }
    switch (buttons) {
        case MessageBoxButtons::Ok:
            box.setStandardButtons(QMessageBox::Ok);
            break;
        case MessageBoxButtons::OkCancel:
            box.setStandardButtons(QMessageBox::Ok | QMessageBox::Cancel);
            break;
        case MessageBoxButtons::YesNo:
            box.setStandardButtons(QMessageBox::Yes | QMessageBox::No);
            break;
    }
    switch (box.exec()) {
        case QMessageBox::Ok:
            return mq::ui::kIdOk;
        case QMessageBox::Yes:
            return mq::ui::kIdYes;
        case QMessageBox::No:
            return mq::ui::kIdNo;
        default:
            return buttons == MessageBoxButtons::Ok ? mq::ui::kIdOk : mq::ui::kIdCancel;
    }
}

std::optional<std::string> QtHostUI::pickFolder(const std::string& title,
                                                const std::string& start) {
    if (!folderAnswers_.empty()) {
        std::optional<std::string> answer = std::move(folderAnswers_.front());
        folderAnswers_.pop_front();
        return answer;
    }
    const QString folder = QFileDialog::getExistingDirectory(
        dialogParent_, QString::fromStdString(title), QString::fromStdString(start));
    if (folder.isEmpty()) return std::nullopt;
    return folder.toStdString();
}

std::optional<std::string> QtHostUI::openFile(const std::string& title,
                                              const std::vector<mq::ui::FileFilter>& filters,
                                              const std::string& start) {
    if (!fileAnswers_.empty()) {
        std::optional<std::string> answer = std::move(fileAnswers_.front());
        fileAnswers_.pop_front();
        return answer;
    }
    // "Pattern files (*.mosaiq *.glb)": Qt separates patterns with spaces.
    QStringList filterList;
    for (const mq::ui::FileFilter& f : filters)
        filterList << QString::fromStdString(f.label) + " (" +
                          QString::fromStdString(f.pattern).replace(';', ' ') + ")";
    const QString file =
        QFileDialog::getOpenFileName(dialogParent_, QString::fromStdString(title),
                                     QString::fromStdString(start), filterList.join(";;"));
    if (file.isEmpty()) return std::nullopt;
    return file.toStdString();
}

void QtHostUI::showImage(const mq::ui::Image& image, const std::string& title) {
    if (imageSink_) imageSink_(image, title);
}

}  // namespace mosaiq::studio
