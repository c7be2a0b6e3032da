#include "main_window.h"

#include "qt_ui/qt_dialog.h"
#include "qt_ui/qt_host_ui.h"

#include "image_window.h"
#include "outliner.h"
#include "render_job.h"
#include "render_settings_dialog.h"
#include "render_view.h"
#include "scene_edits.h"
#include "units_dialog.h"
#include "viewport/viewport.h"

#include "host/classdesc.h"
#include "host/hold.h"
#include "host/scenefile.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QMenuBar>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QToolBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <filesystem>

namespace mosaiq::studio {

namespace {

constexpr const char* kMosaiqClass = "PatternPattern";
constexpr int kMaxRecentFiles = 8;
constexpr const char* kSceneFilter = "Mosaiq scenes (*.mosaiq)";
// What the host merges: its scene files and every mesh format the importer reads.
constexpr const char* kMergeFilter =
    "Scenes and meshes (*.mosaiq *.glb *.gltf *.obj *.fbx *.ply *.dae *.3ds *.stl);;"
    "Mosaiq scenes (*.mosaiq);;glTF (*.glb *.gltf);;Wavefront OBJ (*.obj);;FBX (*.fbx);;"
    "PLY (*.ply);;Collada (*.dae);;3DS (*.3ds);;STL (*.stl);;All files (*)";

QWidget* placeholder(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    label->setFrameShape(QFrame::StyledPanel);
    label->setStyleSheet("QLabel { background: #3a3a3a; color: #9a9a9a; }");
    return label;
}

}  // namespace

MainWindow::MainWindow(mq::HostInterface& ip, QWidget* parent)
    : QMainWindow(parent), ip_(ip), imageWindow_(std::make_unique<ImageWindow>()) {
    reportError = [this](const QString& title, const QString& text) {
        QMessageBox::warning(this, title, text);
    };
    askToSave = [this](const QString& text) {
        return QMessageBox::question(this, tr("Mosaiq Studio"), text,
                                     QMessageBox::Save | QMessageBox::Discard | QMessageBox::Cancel,
                                     QMessageBox::Save);
    };

    outliner_ = new SceneOutliner(this);
    outliner_->setObjectName("outliner");
    connect(outliner_, &SceneOutliner::nodeSelected, this, &MainWindow::nodeClicked);
    connect(outliner_, &SceneOutliner::renameRequested, this,
            [this](mq::Node* n, const QString& name) {
                const std::string given = renameNode(ip_.scene(), n, name.trimmed().toStdString());
                if (given.empty()) prompt(tr("A node needs a name"));
                refresh();
            });
    connect(outliner_, &SceneOutliner::renderableRequested, this, [this](mq::Node* n, bool on) {
        setRenderable(n, on);
        refresh();
    });
    connect(outliner_, &SceneOutliner::reparentRequested, this,
            [this](mq::Node* n, mq::Node* newParent) {
                if (!reparentNode(n, newParent))
                    prompt(tr("%1 cannot be linked to its own child")
                               .arg(QString::fromStdString(n->GetName())));
                refresh();
            });

    auto* panelHolder = new QWidget(this);
    panelHolder->setObjectName("commandPanelSlot");
    panelLayout_ = new QVBoxLayout(panelHolder);
    panelLayout_->setContentsMargins(0, 0, 0, 0);
    // A grid of buttons rather than a tool bar: five mode names do not fit
    // a rollout's width in one row.
    modeBar_ = new QWidget(panelHolder);
    new QGridLayout(modeBar_);
    modeBar_->layout()->setContentsMargins(2, 2, 2, 2);
    modeBar_->setObjectName("commandModes");
    modeBar_->setVisible(false);
    panelLayout_->addWidget(modeBar_);
    commandPanel_ = placeholder(tr("Command panel"), panelHolder);
    panelLayout_->addWidget(commandPanel_);
    panelHolder->setMinimumWidth(200);

    QWidget* viewportWidget;
    if (Viewport::openGLAvailable()) {
        viewport_ = new Viewport(ip_, this);
        viewport_->setObjectName("viewport");
        connect(viewport_, &Viewport::nodeClicked, this, &MainWindow::nodeClicked);
        connect(viewport_, &Viewport::prompt, this, &MainWindow::prompt);
        connect(viewport_, &Viewport::created, this, [this](mq::Node* n) {
            refresh();
            emit sceneChanged();
            if (n) select(n);
            prompt(n ? tr("Created %1").arg(QString::fromStdString(n->GetName()))
                     : tr("Creation cancelled"));
        });
        ip_.onRedrawViews = [this] { viewport_->update(); };
        viewportWidget = viewport_;
    } else {
        viewport_ = nullptr;
        viewportWidget = placeholder(tr("Viewport: this platform offers no OpenGL"), this);
        viewportWidget->setObjectName("viewportPlaceholder");
    }

    ip_.onCommandModeChanged = [this](mq::CommandMode* mode) {
        for (QAction* a : modeBar_->actions())
            a->setChecked(mode && a->data().value<void*>() == mode);
        prompt(mode ? tr("%1: drag in the viewport; right click or Escape ends")
                          .arg(QString::fromUtf8(mode->name()))
                    : QString());
        if (viewport_) viewport_->update();
    };

    auto* splitter = new QSplitter(this);
    splitter->addWidget(outliner_);
    splitter->addWidget(viewportWidget);
    splitter->addWidget(panelHolder);
    splitter->setStretchFactor(0, 0);
    splitter->setStretchFactor(1, 1);
    splitter->setStretchFactor(2, 0);
    splitter->setSizes({260, 760, 220});
    setCentralWidget(splitter);

    progress_ = new QProgressBar(this);
    progress_->setMaximumWidth(220);
    progress_->setVisible(false);
    cancel_ = new QPushButton(tr("Cancel"), this);
    cancel_->setObjectName("cancelRender");
    cancel_->setVisible(false);
    connect(cancel_, &QPushButton::clicked, this, &MainWindow::cancelRender);
    statusBar()->addPermanentWidget(progress_);
    statusBar()->addPermanentWidget(cancel_);

    ip_.onWarning = [this](const std::string& w) { prompt(QString::fromStdString(w)); };
    buildMenus();
    resize(1280, 800);
    refresh();
    prompt(tr("Ready"));
}

MainWindow::~MainWindow() {
    // The worker must let go of the scene before anything else goes.
    job_.reset();
    ip_.onWarning = nullptr;
    ip_.onRedrawViews = nullptr;
    ip_.onCommandModeChanged = nullptr;
}

void MainWindow::buildMenus() {
    auto add = [this](QMenu* menu, const QString& text, QKeySequence key, auto slot,
                      bool edits = true) {
        QAction* a = menu->addAction(text);
        if (!key.isEmpty()) a->setShortcut(key);
        connect(a, &QAction::triggered, this, slot);
        if (edits) editActions_.push_back(a);
        return a;
    };
    QMenu* file = menuBar()->addMenu(tr("&File"));
    add(file, tr("&New"), QKeySequence::New, [this] {
        if (maybeSave()) newScene();
    });
    add(file, tr("&Open..."), QKeySequence::Open, [this] {
        if (!maybeSave()) return;
        const QString path =
            QFileDialog::getOpenFileName(this, tr("Open Scene"), QString(), tr(kSceneFilter));
        if (!path.isEmpty()) openScene(path);
    });
    recentMenu_ = file->addMenu(tr("Open &Recent"));
    editActions_.push_back(recentMenu_->menuAction());
    connect(recentMenu_, &QMenu::aboutToShow, this, &MainWindow::rebuildRecentMenu);
    file->addSeparator();
    add(
        file, tr("&Save"), QKeySequence::Save, [this] { saveScene(); }, false);
    add(
        file, tr("Save &As..."), QKeySequence::SaveAs,
        [this] {
            const QString path =
                QFileDialog::getSaveFileName(this, tr("Save Scene As"), file_, tr(kSceneFilter));
            if (!path.isEmpty()) saveSceneAs(path);
        },
        false);
    file->addSeparator();
    add(file, tr("&Merge/Import..."), QKeySequence(), [this] {
        const QString path =
            QFileDialog::getOpenFileName(this, tr("Merge or Import"), QString(), tr(kMergeFilter));
        if (!path.isEmpty()) mergeFile(path);
    });
    file->addSeparator();
    add(
        file, tr("&Quit"), QKeySequence::Quit, [this] { close(); }, false);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    undoAction_ = add(edit, tr("&Undo"), QKeySequence::Undo, [this] { undo(); });
    redoAction_ = add(edit, tr("&Redo"), QKeySequence::Redo, [this] { redo(); });
    edit->addSeparator();
    deleteAction_ = add(edit, tr("&Delete"), QKeySequence::Delete, [this] { deleteSelected(); });
    edit->addSeparator();
    add(edit, tr("U&nits Setup..."), QKeySequence(), [this] { showUnitsSetup(); });
    // Parameter edits of the command panel make undo steps the window does not see.
    connect(edit, &QMenu::aboutToShow, this, &MainWindow::refresh);

    buildCreateMenu(menuBar()->addMenu(tr("&Create")));

    // The viewport's own commands; their keys act while it has the focus.
    QMenu* view = menuBar()->addMenu(tr("&View"));
    view->setEnabled(viewport_);
    for (QAction* a : viewport_ ? viewport_->viewActions() : QList<QAction*>()) {
        view->addAction(a);
        if (a->text() == tr("Camera")) view->addSeparator();
    }

    QMenu* rendering = menuBar()->addMenu(tr("&Rendering"));
    renderAction_ = add(
        rendering, tr("&Render"), QKeySequence(Qt::SHIFT | Qt::Key_Q), [this] { startRender(); },
        false);
    // The interactive render view: a dock, rendering while shown.
    renderView_ = new RenderView(ip_, this);
    addDockWidget(Qt::RightDockWidgetArea, renderView_);
    renderView_->hide();
    QAction* viewAction = renderView_->toggleViewAction();
    viewAction->setText(tr("Render &View"));
    viewAction->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R));
    connect(viewAction, &QAction::triggered, this, [this](bool on) {
        if (on) renderView_->start();
    });
    rendering->addAction(viewAction);
    add(rendering, tr("Render &Settings..."), QKeySequence(Qt::Key_F10),
        [this] { showRenderSettings(); });
    add(
        rendering, tr("Show &Frame Buffer"), QKeySequence(),
        [this] {
            imageWindow_->show();
            imageWindow_->raise();
        },
        false);
}

