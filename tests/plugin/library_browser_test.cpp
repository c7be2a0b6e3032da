// The library browser through the headless host, on a real folder tree:
// where the folders and files land, what a click and a scroll do, the
// library path file, and how each way of ending the dialog comes back.
#include "ui/library_browser.h"
#include "host/ui/headless.h"
#include "support/test_util.h"
#include "tracer/renderer.h"
#include "ui/templates.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace mosaiq;
using mq::test::TempDir;
using mq::ui::DrawCall;
using mq::ui::HeadlessView;
using mq::ui::HeadlessWindow;
using mq::ui::Rgb;
using mq::ui::ScrollRequest;
namespace fs = std::filesystem;

constexpr Rgb kSelected{128, 128, 255};
// The pattern files of lib, in name order; a.jpg is a real picture, b.jpg is not.
const std::vector<std::string> kPatterns = {"a.obj", "b.glb", "c.mosaiq", "d.ply", "e.fbx",
                                            "f.dae", "g.3ds", "h.stl",    "i.obj", "j.obj"};

// A folder item as painted: the icon's corner and the label, checked to sit
// 35 right of and 8 below the icon.
struct Drawn {
    int x = 0, y = 0;
    std::string name;
};

std::vector<Drawn> foldersDrawn(const HeadlessView& v) {
    std::vector<Drawn> out;
    for (const DrawCall& c : v.frame()) {
        if (c.kind == DrawCall::Kind::Bitmap) {
            EXPECT_EQ(c.right - c.x, 32);
            EXPECT_EQ(c.bottom - c.y, 28);
            out.push_back({c.x, c.y, ""});
        } else if (c.kind == DrawCall::Kind::Text && !out.empty()) {
            EXPECT_EQ(c.x, out.back().x + 35) << c.text;
            EXPECT_EQ(c.y, out.back().y + 8) << c.text;
            out.back().name = c.text;
        }
    }
    return out;
}

// The first call of kind at x, y (and with text, for text); null when none.
const DrawCall* findCall(const HeadlessView& v, DrawCall::Kind kind, int x, int y,
                         const std::string& text = {}) {
    for (const DrawCall& c : v.frame())
        if (c.kind == kind && c.x == x && c.y == y && (text.empty() || c.text == text)) return &c;
    return nullptr;
}

// The sub-folders of lib: f100 to f113.
std::string subFolder(int i) {
    std::string name = "f";
    return name += std::to_string(100 + i);
}

int countSelectedFrames(const HeadlessView& v) {
    int n = 0;
    for (const DrawCall& c : v.frame())
        n += c.kind == DrawCall::Kind::Rectangle && c.pen == kSelected && c.fill == kSelected;
    return n;
}

class LibraryBrowser : public ::testing::Test {
protected:
    LibraryBrowser() {
        registerLibraryViews();
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) savedConfigHome_ = old;
        ::setenv("XDG_CONFIG_HOME", config.path().c_str(), 1);
        ip.setUI(std::make_unique<mq::ui::HeadlessUI>());

        // lib: 14 sub-folders and a hidden one, 10 pattern files and two that are not.
        fs::create_directories(lib / ".hidden");
        for (int i = 0; i < 14; ++i) fs::create_directory(lib / subFolder(i));
        for (const std::string& name : kPatterns) mq::test::writeText(lib / name, "");
        mq::test::writeText(lib / "notes.txt", "");
        mq::test::writeText(lib / "b.jpg", "not a picture");
        mq::tracer::Image picture(200, 120);
        for (size_t i = 0; i < picture.rgba.size(); ++i) picture.rgba[i] = 0.5f;
        mq::tracer::writeImage(lib / "a.jpg", picture);
    }
    ~LibraryBrowser() override {
        if (savedConfigHome_)
            ::setenv("XDG_CONFIG_HOME", savedConfigHome_->c_str(), 1);
        else
            ::unsetenv("XDG_CONFIG_HOME");
    }

    mq::ui::HeadlessUI& ui() { return static_cast<mq::ui::HeadlessUI&>(*ip.ui()); }
    static HeadlessView& folders(HeadlessWindow& w) {
        return *w.headlessView(library::kFolderView);
    }
    static HeadlessView& files(HeadlessWindow& w) { return *w.headlessView(library::kFileView); }

    // Opens the browser at start; the views paint as a real dialog's do when
    // it shows, then driver works it.
    std::optional<std::string> browse(const std::string& start,
                                      std::function<void(HeadlessWindow&)> driver) {
        ui().onNextModal([&](HeadlessWindow& w) {
            folders(w).repaint();
            files(w).repaint();
            driver(w);
        });
        return browseLibrary(ip, start);
    }

    TempDir tree, config;
    fs::path lib = tree / "lib";
    mq::HostInterface ip;

