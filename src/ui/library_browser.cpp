#include "ui/library_browser.h"

#include "host/atomic_file.h"
#include "host/check.h"
#include "object/resource.h"
#include "ui/library_state.h"
#include "ui/templates.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace mosaiq {

namespace {

using mq::ui::Bitmap;
using mq::ui::DialogWindow;
using mq::ui::Message;
using mq::ui::MessageBoxButtons;
using mq::ui::MessageBoxIcon;
using mq::ui::Notify;
using mq::ui::OffScreenBuffer;
using mq::ui::Rgb;
using mq::ui::ScrollRequest;
using mq::ui::View;

// Icon resources of the two folder pictures.
constexpr int kIconOpenFolder = 142;
constexpr int kIconClosedFolder = 143;

constexpr Rgb kViewBackground{210, 210, 210};
constexpr Rgb kSelectedFrame{128, 128, 255};
constexpr Rgb kEmptyCellOutline{128, 128, 128};

// Texts of the dialog's messages.
constexpr const char* kCaption = "Lib Browser";
constexpr const char* kSaveQuestion = "Do you want to save path";
constexpr const char* kSaveCaption = "LibBrawser";  // the product's spelling, kept as shipped
constexpr const char* kPickFolderTitle = "Select a folder";

// The end result of "Select File"; anything else means nothing was chosen.
constexpr int kResultSelected = 1;

// ---- Folder icons, drawn as data ----

void setPixel(Bitmap& b, int x, int y, Rgb c) {
    uint8_t* p = &b.rgb[3 * (size_t(y) * size_t(b.width) + size_t(x))];
    p[0] = c.r;
    p[1] = c.g;
    p[2] = c.b;
}

// The box [x0, x1] x [y0, y1] filled, with a one-pixel outline.
void box(Bitmap& b, int x0, int y0, int x1, int y1, Rgb fill, Rgb outline) {
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x)
            setPixel(b, x, y, (x == x0 || x == x1 || y == y0 || y == y1) ? outline : fill);
}

Bitmap makeFolderIcon(bool open) {
    constexpr Rgb kEdge{110, 80, 20}, kBack{222, 178, 62}, kFront{250, 216, 112};
    Bitmap b;
    b.width = kFolderIconWidth;
    b.height = kFolderIconHeight;
    b.rgb.resize(size_t(b.width) * size_t(b.height) * 3);
    box(b, 0, 0, b.width - 1, b.height - 1, kViewBackground, kViewBackground);
    // The tab, then the body over its lower edge.
    box(b, 2, 3, 12, 8, open ? kBack : kFront, kEdge);
    box(b, 1, 7, 29, 25, open ? kBack : kFront, kEdge);
    if (open) {
        // The front flap, tipped forward: each row one half-pixel further left going down.
        for (int y = 12; y <= 25; ++y) {
            const int left = 1 + (25 - y) / 2, right = 23 + (25 - y) / 2;
            for (int x = left; x <= right; ++x)
                setPixel(b, x, y, (x == left || x == right || y == 12 || y == 25) ? kEdge : kFront);
        }
    }
    return b;
}

const Bitmap& folderIcon(int resource) {
    static const Bitmap openIcon = makeFolderIcon(true);
    static const Bitmap closedIcon = makeFolderIcon(false);
    return resource == kIconOpenFolder ? openIcon : closedIcon;
}

// ---- Messages ----

void tell(LibBrowserState& s, const std::string& text) {
    s.ip.ui()->messageBox(text, kCaption, MessageBoxButtons::Ok, MessageBoxIcon::Warning);
}

// False, after telling the user, when text is longer than the browser takes.
bool withinLimit(LibBrowserState& s, const std::string& text, const std::string& source = {}) {
    if (text.size() <= kMaxLibraryPathLength) return true;
    tell(s, (source.empty() ? "" : source + ": ") + "\"" + text + "\" is longer than " +
                std::to_string(kMaxLibraryPathLength) + " characters");
    return false;
}

void scanAt(LibBrowserState& s, const std::string& path) {
    const std::vector<std::string> skipped = scanLibrary(s, path);
    if (skipped.empty()) return;
    std::string text;
    for (const std::string& p : skipped)
        text += "\"" + p + "\" is longer than " + std::to_string(kMaxLibraryPathLength) +
                " characters and is not shown\n";
    text.pop_back();
    tell(s, text);
}

// ---- Painting ----