void MainWindow::buildCreateMenu(QMenu* menu) {
    QAction* mosaiq = menu->addAction(tr("&Mosaiq"));
    editActions_.push_back(mosaiq);
    connect(mosaiq, &QAction::triggered, this, [this] { beginCreateByClick(kMosaiqClass); });
    if (!mq::classDirectory().findByInternalName(kMosaiqClass)) {
        mosaiq->setEnabled(false);
        mosaiq->setToolTip(tr("No Mosaiq plug-in was loaded"));
    }
    menu->addSeparator();
    // The host's public geometry classes other than the plug-in's, by category.
    for (mq::ClassDesc* cd : mq::classDirectory().all()) {
        if (!cd->IsPublic() || cd->SuperClassID() != mq::GEOMOBJECT_CLASS_ID ||
            std::string(cd->InternalName()) == kMosaiqClass)
            continue;
        const QString name = QString::fromStdString(cd->InternalName());
        QAction* a = menu->addAction(QString::fromUtf8(cd->ClassName()));
        editActions_.push_back(a);
        connect(a, &QAction::triggered, this, [this, name] { beginCreateByClick(name); });
    }
}

void MainWindow::rebuildRecentMenu() {
    recentMenu_->clear();
    const QStringList files = QSettings().value("recentFiles").toStringList();
    for (const QString& f : files) {
        connect(recentMenu_->addAction(f), &QAction::triggered, this, [this, f] {
            if (maybeSave()) openScene(f);
        });
    }
    if (files.isEmpty()) recentMenu_->addAction(tr("(none)"))->setEnabled(false);
}