private:
    std::optional<std::string> savedConfigHome_;
};

TEST_F(LibraryBrowser, ChainSubFoldersAndFilesLandWhereTheyShould) {
    browse(lib.string(), [&](HeadlessWindow& w) {
        EXPECT_EQ(w.text(library::kPathLine), lib.string());
        EXPECT_FALSE(w.isEnabled(library::kSelectFile));
        EXPECT_TRUE(w.isEnabled(library::kSaveLibraryPath));
        EXPECT_TRUE(folders(w).scrollBarShown());

        // The chain: the root at 5,5, then one step right and one row down per folder.
        std::vector<std::string> chain = {"/"};
        for (const fs::path& part : lib.relative_path()) chain.push_back(part.string());
        const std::vector<Drawn> drawn = foldersDrawn(folders(w));
        ASSERT_EQ(drawn.size(), chain.size() + 14);
        EXPECT_EQ(drawn[0].x, 5);
        EXPECT_EQ(drawn[0].y, 5);
        EXPECT_EQ(drawn[0].name, "/");
        for (size_t i = 1; i < chain.size(); ++i) {
            EXPECT_EQ(drawn[i].name, chain[i]);
            EXPECT_EQ(drawn[i].x, 15 + 10 * int(i - 1));
            EXPECT_EQ(drawn[i].y, 35 + 30 * int(i - 1));
        }
        // Sub-folders by name, hidden ones left out, one level deeper, 30 apart.
        const Drawn& current = drawn[chain.size() - 1];
        for (int i = 0; i < 14; ++i) {
            const Drawn& sub = drawn[chain.size() + size_t(i)];
            EXPECT_EQ(sub.name, subFolder(i));
            EXPECT_EQ(sub.x, current.x + 10);
            EXPECT_EQ(sub.y, current.y + 30 * (i + 1));
        }
        const int viewHeight = folders(w).size().h;
        EXPECT_EQ(folders(w).scrollMax(), drawn.back().y + 28 - viewHeight);

        // Files in two columns 170 apart, rows 120 apart, names 102 under the cell.
        const HeadlessView& v = files(w);
        for (size_t i = 0; i < kPatterns.size(); ++i) {
            const int x = 5 + 170 * int(i % 2), y = 5 + 120 * int(i / 2);
            EXPECT_NE(findCall(v, DrawCall::Kind::Text, x, y + 102, kPatterns[i]), nullptr)
                << kPatterns[i];
            if (i == 0) continue;  // the one with a picture
            const DrawCall* cell = findCall(v, DrawCall::Kind::Rectangle, x, y);
            ASSERT_NE(cell, nullptr) << kPatterns[i];
            EXPECT_EQ(cell->right, x + 160);
            EXPECT_EQ(cell->bottom, y + 100);
            EXPECT_EQ(cell->pen, (Rgb{128, 128, 128}));
            EXPECT_EQ(cell->fill, (Rgb{210, 210, 210}));
            EXPECT_NE(findCall(v, DrawCall::Kind::Text, x + 50, y + 40, "No Preview"), nullptr);
        }
        const auto texts = std::count_if(v.frame().begin(), v.frame().end(), [](const DrawCall& c) {
            return c.kind == DrawCall::Kind::Text;
        });
        EXPECT_EQ(texts, 10 + 9) << "ten names, nine without a picture; nothing else";
        EXPECT_EQ(v.scrollMax(), 485 + 120 - v.size().h);

        // a.jpg is copied unscaled: its top-left 160 by 100 pixels; painting
        // again uses the picture loaded by the scan.
        fs::remove(lib / "a.jpg");
        files(w).repaint();
        const DrawCall* preview = findCall(v, DrawCall::Kind::Bitmap, 5, 5);
        ASSERT_NE(preview, nullptr);
        EXPECT_EQ(preview->right, 165);
        EXPECT_EQ(preview->bottom, 105);
        EXPECT_EQ(preview->source, (mq::ui::Size{200, 120}));
        EXPECT_EQ(findCall(v, DrawCall::Kind::Text, 55, 45, "No Preview"), nullptr);
    });
}