void paintFolders(LibBrowserState& s) {
    if (!s.folderView || !s.folderBuffer) return;
    OffScreenBuffer& b = *s.folderBuffer;
    b.erase();
    const int scroll = s.folderView->scrollPos();
    for (LibFolderItem& f : s.folders) {
        const int top = f.y - scroll;
        const int resource = f.onPath ? kIconOpenFolder : kIconClosedFolder;
        b.drawBitmap(folderIcon(resource), f.x, top, kFolderIconWidth, kFolderIconHeight);
        b.text(f.x + 35, top + 8, f.name);
        const mq::ui::Size extent = b.textExtent(f.name);
        f.iconRect = {f.x, top, kFolderIconWidth, kFolderIconHeight};
        f.labelRect = {f.x + 35, top + 8, extent.w, extent.h};
    }
    b.blit();
}

void paintFiles(LibBrowserState& s) {
    if (!s.fileView || !s.fileBuffer) return;
    OffScreenBuffer& b = *s.fileBuffer;
    b.erase();
    const int scroll = s.fileView->scrollPos();
    for (LibFileItem& f : s.files) {
        const int top = f.y - scroll;
        const mq::ui::Size extent = b.textExtent(f.name);
        f.imageRect = {f.x, top, kPreviewWidth, kPreviewHeight};
        f.labelRect = {f.x, top + 102, extent.w, extent.h};
        const mq::ui::Rect& image = f.imageRect;
        const mq::ui::Rect& label = f.labelRect;
        if (f.selected) {
            b.rectangle(label.x - 2, label.y - 1, label.x + label.w + 2, label.y + label.h + 1,
                        kSelectedFrame, kSelectedFrame);
            b.rectangle(image.x - 2, image.y - 2, image.x + image.w + 2, image.y + image.h + 2,
                        kSelectedFrame, kSelectedFrame);
        }
        if (f.preview) {
            // Unscaled: a larger picture shows its top-left part.
            b.drawBitmap(*f.preview, image.x, image.y, std::min(image.w, f.preview->width),
                         std::min(image.h, f.preview->height));
        } else {
            b.rectangle(image.x, image.y, image.x + image.w, image.y + image.h, kEmptyCellOutline,
                        kViewBackground);
            b.text(f.x + 50, top + 40, "No Preview");
        }
        b.text(label.x, label.y, f.name);
    }
    b.blit();
}

void setScrollRanges(LibBrowserState& s) {
    if (!s.folderView || !s.fileView) return;
    const int folderMax =
        s.folders.empty()
            ? 0
            : std::max(0, s.folders.back().y + kFolderIconHeight - s.folderView->size().h);
    const int fileMax =
        s.files.empty() ? 0 : std::max(0, s.files.back().y + kFileRowHeight - s.fileView->size().h);
    s.folderView->setScrollRange(0, folderMax);
    s.folderView->setScrollPos(0);
    s.fileView->setScrollRange(0, fileMax);
    s.fileView->setScrollPos(0);
}

// After every scan: the ranges follow the new lists, then both views show them.
void refresh(LibBrowserState& s) {
    setScrollRanges(s);
    if (s.folderView) s.folderView->repaint();
    if (s.fileView) s.fileView->repaint();
}

// ---- Views ----

void clickFolders(LibBrowserState& s, int x, int y) {
    const auto hit = std::find_if(s.folders.begin(), s.folders.end(), [&](const LibFolderItem& f) {
        return f.iconRect.contains(x, y) || f.labelRect.contains(x, y);
    });
    if (hit == s.folders.end()) return;
    const std::string path = hit->path;  // the scan replaces the item
    scanAt(s, path);
    s.dialog->setText(library::kPathLine, path);
    s.dialog->enable(library::kSelectFile, false);
    s.dialog->enable(library::kSaveLibraryPath, true);
    refresh(s);
}

void clickFiles(LibBrowserState& s, int x, int y) {
    for (LibFileItem& f : s.files) f.selected = false;
    s.dialog->enable(library::kSelectFile, false);
    const auto hit = std::find_if(s.files.begin(), s.files.end(), [&](const LibFileItem& f) {
        return f.imageRect.contains(x, y) || f.labelRect.contains(x, y);
    });
    if (hit != s.files.end()) {
        hit->selected = true;
        s.dialog->setText(library::kPathLine, hit->path);
        s.dialog->enable(library::kSelectFile, true);
        s.dialog->enable(library::kSaveLibraryPath, false);
    }
    if (s.fileView) s.fileView->repaint();
}