void MainWindow::addRecentFile(const QString& path) {
    QSettings settings;
    QStringList files = settings.value("recentFiles").toStringList();
    const QString abs = QFileInfo(path).absoluteFilePath();
    files.removeAll(abs);
    files.prepend(abs);
    while (files.size() > kMaxRecentFiles) files.removeLast();
    settings.setValue("recentFiles", files);
}

QString MainWindow::sceneName() const {
    return file_.isEmpty() ? tr("Untitled") : QFileInfo(file_).fileName();
}

bool MainWindow::isModified() const {
    return dirty_ || mq::theHold.undoCount() != savedUndoCount_ ||
           mq::theHold.undoName() != savedUndoName_;
}

void MainWindow::refresh() {
    outliner_->rebuild(ip_.scene());
    if (selected_ && !outliner_->itemFor(selected_)) select(nullptr);
    const bool busy = rendering();
    for (QAction* a : editActions_) a->setEnabled(!busy);
    outliner_->setEnabled(!busy);
    // The panel edits parameters the worker is reading.
    if (commandPanel_) commandPanel_->setEnabled(!busy);
    modeBar_->setEnabled(!busy);
    if (viewport_) {
        viewport_->setSceneLocked(busy);
        viewport_->update();
    }
    renderAction_->setEnabled(!busy);
    const std::string u = mq::theHold.undoName(), r = mq::theHold.redoName();
    undoAction_->setText(u.empty() ? tr("&Undo") : tr("&Undo %1").arg(QString::fromStdString(u)));
    redoAction_->setText(r.empty() ? tr("&Redo") : tr("&Redo %1").arg(QString::fromStdString(r)));
    undoAction_->setEnabled(!busy && !u.empty());
    redoAction_->setEnabled(!busy && !r.empty());
    deleteAction_->setEnabled(!busy && selected_);
    setWindowTitle(tr("%1[*] - Mosaiq Studio").arg(sceneName()));
    setWindowModified(isModified());
}