TEST_F(LibraryBrowser, WheelLineAndPageStepsPerView) {
    browse(lib.string(), [&](HeadlessWindow& w) {
        HeadlessView& f = folders(w);
        f.wheel(-120);
        EXPECT_EQ(f.scrollPos(), 15);
        EXPECT_EQ(foldersDrawn(f)[0].y, 5 - 15) << "painted with the offset";
        f.scroll(ScrollRequest::LineDown);
        EXPECT_EQ(f.scrollPos(), 22);
        f.scroll(ScrollRequest::PageDown);
        EXPECT_EQ(f.scrollPos(), 50);
        f.scroll(ScrollRequest::PageUp);
        f.scroll(ScrollRequest::LineUp);
        EXPECT_EQ(f.scrollPos(), 15);
        f.wheel(240);
        EXPECT_EQ(f.scrollPos(), 0) << "kept within the range";

        HeadlessView& v = files(w);
        v.wheel(-120);
        EXPECT_EQ(v.scrollPos(), 30);
        v.scroll(ScrollRequest::LineDown);
        EXPECT_EQ(v.scrollPos(), 50);
        v.scroll(ScrollRequest::PageDown);
        EXPECT_EQ(v.scrollPos(), 110);
        v.scroll(ScrollRequest::ThumbTrack, 7);
        EXPECT_EQ(v.scrollPos(), 7);
        v.scroll(ScrollRequest::Other, 100);
        EXPECT_EQ(v.scrollPos(), 7);
        EXPECT_NE(findCall(v, DrawCall::Kind::Text, 5, 5 + 102 - 7, "a.obj"), nullptr);
    });
}

TEST_F(LibraryBrowser, ClicksHitTheRectanglesOfTheLastPaint) {
    const fs::path c = lib / "c.mosaiq";
    const std::optional<std::string> chosen = browse(lib.string(), [&](HeadlessWindow& w) {
        // A sub-folder's label rescans there: it ends the chain, with nothing under it.
        const std::vector<Drawn> before = foldersDrawn(folders(w));
        const Drawn sub = before[before.size() - 14 + 3];
        folders(w).click(sub.x + 36, sub.y + 9);
        EXPECT_EQ(w.text(library::kPathLine), (lib / "f103").string());
        EXPECT_FALSE(w.isEnabled(library::kSelectFile));
        EXPECT_TRUE(w.isEnabled(library::kSaveLibraryPath));
        const std::vector<Drawn> after = foldersDrawn(folders(w));
        ASSERT_EQ(after.size(), before.size() - 14 + 1);
        EXPECT_EQ(after.back().name, "f103");
        EXPECT_EQ(files(w).frame().size(), 1u) << "an empty folder shows no files";
        // An on-path folder's icon goes back up.
        const Drawn up = after[after.size() - 2];
        folders(w).click(up.x + 31, up.y + 27);
        EXPECT_EQ(w.text(library::kPathLine), lib.string());

        // Scrolled one notch, c.mosaiq's picture cell sits 30 higher.
        HeadlessView& v = files(w);
        v.wheel(-120);
        v.click(6, 125 - 30);
        EXPECT_EQ(w.text(library::kPathLine), c.string());
        EXPECT_TRUE(w.isEnabled(library::kSelectFile));
        EXPECT_FALSE(w.isEnabled(library::kSaveLibraryPath));
        const DrawCall* imageFrame = findCall(v, DrawCall::Kind::Rectangle, 3, 93);
        ASSERT_NE(imageFrame, nullptr);
        EXPECT_EQ(imageFrame->right, 167);
        EXPECT_EQ(imageFrame->bottom, 197);
        const DrawCall* labelFrame = findCall(v, DrawCall::Kind::Rectangle, 3, 196);
        ASSERT_NE(labelFrame, nullptr);
        EXPECT_EQ(labelFrame->right, 5 + 8 * 6 + 2);
        EXPECT_EQ(labelFrame->bottom, 197 + 13 + 1);
        EXPECT_EQ(countSelectedFrames(v), 2);

        // An empty spot clears the selection.
        v.click(350, 50);
        EXPECT_EQ(countSelectedFrames(v), 0);
        EXPECT_FALSE(w.isEnabled(library::kSelectFile));

        // The label selects too; "Select File" checks the line as it is when pressed.
        v.click(5 + 47, 197 + 12);
        ASSERT_TRUE(w.isEnabled(library::kSelectFile));
        w.setText(library::kPathLine, lib.string());
        w.click(library::kSelectFile);
        EXPECT_FALSE(w.ended());
        w.setText(library::kPathLine, c.string());
        w.click(library::kSelectFile);
    });
    EXPECT_EQ(chosen, c.string());
}

