// The studio's Qt widgets driven offscreen with the real plug-in's panels:
// the rollouts' layout in the command panel, a radio that greys controls, a
// scrubbed spinner undone in one step, and the library browser as a modal
// dialog. STUDIO_UI_GRAB=folder saves what the tests show, to look at.
#include "host/hold.h"
#include "host/interface.h"
#include "object/params.h"
#include "qt_ui/qt_controls.h"
#include "qt_ui/qt_dialog.h"
#include "qt_ui/qt_host_ui.h"
#include "support/mosaiq_test.h"
#include "ui/library_browser.h"
#include "ui/templates.h"

#include <QApplication>
#include <QFile>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QtTest>

#include <cstdlib>
#include <memory>

using namespace mosaiq;
using mosaiq::studio::QtDialogWindow;
using mosaiq::studio::QtHostUI;

namespace {

void grab(QWidget* w, const char* name) {
    const QByteArray dir = qgetenv("STUDIO_UI_GRAB");
    if (!dir.isEmpty()) w->grab().save(QString(dir) + "/" + name);
}

// A mouse event sent straight to w, with modifiers a QTest click cannot hold during a drag.
void mouse(QWidget* w, QEvent::Type type, Qt::MouseButton button, QPoint at,
           Qt::KeyboardModifiers mods = Qt::NoModifier) {
    const Qt::MouseButtons held = type == QEvent::MouseButtonRelease ? Qt::NoButton : button;
    QMouseEvent e(type, at, w->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : button,
                  held, mods);
    QApplication::sendEvent(w, &e);
}

}  // namespace

class StudioUiTest : public QObject {
    Q_OBJECT

private:
    mq::HostInterface ip_;
    QtHostUI* ui_ = nullptr;
    test::MosaiqPtr obj_;
    QTemporaryDir config_;

private slots:
    void init() {
        mq::theHold.Reset();
        qputenv("XDG_CONFIG_HOME", config_.path().toUtf8());
        auto ui = std::make_unique<QtHostUI>(96.0);
        ui_ = ui.get();
        ip_.setUI(std::move(ui));
        obj_ = test::newMosaiq();
        obj_->BeginEditParams(&ip_, 0, nullptr);
        ui_->commandPanel()->resize(200, 700);
        ui_->commandPanel()->show();
        QVERIFY(QTest::qWaitForWindowExposed(ui_->commandPanel()));
    }
    void cleanup() {
        obj_->EndEditParams(&ip_, 0, nullptr);
        obj_.reset();
        ip_.setUI(nullptr);
        mq::theHold.Reset();
    }

    void rolloutsStackInOrderAt162PixelsWide() {
        QCOMPARE(ui_->pageTitles(),
                 (std::vector<std::string>{"Base Parameters", "Surface", "Preview", "About"}));
        for (const char* title : {"Base Parameters", "Surface", "Preview", "About"}) {
            QCOMPARE(ui_->page(title)->width(), 162);
            QCOMPARE(ui_->rollup(title)->header()->width(), 162);
        }
        // 230 units high at 1.625 pixels a unit; About starts closed.
        QCOMPARE(ui_->page("Base Parameters")->height(), 374);
        QVERIFY(ui_->rollup("Base Parameters")->isOpen());
        QVERIFY(!ui_->rollup("About")->isOpen());
        QVERIFY(ui_->rollup("Surface")->y() > ui_->rollup("Base Parameters")->y());
        grab(ui_->commandPanel(), "command-panel.png");
    }