void MainWindow::prompt(const QString& text) { statusBar()->showMessage(text); }

void MainWindow::select(mq::Node* node) {
    if (node == selected_) return;
    selected_ = node;
    if (outliner_->selectedNode() != node) outliner_->selectNode(node);
    prompt(node ? tr("Selected %1").arg(QString::fromStdString(node->GetName()))
                : tr("Click a node in the scene to select it"));
    if (deleteAction_) deleteAction_->setEnabled(node && !rendering());
    if (viewport_) viewport_->setSelection(node);
    endEditing();
    beginEditing(node);
    emit nodeSelected(node);
}

void MainWindow::nodeClicked(mq::Node* n) {
    if (ui_ && ui_->picking() && n) {
        if (!ui_->pickNode(n))
            prompt(tr("%1 cannot be picked here").arg(QString::fromStdString(n->GetName())));
        outliner_->selectNode(selected_);
        return;
    }
    select(n);
}

void MainWindow::rebuildModeBar() {
    for (QAction* a : modeBar_->actions()) delete a;
    for (QToolButton* b : modeBar_->findChildren<QToolButton*>()) delete b;
    auto* grid = static_cast<QGridLayout*>(modeBar_->layout());
    int at = 0;
    for (mq::CommandMode* mode : ip_.commandModes()) {
        // "Move Crop Box" shows as "Move": every button here works on the crop box.
        QString label = QString::fromUtf8(mode->name());
        label.remove(QStringLiteral(" Crop Box"));
        auto* a = new QAction(label, modeBar_);
        a->setToolTip(QString::fromUtf8(mode->name()));
        a->setCheckable(true);
        a->setData(QVariant::fromValue(static_cast<void*>(mode)));
        a->setChecked(ip_.GetCommandMode() == mode);
        // The checked one again leaves the mode; the host exits the old one.
        connect(a, &QAction::triggered, this, [this, mode] {
            ip_.SetCommandMode(ip_.GetCommandMode() == mode ? nullptr : mode);
        });
        modeBar_->addAction(a);
        auto* button = new QToolButton(modeBar_);
        button->setDefaultAction(a);
        button->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        grid->addWidget(button, at / 2, at % 2);
        ++at;
    }
    modeBar_->setVisible(!ip_.commandModes().empty());
}

void MainWindow::attachUI(QtHostUI* ui) {
    ui_ = ui;
    ui->setDialogParent(this);
    setCommandPanel(ui->commandPanel());
    ui->setImageSink([this](const mq::ui::Image& image, const std::string& title) {
        imageWindow_->showImage(image, QString::fromStdString(title));
        imageWindow_->show();
        imageWindow_->raise();
    });
    // An object picking its own node would evaluate itself.
    ui->setPickFilter([this](const QtDialogWindow&, int, const mq::Node& node) {
        return node.GetObjectRef() != edited_;
    });
    ui->onPickMode = [this](bool picking) {
        prompt(picking ? tr("Click a node in the outliner to pick it") : QString());
    };
    beginEditing(selected_);
}