TEST_F(LibraryBrowser, CancelAndCloseChooseNothingAndLeaveNothingRegistered) {
    int registeredWhileOpen = 0;
    EXPECT_EQ(browse(lib.string(),
                     [&](HeadlessWindow& w) {
                         registeredWhileOpen = int(ip.registeredWindows().size());
                         files(w).click(6, 6);
                         w.click(library::kCancel);
                     }),
              std::nullopt);
    EXPECT_EQ(registeredWhileOpen, 1);
    EXPECT_TRUE(ip.registeredWindows().empty());
    EXPECT_EQ(browse(lib.string(), [&](HeadlessWindow& w) { files(w).click(6, 6); }),
              std::nullopt);  // the user closes the window
    EXPECT_TRUE(ip.registeredWindows().empty());

    mq::HostInterface withoutUI;
    EXPECT_EQ(browseLibrary(withoutUI, lib.string()), std::nullopt);
}

TEST_F(LibraryBrowser, LibraryPathRoundTripCutsAtTheBlank) {
    const fs::path myLib = tree / "My Lib", my = tree / "My";
    fs::create_directories(myLib);
    fs::create_directories(my);
    const fs::path iniFile = config / "mosaiq" / "MosaiqLibPath.ini";
    browse(lib.string(), [&](HeadlessWindow& w) {
        // No library path file yet: nothing moves.
        w.click(library::kMoveToLibraryPath);
        EXPECT_EQ(w.text(library::kPathLine), lib.string());

        w.type(library::kPathLine, myLib.string());
        ui().answerMessageBox(mq::ui::kIdOk);
        w.click(library::kSaveLibraryPath);
        ASSERT_EQ(ui().messageBoxes().size(), 1u);
        const mq::ui::MessageBoxRecord& box = ui().messageBoxes()[0];
        EXPECT_EQ(box.text, "Do you want to save path");
        EXPECT_EQ(box.caption, "LibBrawser");
        EXPECT_EQ(box.buttons, mq::ui::MessageBoxButtons::OkCancel);
        EXPECT_EQ(box.icon, mq::ui::MessageBoxIcon::Question);
        EXPECT_EQ(mq::test::readText(iniFile), myLib.string()) << "no line end";

        // Cancelled, the file stays; a line that is no folder asks nothing.
        w.type(library::kPathLine, lib.string());
        w.click(library::kSaveLibraryPath);
        w.setText(library::kPathLine, (lib / "a.obj").string());
        w.click(library::kSaveLibraryPath);
        EXPECT_EQ(ui().messageBoxes().size(), 2u);
        EXPECT_EQ(mq::test::readText(iniFile), myLib.string());

        w.click(library::kMoveToLibraryPath);
        EXPECT_EQ(w.text(library::kPathLine), my.string());
        EXPECT_FALSE(w.isEnabled(library::kSelectFile));
        EXPECT_TRUE(w.isEnabled(library::kSaveLibraryPath));
        EXPECT_EQ(foldersDrawn(folders(w)).back().name, "My");
        EXPECT_EQ(files(w).frame().size(), 1u);

        // A configuration folder that cannot be made is reported, naming the file.
        ::setenv("XDG_CONFIG_HOME", (lib / "a.obj").c_str(), 1);
        ui().answerMessageBox(mq::ui::kIdOk);
        w.click(library::kSaveLibraryPath);
        ASSERT_EQ(ui().messageBoxes().size(), 4u);
        EXPECT_NE(ui().messageBoxes()[3].text.find("MosaiqLibPath.ini"), std::string::npos)
            << ui().messageBoxes()[3].text;
    });
}