    void patternSourceRadioGreysTheOtherSource() {
        QtDialogWindow* base = ui_->page("Base Parameters");
        auto enabled = [&] {
            return std::vector<bool>{base->widget(base::kPatternPick)->isEnabled(),
                                     base->widget(base::kPatternFile)->isEnabled(),
                                     base->widget(base::kBrowse)->isEnabled()};
        };
        QCOMPARE(enabled(), (std::vector<bool>{true, false, false}));
        QTest::mouseClick(base->widget(base::kFromFile), Qt::LeftButton, {}, QPoint(4, 6));
        QCOMPARE(enabled(), (std::vector<bool>{false, true, true}));
        QVERIFY(!base->isChecked(base::kFromScene));
        QCOMPARE(obj_->GetParamBlock(0)->GetInt(kPatternSource, 0), kSourceFile);
        QTest::mouseClick(base->widget(base::kFromScene), Qt::LeftButton, {}, QPoint(4, 6));
        QCOMPARE(enabled(), (std::vector<bool>{true, false, false}));
    }

    void pickButtonTakesTheNodeTheFilterAllows() {
        QtDialogWindow* surf = ui_->page("Surface");
        mq::Node plane("plane"), light("light");
        QVERIFY2(!ui_->pickNode(&plane), "no button is waiting");
        ui_->setPickFilter(
            [](const QtDialogWindow&, int, const mq::Node& n) { return n.GetName() != "light"; });
        QTest::mouseClick(surf->widget(surface::kSurfacePick), Qt::LeftButton);
        QVERIFY(ui_->picking());
        QTest::mouseClick(surf->widget(surface::kSurfacePick), Qt::LeftButton);
        QVERIFY2(!ui_->picking(), "a second click stops picking");
        QTest::mouseClick(surf->widget(surface::kSurfacePick), Qt::LeftButton);
        QVERIFY(!ui_->pickNode(&light));
        QVERIFY(ui_->pickNode(&plane));
        QVERIFY(!ui_->picking());
        QCOMPARE(obj_->GetParamBlock(0)->GetINode(kSurface, 0), &plane);
        QCOMPARE(surf->text(surface::kSurfacePick), std::string("plane"));
        QCOMPARE(mq::theHold.undoName(), std::string("Surface"));
        obj_->GetParamBlock(0)->SetValue(kSurface, 0, static_cast<mq::Node*>(nullptr));
    }

    void spinnerDragIsOneUndoStepAndEditsCommitOnEnter() {
        QtDialogWindow* surf = ui_->page("Surface");
        mq::ParamBlock* pb = obj_->GetParamBlock(0);
        QWidget* arrows = surf->widget(surface::kTilingUSpinner);
        const int undos = mq::theHold.undoCount();

        // 20 pixels up in two moves: ten steps of 0.1; Ctrl ten times that.
        mouse(arrows, QEvent::MouseButtonPress, Qt::LeftButton, {4, 4});
        mouse(arrows, QEvent::MouseMove, Qt::LeftButton, {4, -6});
        mouse(arrows, QEvent::MouseMove, Qt::LeftButton, {4, -16});
        mouse(arrows, QEvent::MouseButtonRelease, Qt::LeftButton, {4, -16});
        QVERIFY(std::abs(pb->GetFloat(kTiling, 0, 0) - 2.0f) < 1e-4f);
        QCOMPARE(surf->text(surface::kTilingUEdit), std::string("2"));
        QCOMPARE(mq::theHold.undoCount(), undos + 1);
        QCOMPARE(mq::theHold.undoName(), std::string("Tiling"));
        QVERIFY(mq::theHold.Undo());
        QCOMPARE(pb->GetFloat(kTiling, 0, 0), 1.0f);
        QCOMPARE(surf->text(surface::kTilingUEdit), std::string("1"));

        mouse(arrows, QEvent::MouseButtonPress, Qt::LeftButton, {4, 4});
        mouse(arrows, QEvent::MouseMove, Qt::LeftButton, {4, -6}, Qt::ControlModifier);
        mouse(arrows, QEvent::MouseButtonRelease, Qt::LeftButton, {4, -6});
        QVERIFY(std::abs(pb->GetFloat(kTiling, 0, 0) - 6.0f) < 1e-4f);

        // A click on the down arrow steps once; a right click goes to the lower limit.
        QTest::mouseClick(arrows, Qt::LeftButton, {}, QPoint(4, arrows->height() - 2));
        QVERIFY(std::abs(pb->GetFloat(kTiling, 0, 0) - 5.9f) < 1e-4f);
        mouse(arrows, QEvent::MouseButtonPress, Qt::RightButton, {4, 4});
        QVERIFY(std::abs(pb->GetFloat(kTiling, 0, 0) - 0.0001f) < 1e-7f);
        QCOMPARE(mq::theHold.undoCount(), undos + 3);

        // Typing then Enter is one step; garbage shows the value again.
        auto* edit = static_cast<QLineEdit*>(surf->widget(surface::kTilingVEdit));
        edit->setFocus();
        edit->selectAll();
        QTest::keyClicks(edit, "3.5");
        QTest::keyClick(edit, Qt::Key_Return);
        QCOMPARE(pb->GetFloat(kTiling, 0, 1), 3.5f);
        QCOMPARE(mq::theHold.undoCount(), undos + 4);
        edit->selectAll();
        QTest::keyClicks(edit, "abc");
        QTest::keyClick(edit, Qt::Key_Return);
        QCOMPARE(edit->text(), QString("3.5"));
        QCOMPARE(mq::theHold.undoCount(), undos + 4);
    }