// The two view classes differ in what they show and in their scroll steps.
class LibViewClass final : public mq::ui::ViewClass {
public:
    using Paint = void (*)(LibBrowserState&);
    using Click = void (*)(LibBrowserState&, int, int);
    LibViewClass(Paint paintState, Click clickState, int wheelDivisor, int lineStep, int pageStep)
        : paint_(paintState),
          click_(clickState),
          wheelDivisor_(wheelDivisor),
          lineStep_(lineStep),
          pageStep_(pageStep) {}

    void paint(View& view) override {
        MQ_BOUNDARY_BEGIN
        paint_(state(view));
        MQ_BOUNDARY_END(mq::reportError)
    }

    void leftButtonUp(View& view, int x, int y) override {
        MQ_BOUNDARY_BEGIN
        view.setFocus();
        LibBrowserState& s = state(view);
        if (s.dialog) click_(s, x, y);
        MQ_BOUNDARY_END(mq::reportError)
    }

    void wheel(View& view, int delta) override {
        MQ_BOUNDARY_BEGIN
        view.setScrollPos(view.scrollPos() - delta / wheelDivisor_);
        paint_(state(view));
        MQ_BOUNDARY_END(mq::reportError)
    }

    void verticalScroll(View& view, ScrollRequest request, int thumbPos) override {
        MQ_BOUNDARY_BEGIN
        const int pos = view.scrollPos();
        switch (request) {
            case ScrollRequest::LineUp:
                view.setScrollPos(pos - lineStep_);
                break;
            case ScrollRequest::LineDown:
                view.setScrollPos(pos + lineStep_);
                break;
            case ScrollRequest::PageUp:
                view.setScrollPos(pos - pageStep_);
                break;
            case ScrollRequest::PageDown:
                view.setScrollPos(pos + pageStep_);
                break;
            case ScrollRequest::ThumbTrack:
                view.setScrollPos(thumbPos);
                break;
            case ScrollRequest::Other:
                break;
        }
        paint_(state(view));
        MQ_BOUNDARY_END(mq::reportError)
    }

private:
    // The host calls the procedures only once the dialog attached its state.
    static LibBrowserState& state(View& view) {
        return *static_cast<LibBrowserState*>(view.userData());
    }

    Paint paint_;
    Click click_;
    int wheelDivisor_, lineStep_, pageStep_;
};

// One notch (120) moves the folders 15 pixels and the files 30.
LibViewClass& folderViewClass() {
    static LibViewClass cls(paintFolders, clickFolders, 8, 7, 28);
    return cls;
}

LibViewClass& fileViewClass() {
    static LibViewClass cls(paintFiles, clickFiles, 4, 20, 60);
    return cls;
}

// ---- The dialog ----

class LibBrowserProc final : public mq::ui::DialogProc {
public:
    explicit LibBrowserProc(LibBrowserState& state) : s_(state) {}

    bool message(DialogWindow& window, Message msg, int control, Notify notify) override {
        MQ_BOUNDARY_BEGIN
        switch (msg) {
            case Message::Init:
                init(window);
                return true;
            case Message::Command:
                return command(window, control, notify);
            case Message::Close:
                release(window);
                window.endDialog(0);
                return true;
            case Message::Destroy:
                release(window);
                return true;
        }
        MQ_BOUNDARY_END(mq::reportError)
        return false;
    }

private:
    void init(DialogWindow& window) {
        s_.ip.RegisterDlgWnd(&window);
        s_.dialog = &window;
        window.setText(library::kPathLine, s_.chosenPath);
        s_.folderView = window.view(library::kFolderView);
        s_.fileView = window.view(library::kFileView);
        MQ_ASSERT(s_.folderView && s_.fileView, "the library dialog has both of its views");
        s_.folderView->setUserData(&s_);
        s_.fileView->setUserData(&s_);
        s_.folderView->showScrollBar(true);
        s_.folderBuffer = s_.ip.ui()->createOffScreenBuffer(*s_.folderView);
        s_.fileBuffer = s_.ip.ui()->createOffScreenBuffer(*s_.fileView);
        s_.folderBuffer->setBackground(kViewBackground);
        s_.fileBuffer->setBackground(kViewBackground);
        setScrollRanges(s_);
        enableForPath(window.text(library::kPathLine));
    }