TEST_F(LibraryBrowser, MissingStartFolderShowsNothingUntilTheUserGoesSomewhere) {
    const std::string missing = (tree / "nope").string();
    browse(missing, [&](HeadlessWindow& w) {
        EXPECT_EQ(w.text(library::kPathLine), missing);
        EXPECT_EQ(folders(w).frame().size(), 1u) << "erased, nothing drawn";
        EXPECT_EQ(files(w).frame().size(), 1u);
        EXPECT_EQ(folders(w).scrollMax(), 0);
        EXPECT_EQ(files(w).scrollMax(), 0);
        EXPECT_FALSE(w.isEnabled(library::kSelectFile));
        EXPECT_FALSE(w.isEnabled(library::kSaveLibraryPath));

        // A cancelled folder picker changes nothing.
        w.click(library::kPickFolder);
        EXPECT_EQ(ui().folderPickerStarts(), std::vector<std::string>{missing});
        EXPECT_EQ(w.text(library::kPathLine), missing);

        ui().answerFolderPicker(lib.string() + "/");
        w.click(library::kPickFolder);
        EXPECT_EQ(w.text(library::kPathLine), lib.string());
        EXPECT_TRUE(w.isEnabled(library::kSaveLibraryPath));
        EXPECT_EQ(foldersDrawn(folders(w)).back().name, "f113");

        // Enter takes the line as typed: a file opens its folder and can be selected.
        w.setText(library::kPathLine, (lib / "b.glb").string());
        w.pressEnter();
        EXPECT_TRUE(w.isEnabled(library::kSelectFile));
        EXPECT_FALSE(w.isEnabled(library::kSaveLibraryPath));
        EXPECT_EQ(foldersDrawn(folders(w)).back().name, "f113");
        EXPECT_NE(findCall(files(w), DrawCall::Kind::Text, 175, 107, "b.glb"), nullptr);
    });
}

TEST_F(LibraryBrowser, OverlongPathsAreRefusedWithAMessage) {
    const std::string overlong = "/" + std::string(300, 'x');
    // A folder whose sub-folder's path passes the limit: it is left out and named.
    const fs::path deep = tree / std::string(120, 'd');
    fs::create_directories(deep / std::string(140, 'e'));
    fs::create_directories(deep / "short");
    browse(overlong, [&](HeadlessWindow& w) {
        EXPECT_EQ(w.text(library::kPathLine), "") << "refused, not cut";
        w.type(library::kPathLine, overlong + "/y");
        EXPECT_EQ(files(w).frame().size(), 1u);
        w.type(library::kPathLine, deep.string());
        EXPECT_EQ(foldersDrawn(folders(w)).back().name, "short");
    });
    const auto& boxes = ui().messageBoxes();
    ASSERT_EQ(boxes.size(), 3u);
    EXPECT_EQ(boxes[0].text, "\"" + overlong + "\" is longer than 255 characters");
    EXPECT_EQ(boxes[1].text, "\"" + overlong + "/y\" is longer than 255 characters");
    EXPECT_NE(boxes[2].text.find(std::string(140, 'e') + "\" is longer than 255"),
              std::string::npos)
        << boxes[2].text;
}

}  // namespace