    void libraryBrowserSelectsAFileWithAndWithoutPreview() {
        registerLibraryViews();
        QTemporaryDir lib;
        for (const char* name : {"a.obj", "b.glb"}) {
            QFile f(lib.filePath(name));
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
        QImage preview(200, 120, QImage::Format_RGB32);
        preview.fill(QColor(200, 40, 40));
        QVERIFY(preview.save(lib.filePath("a.jpg")));

        bool driven = false;
        ui_->onNextModal([&](QtDialogWindow& w) {
            driven = true;
            studio::QtView* files = w.qtView(library::kFileView);
            QVERIFY(files && !files->frame().isNull());
            // Two columns of 160 x 100 cells, 170 apart: a's picture, then b's grey cell.
            const QColor picture = files->frame().pixelColor(5 + 80, 5 + 50);
            QVERIFY(picture.red() > 160 && picture.green() < 80);
            QCOMPARE(files->frame().pixelColor(175 + 20, 5 + 20), QColor(210, 210, 210));
            QVERIFY(!w.isEnabled(library::kSelectFile));
            grab(&w, "lib-browser.png");

            // The wheel reaches the view's procedure, which moves the bar.
            studio::QtView* folders = w.qtView(library::kFolderView);
            folders->setScrollRange(0, 100);
            QWheelEvent wheel({10, 10}, folders->mapToGlobal(QPoint(10, 10)), {}, {0, -120},
                              Qt::NoButton, {}, Qt::NoScrollPhase, false);
            QApplication::sendEvent(folders, &wheel);
            QVERIFY(folders->scrollPos() > 0);
            QCOMPARE(folders->scrollBar()->value(), folders->scrollPos());

            QTest::mouseClick(files, Qt::LeftButton, {}, QPoint(175 + 40, 5 + 40));
            QVERIFY(w.isEnabled(library::kSelectFile));
            QTest::mouseClick(w.widget(library::kSelectFile), Qt::LeftButton);
        });
        const std::optional<std::string> chosen = browseLibrary(ip_, lib.path().toStdString());
        QVERIFY(driven);
        QVERIFY(chosen.has_value());
        QCOMPARE(QString::fromStdString(*chosen), lib.filePath("b.glb"));

        // Closing the window is a cancel.
        ui_->onNextModal([](QtDialogWindow&) {});
        QVERIFY(!browseLibrary(ip_, lib.path().toStdString()).has_value());
        unregisterLibraryViews();
    }
};

QTEST_MAIN(StudioUiTest)
#include "qt_ui_test.moc"