void MainWindow::beginEditing(mq::Node* node) {
    mq::Object* obj = node ? node->GetObjectRef() : nullptr;
    if (!ui_ || !obj) return;
    edited_ = obj;
    obj->BeginEditParams(&ip_, 0, nullptr);
    rebuildModeBar();
}

void MainWindow::endEditing() {
    if (ui_ && ui_->picking()) ui_->cancelPick();
    if (!edited_) return;
    mq::Object* obj = edited_;
    edited_ = nullptr;
    obj->EndEditParams(&ip_, 0, nullptr);
    rebuildModeBar();
}

void MainWindow::withEditingClosed(const std::function<void()>& change) {
    mq::Node* keep = selected_;
    endEditing();
    change();
    refresh();
    const auto nodes = ip_.scene().allNodes();
    if (keep && std::find(nodes.begin(), nodes.end(), keep) != nodes.end() && keep == selected_)
        beginEditing(keep);
}

namespace {

// A dialog's button by its label, as the user finds it.
QAbstractButton* buttonLabelled(QWidget& dialog, const QString& label) {
    for (QAbstractButton* b : dialog.findChildren<QAbstractButton*>())
        if (b->text() == label) return b;
    return nullptr;
}

}  // namespace

bool MainWindow::openLibraryBrowser(const QString& folder,
                                    const std::function<void(QWidget& browser)>& shown) {
    const QString title = tr("Library Browser");
    if (!ui_ || rendering()) return false;
    if (!QFileInfo(folder).isDir()) {
        reportError(title, tr("%1: no such folder").arg(folder));
        return false;
    }
    mq::ClassDesc* mosaiq = mq::classDirectory().findByInternalName(kMosaiqClass);
    if (!mosaiq) {
        reportError(title, tr("No Mosaiq plug-in was loaded"));
        return false;
    }
    const auto isMosaiq = [mosaiq](const mq::Node* node) {
        const mq::Object* obj = node ? node->GetObjectRef() : nullptr;
        return obj && obj->ClassID() == mosaiq->ClassID();
    };
    if (!isMosaiq(selected_)) {
        const std::vector<mq::Node*> nodes = ip_.scene().allNodes();
        const auto first = std::find_if(nodes.begin(), nodes.end(), isMosaiq);
        if (first != nodes.end())
            select(*first);
        else if (!createObject(kMosaiqClass))
            return false;
    }
    QtDialogWindow* base = ui_->page("Base Parameters");
    QAbstractButton* browse = base ? buttonLabelled(*base, "...") : nullptr;
    if (!browse) {
        reportError(title, tr("The Mosaiq object shows no \"Base Parameters\" rollout"));
        return false;
    }
    if (!browse->isEnabled())
        if (QAbstractButton* fromFile = buttonLabelled(*base, "From File")) fromFile->click();
    // In the browser, its own "..." picks the folder.
    ui_->onNextModal(
        [this, folder, shown](QtDialogWindow& browser) {
            ui_->answerFolderPicker(QFileInfo(folder).absoluteFilePath().toStdString());
            if (QAbstractButton* pick = buttonLabelled(browser, "...")) pick->click();
            if (shown) shown(browser);
        },
        /*handOver=*/!shown);
    browse->click();
    return true;
}

bool MainWindow::selectNodeByName(const QString& name) {
    mq::Node* node = ip_.scene().findNode(name.toStdString());
    if (!node) return false;
    select(node);
    return true;
}

void MainWindow::newScene() {
    select(nullptr);
    ip_.setScene(std::make_unique<mq::Scene>());
    file_.clear();
    dirty_ = false;
    savedUndoCount_ = 0;
    savedUndoName_.clear();
    refresh();
    emit sceneChanged();
    prompt(tr("New scene"));
}

bool MainWindow::openScene(const QString& path) {
    if (rendering()) return false;
    mq::Node* was = selected_;
    select(nullptr);
    try {
        mq::loadScene(ip_, path.toStdString());
    } catch (const std::exception& e) {
        // The host kept its scene; so does the window.
        select(was);
        reportError(tr("Open Scene"), tr("Could not open %1:\n%2").arg(path, e.what()));
        return false;
    }
    markSavedAs(path);
    emit sceneChanged();
    prompt(tr("Opened %1").arg(path));
    return true;
}