    // The buffers and the host's registration go whichever way the dialog
    // ends; the views forget the state, which dies with this opening.
    void release(DialogWindow& window) {
        s_.folderBuffer.reset();
        s_.fileBuffer.reset();
        s_.ip.UnRegisterDlgWnd(&window);
        if (s_.folderView) s_.folderView->setUserData(nullptr);
        if (s_.fileView) s_.fileView->setUserData(nullptr);
        s_.folderView = s_.fileView = nullptr;
        s_.dialog = nullptr;
    }

    void enableForPath(const std::string& path) {
        s_.dialog->enable(library::kSelectFile, s_.ip.DoesFileExist(path));
        s_.dialog->enable(library::kSaveLibraryPath, s_.ip.IsDirectory(path));
    }

    bool command(DialogWindow& window, int control, Notify notify) {
        if (!s_.dialog) return false;
        const std::string line = window.text(library::kPathLine);
        if (control == mq::ui::kIdOk ||
            (control == library::kPathLine && notify == Notify::TextCommitted)) {
            if (!withinLimit(s_, line)) return true;
            scanAt(s_, line);
            refresh(s_);
            enableForPath(line);
            return true;
        }
        switch (control) {
            case library::kSelectFile:
                if (s_.ip.DoesFileExist(line) && withinLimit(s_, line)) {
                    s_.chosenPath = line;
                    window.endDialog(kResultSelected);
                }
                return true;
            case library::kCancel:
                window.endDialog(0);
                return true;
            case library::kMoveToLibraryPath:
                moveToLibraryPath();
                return true;
            case library::kSaveLibraryPath:
                saveLibraryPath(line);
                return true;
            case library::kPickFolder:
                pickFolder(line);
                return true;
            default:
                return false;
        }
    }

    void moveToLibraryPath() {
        const std::filesystem::path file = libraryPathFile(s_.ip);
        const std::optional<std::string> path = readLibraryPath(file);
        if (!path || !withinLimit(s_, *path, file.string())) return;
        scanAt(s_, *path);
        s_.dialog->setText(library::kPathLine, *path);
        s_.dialog->enable(library::kSelectFile, false);
        s_.dialog->enable(library::kSaveLibraryPath, s_.ip.IsDirectory(*path));
        refresh(s_);
    }

    void saveLibraryPath(const std::string& path) {
        if (!s_.ip.IsDirectory(path) || !withinLimit(s_, path)) return;
        const int answer = s_.ip.ui()->messageBox(
            kSaveQuestion, kSaveCaption, MessageBoxButtons::OkCancel, MessageBoxIcon::Question);
        if (answer != mq::ui::kIdOk) return;
        try {
            writeLibraryPath(libraryPathFile(s_.ip), path);
        } catch (const mq::FileWriteError& e) {
            tell(s_, e.what());
        }
    }

    void pickFolder(const std::string& start) {
        std::optional<std::string> folder = s_.ip.ui()->pickFolder(kPickFolderTitle, start);
        if (!folder) return;
        if (folder->size() > 1 && folder->back() == '/') folder->pop_back();
        if (!withinLimit(s_, *folder)) return;
        s_.dialog->setText(library::kPathLine, *folder);
        scanAt(s_, *folder);
        s_.dialog->enable(library::kSelectFile, false);
        s_.dialog->enable(library::kSaveLibraryPath, s_.ip.IsDirectory(*folder));
        refresh(s_);
    }

    LibBrowserState& s_;
};

}  // namespace

std::optional<std::string> browseLibrary(mq::HostInterface& ip, const std::string& path) {
    MQ_BOUNDARY_BEGIN
    if (!ip.ui()) return std::nullopt;
    const mq::ui::DialogTemplate* tmpl = dialogTemplate(kDlgLibrary);
    MQ_ASSERT(tmpl, "the library dialog's template exists");
    LibBrowserState state(ip);
    // An overlong start path opens the browser empty, as a missing one does.
    if (withinLimit(state, path)) state.chosenPath = path;
    scanAt(state, state.chosenPath);
    LibBrowserProc proc(state);
    if (ip.ui()->runModal(*tmpl, proc) == kResultSelected) return state.chosenPath;
    MQ_BOUNDARY_END(mq::reportError)
    return std::nullopt;
}

void registerLibraryViews() {
    mq::ui::registerViewClass("LibFolderView", &folderViewClass());
    mq::ui::registerViewClass("LibFileView", &fileViewClass());
}

void unregisterLibraryViews() {
    mq::ui::unregisterViewClass("LibFolderView");
    mq::ui::unregisterViewClass("LibFileView");
}

}  // namespace mosaiq
