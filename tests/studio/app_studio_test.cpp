// The studio's main window and frame buffer, driven through their widgets
// on Qt's offscreen platform: opening, selecting and editing nodes, a failed
// load or save, the library browser, rendering and cancelling.
#include "image_window.h"
#include "main_window.h"
#include "outliner.h"
#include "qt_ui/qt_controls.h"
#include "qt_ui/qt_dialog.h"
#include "qt_ui/qt_host_ui.h"
#include "render_view.h"

#include "host/changes.h"
#include "host/hold.h"
#include "host/plugins.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QtTest>

using mosaiq::studio::MainWindow;

namespace {
const QString kSimple = QStringLiteral(MOSAIQ_SOURCE_DIR "/examples/simple.mosaiq");

QStringList nodeNames(MainWindow& w) {
    QStringList names;
    for (QTreeWidgetItemIterator it(w.outliner()); *it; ++it) names << (*it)->text(0);
    return names;
}
}  // namespace

class StudioAppTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QStandardPaths::setTestModeEnabled(true);
        mq::pluginManager().loadFolder(MOSAIQ_BIN_DIR);
    }

    void init() {
        host_ = std::make_unique<mq::HostInterface>();
        window_ = std::make_unique<MainWindow>(*host_);
        errors_.clear();
        window_->reportError = [this](const QString&, const QString& text) { errors_ << text; };
        window_->askToSave = [](const QString&) { return QMessageBox::Discard; };
        window_->show();
    }
    void cleanup() {
        window_->endEditing();
        host_->setUI(nullptr);
        window_.reset();
        host_.reset();
    }

    // The selected object's rollouts fill the command panel, pick nodes from
    // the outliner, and close before an undo deletes their object.
    void rolloutsFollowTheSelection() {
        MainWindow& w = *window_;
        mosaiq::studio::QtHostUI* ui = attachQtUI();
        QVERIFY(w.openScene(kSimple));
        QVERIFY(w.selectNodeByName("Mosaiq001"));
        const std::vector<std::string> pages = ui->pageTitles();
        QVERIFY(std::find(pages.begin(), pages.end(), "Base Parameters") != pages.end());
        QCOMPARE(w.commandPanel(), ui->commandPanel());

        // With the surface's pick button waiting, an outliner click picks
        // that node (not the object's own) and the selection stays.
        QPushButton* pick = nullptr;
        for (QPushButton* b : ui->page("Surface")->findChildren<QPushButton*>())
            if (b->isCheckable() && b->text() == "Surface") pick = b;
        QVERIFY(pick);
        QTest::mouseClick(pick, Qt::LeftButton);
        QVERIFY(ui->picking());
        QTreeWidgetItem* self = w.outliner()->findItems("Mosaiq001", Qt::MatchExactly).front();
        QTest::mouseClick(w.outliner()->viewport(), Qt::LeftButton, {},
                          w.outliner()->visualItemRect(self).center());
        QVERIFY2(ui->picking(), "an object cannot pick its own node");
        QTreeWidgetItem* item = w.outliner()->findItems("Pattern", Qt::MatchExactly).front();
        QTest::mouseClick(w.outliner()->viewport(), Qt::LeftButton, {},
                          w.outliner()->visualItemRect(item).center());
        QVERIFY(!ui->picking());
        QCOMPARE(pick->text(), QString("Pattern"));
        QCOMPARE(QString::fromStdString(w.selectedNode()->GetName()), QString("Mosaiq001"));

        QVERIFY(w.createObject("PatternPattern"));
        QVERIFY(!ui->pageTitles().empty());
        w.undo();  // deletes the object whose rollouts are open
        QVERIFY(ui->pageTitles().empty());
        QVERIFY(w.selectNodeByName("Surface"));
        QVERIFY(ui->pageTitles().empty());  // a primitive has no rollouts here
    }

    // The browser opens on a folder for the scene's Mosaiq object, which
    // takes the chosen file as its pattern.
    void libraryBrowserChoosesThePatternFile() {
        MainWindow& w = *window_;
        mosaiq::studio::QtHostUI* ui = attachQtUI();
        QVERIFY(w.openScene(kSimple));
        const QString folder = QStringLiteral(MOSAIQ_SOURCE_DIR "/examples/patterns");
        bool shown = false;
        QVERIFY(w.openLibraryBrowser(folder, [&](QWidget& browser) {
            shown = true;
            // The files are the right-hand view.
            QWidget* files = nullptr;
            for (QWidget* v : browser.findChildren<mosaiq::studio::QtView*>())
                if (!files || v->x() > files->x()) files = v;
            QTest::mouseClick(files, Qt::LeftButton, {}, QPoint(5 + 40, 5 + 40));
            for (QPushButton* b : browser.findChildren<QPushButton*>())
                if (b->text() == "Select File") b->click();
        }));
        QVERIFY(shown);
        QCOMPARE(QString::fromStdString(w.selectedNode()->GetName()), QString("Mosaiq001"));
        QStringList edits;
        for (QLineEdit* e : ui->page("Base Parameters")->findChildren<QLineEdit*>())
            if (e->isEnabled()) edits << e->text();
        QVERIFY2(edits.contains(folder + "/chainmail.obj"), qPrintable(edits.join(", ")));
        QVERIFY(!w.openLibraryBrowser("/no/such/folder"));
        QVERIFY(errors_.size() == 1 && errors_[0].contains("/no/such/folder"));
    }

    // Open a scene, select its Mosaiq node by a click in the outliner, then
    // rename, unlink and delete nodes, each one named undo step.
    void openSelectAndEdit() {
        MainWindow& w = *window_;
        QVERIFY(w.openScene(kSimple));
        QCOMPARE(nodeNames(w), (QStringList{"Mosaiq001", "Surface", "Pattern"}));
        QVERIFY(!w.isModified());

        QSignalSpy selected(&w, &MainWindow::nodeSelected);
        QTreeWidgetItem* item = w.outliner()->findItems("Mosaiq001", Qt::MatchExactly).front();
        const QRect rect = w.outliner()->visualItemRect(item);
        QTest::mouseClick(w.outliner()->viewport(), Qt::LeftButton, {}, rect.center());
        QVERIFY(w.selectedNode());
        QCOMPARE(QString::fromStdString(w.selectedNode()->GetName()), QString("Mosaiq001"));
        QCOMPARE(selected.count(), 1);

        // A taken name is numbered apart; the Edit menu names the step.
        w.outliner()->findItems("Surface", Qt::MatchExactly).front()->setText(0, "Pattern");
        QCOMPARE(nodeNames(w), (QStringList{"Mosaiq001", "Pattern001", "Pattern"}));
        QCOMPARE(mq::theHold.undoName(), std::string("Rename"));
        QVERIFY(w.isModified());

        // Linking keeps the world place; a node cannot go under its own child.
        mq::Scene& scene = w.host().scene();
        mq::Node* surface = scene.findNode("Pattern001");
        mq::Node* pattern = scene.findNode("Pattern");
        const mq::Point3 before = surface->GetNodeTM(0).GetTrans();
        emit w.outliner()->reparentRequested(surface, pattern);
        QCOMPARE(surface->GetParentNode(), pattern);
        QVERIFY(mq::Length(surface->GetNodeTM(0).GetTrans() - before) < 1e-4f);
        emit w.outliner()->reparentRequested(pattern, surface);
        QCOMPARE(pattern->GetParentNode(), scene.root());

        w.selectNodeByName("Pattern");
        w.deleteSelected();
        QVERIFY(!scene.findNode("Pattern"));
        QCOMPARE(surface->GetParentNode(), scene.root());
        w.undo();  // delete
        w.undo();  // link
        w.undo();  // rename
        QCOMPARE(nodeNames(w).size(), 3);
        QCOMPARE(scene.findNode("Surface")->GetParentNode(), scene.root());
        QCOMPARE(scene.findNode("Pattern")->GetParentNode(), scene.root());
        QVERIFY(!w.isModified());
    }

    // Edit > Units Setup... is one undo step; open world fields show the unit
    // and take others, converted.
    void unitsSetupLabelsWorldFields() {
        MainWindow& w = *window_;
        mosaiq::studio::QtHostUI* ui = attachQtUI();
        QVERIFY(w.openScene(kSimple));
        QVERIFY(w.selectNodeByName("Mosaiq001"));
        constexpr int kShiftEdit = 1195;
        auto* shift = qobject_cast<QLineEdit*>(ui->page("Base Parameters")->widget(kShiftEdit));
        QVERIFY(shift);
        QCOMPARE(shift->text(), QString("0"));

        QAction* action = nullptr;
        for (QAction* a : w.findChildren<QAction*>())
            if (a->text() == "U&nits Setup...") action = a;
        QVERIFY(action);
        QTimer::singleShot(0, [] {
            QWidget* dialog = QApplication::activeModalWidget();
            QVERIFY(dialog);
            auto* units = dialog->findChild<QComboBox*>("units");
            units->setCurrentIndex(units->findText("Centimeters"));
            static_cast<QDialog*>(dialog)->accept();
        });
        action->trigger();
        QCOMPARE(w.host().scene().units, mq::SceneUnit::Centimeters);
        QCOMPARE(mq::theHold.undoName(), std::string("Units Setup"));
        QVERIFY(w.isModified());
        QCOMPARE(shift->text(), QString("0cm"));

        shift->setFocus();
        shift->selectAll();
        QTest::keyClicks(shift, "1in");
        QTest::keyClick(shift, Qt::Key_Return);
        mq::ParamBlock* pb = w.selectedNode()->GetObjectRef()->GetParamBlock(0);
        QCOMPARE(pb->GetFloat(pb->GetDesc()->findByName("Shift")->id, 0), 2.54f);
        QCOMPARE(shift->text(), QString("2.54cm"));
        w.undo();  // Shift
        w.undo();  // Units Setup
        QCOMPARE(w.host().scene().units, mq::SceneUnit::Generic);
        shift = qobject_cast<QLineEdit*>(ui->page("Base Parameters")->widget(kShiftEdit));
        QCOMPARE(shift->text(), QString("0"));
    }

    // Open then Save writes the file as the command line wrote it. Bad input
    // names the file and the reason; the open scene stays.
    void saveAndFailures() {
        MainWindow& w = *window_;
        QTemporaryDir dir;
        const QString copy = dir.filePath("simple.mosaiq");
        QVERIFY(QFile::copy(kSimple, copy));
        QVERIFY(
            QFile::copy(MOSAIQ_SOURCE_DIR "/examples/pattern.obj", dir.filePath("pattern.obj")));
        QVERIFY(w.openScene(copy));
        QVERIFY(QFile::remove(copy));
        QVERIFY(w.saveScene());
        QFile saved(copy), original(kSimple);
        QVERIFY(saved.open(QIODevice::ReadOnly) && original.open(QIODevice::ReadOnly));
        QCOMPARE(saved.readAll(), original.readAll());

        const QString broken = dir.filePath("broken.mosaiq");
        QFile f(broken);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("{\"version\": 1, \"nodes\": [");
        f.close();

        QVERIFY(!w.openScene(broken));
        QCOMPARE(errors_.size(), 1);
        QVERIFY2(errors_[0].contains(broken), qPrintable(errors_[0]));
        QCOMPARE(w.currentFile(), QFileInfo(copy).absoluteFilePath());
        QCOMPARE(nodeNames(w).size(), 3);

        const QString unwritable = dir.filePath("no/such/folder/out.mosaiq");
        QVERIFY(!w.saveSceneAs(unwritable));
        QVERIFY2(errors_.size() == 2 && errors_[1].contains(unwritable),
                 qPrintable(errors_.last()));
        QCOMPARE(w.currentFile(), QFileInfo(copy).absoluteFilePath());
    }

    // A render arrives in the frame buffer; a cancelled one leaves it as it was,
    // and the window answers while the worker runs.
    void renderAndCancel() {
        MainWindow& w = *window_;
        QVERIFY(w.openScene(kSimple));
        w.host().scene().render = {{"width", 48}, {"height", 32}, {"spp", 1}};
        w.startRender();
        QTRY_VERIFY_WITH_TIMEOUT(!w.rendering(), 60000);
        QVERIFY2(errors_.isEmpty(), qPrintable(errors_.join('\n')));
        QVERIFY2(w.imageWindow()->isVisible(), qPrintable(w.statusBar()->currentMessage()));
        QCOMPARE(w.imageWindow()->displayed().size(), QSize(48, 32));

        w.imageWindow()->setChannel(mosaiq::studio::ImageWindow::Channel::Alpha);
        QCOMPARE(qRed(w.imageWindow()->displayed().pixel(24, 16)),
                 qGreen(w.imageWindow()->displayed().pixel(24, 16)));
        w.imageWindow()->setChannel(mosaiq::studio::ImageWindow::Channel::Rgb);

        // A frame rendered in bands (two at this height) is the frame rendered whole.
        w.host().scene().render = {{"width", 24}, {"height", 330}, {"spp", 1}};
        w.startRender();
        QTRY_VERIFY_WITH_TIMEOUT(!w.rendering(), 60000);
        const mq::tracer::Image whole = mq::tracer::renderImage(
            w.host().scene(), mq::tracer::RenderSettings::fromJson(w.host().scene().render));
        QVERIFY(w.imageWindow()->frame().rgba == whole.rgba);
        QVERIFY(w.imageWindow()->frame().objectId == whole.objectId);
        const QImage before = w.imageWindow()->displayed();
        w.host().scene().render = {{"width", 1600}, {"height", 1200}, {"spp", 4096}};
        QSignalSpy finished(&w, &MainWindow::renderFinished);
        w.startRender();
        QVERIFY(w.rendering());
        QTest::qWait(50);
        QVERIFY(w.rendering());
        QTest::mouseClick(w.findChild<QPushButton*>("cancelRender"), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() == 1, 30000);
        QVERIFY(w.statusBar()->currentMessage().contains("cancelled"));
        QCOMPARE(w.imageWindow()->displayed(), before);

        // Saving the frame goes through the tracer's writer.
        QTemporaryDir dir;
        QString error;
        QVERIFY(w.imageWindow()->saveTo(dir.filePath("frame.exr"), &error));
        QVERIFY(!w.imageWindow()->saveTo(dir.filePath("frame.bmp"), &error));
        QVERIFY(error.contains("frame.bmp"));
    }

    // The render view restarts on a change notice and finishes its passes; a
    // region replaces only its own pixels; stop ends a long pass quickly.
    void renderViewRestartsRendersRegionsAndStops() {
        MainWindow& w = *window_;
        QVERIFY(w.openScene(kSimple));
        mq::Scene& scene = w.host().scene();
        scene.render = {{"width", 64}, {"height", 48}, {"spp", 4}};
        mosaiq::studio::RenderView& view = *w.renderView();
        QSignalSpy finished(&view, &mosaiq::studio::RenderView::finished);
        view.show();
        view.start();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() == 1, 60000);
        QCOMPARE(view.image().size(), QSize(64, 48));
        QCOMPARE(view.passesDone(), 3);  // 1, 2, 4 spp
        QVERIFY2(view.statusText().contains("Pass 3 / 3"), qPrintable(view.statusText()));
        const QImage first = view.image();

        // A brighter dome, told as an edit tells it: a new render, and it shows.
        scene.lights = nlohmann::json::array({{{"type", "dome"}, {"intensity", 3.0}}});
        mq::sceneChanges().notify();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() == 2 && !view.running(), 60000);
        QVERIFY(view.image() != first);

        // Back to the first light, in a region only: outside stays bright.
        view.stop();
        const QImage bright = view.image();
        scene.lights = nlohmann::json::array({{{"type", "dome"}, {"intensity", 0.2}}});
        view.setRegion(mq::tracer::CropRegion{8, 24, 16, 40});
        view.start();
        QTRY_VERIFY_WITH_TIMEOUT(finished.count() == 3 && !view.running(), 60000);
        int changedInside = 0;
        for (int y = 0; y < 48; ++y) {
            for (int x = 0; x < 64; ++x) {
                const bool inside = x >= 8 && x < 24 && y >= 16 && y < 40;
                if (inside) {
                    changedInside += view.image().pixel(x, y) != bright.pixel(x, y);
                } else {
                    QCOMPARE(view.image().pixel(x, y), bright.pixel(x, y));
                }
            }
        }
        QVERIFY(changedInside > 16 * 24 / 2);
        view.setRegion(std::nullopt);

        // Stop cuts a pass of thousands of samples short.
        scene.render = {{"width", 320}, {"height", 240}, {"spp", 4096}};
        QSignalSpy shown(&view, &mosaiq::studio::RenderView::passShown);
        view.start();
        QTRY_VERIFY_WITH_TIMEOUT(shown.count() >= 1, 60000);
        QElapsedTimer t;
        t.start();
        view.stop();
        QTRY_VERIFY_WITH_TIMEOUT(!view.running(), 5000);
        QVERIFY2(t.elapsed() < 2000, qPrintable(QString::number(t.elapsed())));
        QVERIFY(view.statusText().contains("stopped"));
    }

private:
    // The panels as the studio shows them: the host owns the UI, the window shows it.
    mosaiq::studio::QtHostUI* attachQtUI() {
        auto owned = std::make_unique<mosaiq::studio::QtHostUI>(96.0);
        mosaiq::studio::QtHostUI* ui = owned.get();
        host_->setUI(std::move(owned));
        window_->attachUI(ui);
        return ui;
    }

    std::unique_ptr<mq::HostInterface> host_;
    std::unique_ptr<MainWindow> window_;
    QStringList errors_;
};

QTEST_MAIN(StudioAppTest)
#include "app_studio_test.moc"