void MainWindow::markSavedAs(const QString& path) {
    file_ = QFileInfo(path).absoluteFilePath();
    dirty_ = false;
    savedUndoCount_ = mq::theHold.undoCount();
    savedUndoName_ = mq::theHold.undoName();
    addRecentFile(path);
    refresh();
}

bool MainWindow::saveScene() {
    if (file_.isEmpty()) {
        const QString path =
            QFileDialog::getSaveFileName(this, tr("Save Scene As"), QString(), tr(kSceneFilter));
        return !path.isEmpty() && saveSceneAs(path);
    }
    return saveSceneAs(file_);
}

bool MainWindow::saveSceneAs(const QString& path) {
    try {
        mq::saveScene(ip_.scene(), path.toStdString());
    } catch (const std::exception& e) {
        reportError(tr("Save Scene"), tr("Could not save %1:\n%2").arg(path, e.what()));
        return false;
    }
    markSavedAs(path);
    prompt(tr("Saved %1").arg(path));
    return true;
}

bool MainWindow::mergeFile(const QString& path) {
    if (rendering()) return false;
    // A merge is no undo step of the host: the scene is marked changed instead.
    const std::filesystem::path textures =
        ip_.scene().folder.empty() ? std::filesystem::path() : ip_.scene().folder;
    if (!ip_.ImportFromFile(path.toStdString(), textures)) {
        reportError(
            tr("Merge/Import"),
            tr("Could not merge %1:\n%2").arg(path, QString::fromStdString(ip_.lastError())));
        return false;
    }
    dirty_ = true;
    refresh();
    emit sceneChanged();
    prompt(tr("Merged %1").arg(path));
    return true;
}

mq::Node* MainWindow::makeNode(const QString& internalName) {
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName(internalName.toStdString());
    mq::Object* obj = cd ? mq::createObject(cd->SuperClassID(), cd->ClassID()) : nullptr;
    if (!obj) {
        reportError(tr("Create"), tr("Class %1 is not available").arg(internalName));
        return nullptr;
    }
    const std::string base = internalName == kMosaiqClass ? "Mosaiq001" : cd->ClassName();
    auto node = std::make_unique<mq::Node>(ip_.scene().uniqueName(base));
    node->SetObjectRef(obj);
    const std::string label = internalName == kMosaiqClass ? "Mosaiq" : cd->ClassName();
    return studio::createNode(ip_.scene(), std::move(node), "Create " + label);
}

mq::Node* MainWindow::createObject(const QString& internalName) {
    if (rendering()) return nullptr;
    mq::Node* n = makeNode(internalName);
    if (!n) return nullptr;
    refresh();
    emit sceneChanged();
    select(n);
    return n;
}

void MainWindow::beginCreateByClick(const QString& internalName) {
    if (rendering()) return;
    // Without a viewport there is nowhere to click: the object is made at once.
    if (!viewport_) {
        createObject(internalName);
        return;
    }
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName(internalName.toStdString());
    if (!cd) {
        reportError(tr("Create"), tr("Class %1 is not available").arg(internalName));
        return;
    }
    const QString label =
        internalName == kMosaiqClass ? "Mosaiq" : QString::fromUtf8(cd->ClassName());
    // The object's panels close first: the new node is selected once made.
    select(nullptr);
    viewport_->beginCreate([this, internalName] { return makeNode(internalName); },
                           tr("Create %1").arg(label));
    viewport_->setFocus();
    prompt(tr("Click in the viewport to create a %1; right click or Escape cancels").arg(label));
}

void MainWindow::deleteSelected() {
    if (!selected_ || rendering()) return;
    mq::Node* node = selected_;
    select(nullptr);
    deleteNode(node);
    refresh();
    emit sceneChanged();
}

void MainWindow::undo() {
    if (rendering()) return;
    withEditingClosed([] { mq::theHold.Undo(); });
    emit sceneChanged();
}

void MainWindow::redo() {
    if (rendering()) return;
    withEditingClosed([] { mq::theHold.Redo(); });
    emit sceneChanged();
}

bool MainWindow::maybeSave() {
    if (!isModified()) return true;
    switch (askToSave(tr("Save changes to %1?").arg(sceneName()))) {
        case QMessageBox::Save:
            return saveScene();
        case QMessageBox::Discard:
            return true;
        default:
            return false;
    }
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (!maybeSave()) {
        event->ignore();
        return;
    }
    job_.reset();
    endEditing();
    imageWindow_->close();
    event->accept();
}

void MainWindow::setCommandPanel(QWidget* panel) {
    if (commandPanel_) commandPanel_->deleteLater();
    commandPanel_ = panel;
    panelLayout_->addWidget(panel);
    panel->setEnabled(!rendering());
}

void MainWindow::showRenderSettings() {
    RenderSettingsDialog dialog(ip_.scene().render, renderOutput_, this);
    if (dialog.exec() != QDialog::Accepted) return;
    setRenderSection(ip_.scene(), dialog.render());
    renderOutput_ = dialog.output();
    refresh();
}

void MainWindow::showUnitsSetup() {
    UnitsSetupDialog dialog(ip_.scene().units, this);
    if (dialog.exec() == QDialog::Accepted) setSceneUnit(dialog.unit());
}

void MainWindow::setSceneUnit(mq::SceneUnit unit) {
    if (rendering() || unit == ip_.scene().units) return;
    mq::theHold.Begin();
    mq::setSceneUnit(ip_.scene(), unit);
    mq::theHold.Accept("Units Setup");
    refresh();
}

// Until finished() is handled: the thread may have ended with its signal still queued.
bool MainWindow::rendering() const { return job_ != nullptr; }

void MainWindow::startRender() {
    if (rendering()) return;
    mq::tracer::RenderSettings settings;
    try {
        mq::tracer::checkRenderData(
            ip_.scene(), [this](const std::string& w) { prompt(QString::fromStdString(w)); });
        settings = mq::tracer::RenderSettings::fromJson(ip_.scene().render);
    } catch (const std::exception& e) {
        reportError(tr("Render"), tr("%1 cannot be rendered:\n%2").arg(sceneName(), e.what()));
        return;
    }
    settings.assetFolder = ip_.scene().folder;
    job_ = std::make_unique<RenderJob>(ip_.scene(), settings);
    connect(job_.get(), &RenderJob::progress, this, [this](int done, int total) {
        progress_->setMaximum(total);
        progress_->setValue(done);
    });
    connect(job_.get(), &RenderJob::bandArrived, this, [this] {
        imageWindow_->showRender(job_->arrived(), tr("%1 - Rendering...").arg(sceneName()));
        imageWindow_->show();
    });
    connect(job_.get(), &RenderJob::finished, this, &MainWindow::onRenderFinished);
    progress_->setValue(0);
    progress_->setVisible(true);
    cancel_->setVisible(true);
    prompt(tr("Rendering %1 (%2 x %3, %4 spp)...")
               .arg(sceneName())
               .arg(settings.width)
               .arg(settings.height)
               .arg(settings.samplesPerPixel));
    job_->start();
    refresh();
}

void MainWindow::cancelRender() {
    if (!rendering()) return;
    job_->cancel();
    prompt(tr("Cancelling the render..."));
}

void MainWindow::onRenderFinished() {
    progress_->setVisible(false);
    cancel_->setVisible(false);
    if (job_->cancelled()) {
        // The bands that arrived stay in the frame buffer.
        if (imageWindow_->isVisible())
            imageWindow_->setWindowTitle(tr("%1 - Render Cancelled").arg(sceneName()));
        prompt(tr("Render cancelled"));
    } else if (!job_->error().isEmpty()) {
        reportError(tr("Render"), tr("Rendering %1 failed:\n%2").arg(sceneName(), job_->error()));
        prompt(tr("Render failed"));
    } else if (job_->image()) {
        imageWindow_->showRender(*job_->image(), tr("%1 - Rendered Frame").arg(sceneName()));
        imageWindow_->show();
        imageWindow_->raise();
        prompt(tr("Rendered %1").arg(sceneName()));
        QString error;
        if (!renderOutput_.isEmpty() && !imageWindow_->saveTo(renderOutput_, &error))
            reportError(tr("Render"), error);
    }
    // The job goes once its signal has returned.
    job_.release()->deleteLater();
    refresh();
    emit renderFinished();
}

}  // namespace mosaiq::studio
