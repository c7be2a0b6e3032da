// The studio's main window: menus, the scene outliner, the slot of the
// command panel, the place of the viewport, the status bar with prompts and
// the render's progress, and the image window it owns.
#pragma once

#include "host/interface.h"
#include "host/units.h"
#include "tracer/renderer.h"

#include <QMainWindow>
#include <QMessageBox>
#include <QString>

#include <functional>
#include <memory>

class QLabel;
class QMenu;
class QProgressBar;
class QPushButton;
class QToolBar;
class QVBoxLayout;

namespace mosaiq::studio {

class ImageWindow;
class QtHostUI;
class RenderJob;
class RenderView;
class SceneOutliner;
class Viewport;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    // The window edits ip's scene; ip must outlive it.
    explicit MainWindow(mq::HostInterface& ip, QWidget* parent = nullptr);
    ~MainWindow() override;

    // File commands. Each reports a failure to the user through reportError
    // (naming the file and the reason) and returns false; the open scene is
    // then unchanged.
    void newScene();
    bool openScene(const QString& path);
    bool saveScene();  // Save As when the scene has no file yet
    bool saveSceneAs(const QString& path);
    bool mergeFile(const QString& path);
    const QString& currentFile() const { return file_; }
    bool isModified() const;

    // Selection and node commands, each one undo step.
    bool selectNodeByName(const QString& name);
    mq::Node* selectedNode() const { return selected_; }
    mq::Node* createObject(const QString& internalName);
    // Put the viewport in a creation mode for the class: the next click
    // there creates it (one undo step); Escape or a right click cancels.
    void beginCreateByClick(const QString& internalName);
    void deleteSelected();
    void undo();
    void redo();
    // The scene's unit as the undo step "Units Setup"; open rollouts show it.
    void setSceneUnit(mq::SceneUnit unit);

    // Rendering on a worker thread; the scene is locked until it ends.
    void startRender();
    void cancelRender();
    bool rendering() const;
    // Where a finished render is also written; empty for nowhere.
    void setRenderOutput(const QString& path) { renderOutput_ = path; }
    const QString& renderOutput() const { return renderOutput_; }

    // The command panel's slot, right of the viewport; the window takes the
    // widget. A placeholder shows until one is set.
    void setCommandPanel(QWidget* panel);
    QWidget* commandPanel() const { return commandPanel_; }

    // Show the selected object's rollouts through ui (installed in the host
    // by the caller, which keeps it alive while the window lives): its
    // command panel fills the slot, its images go to the image window, and
    // while a pick button waits an outliner click picks instead of selecting.
    void attachUI(QtHostUI* ui);
    // Close the rollouts of the object being edited, if any.
    void endEditing();
    // Open the library browser on folder for a Mosaiq object's pattern file:
    // the selected one, else the scene's first, else a new one, switched to
    // take its pattern from a file. shown, when set, runs once the browser
    // is up and then closes it; without it the user works the browser.
    bool openLibraryBrowser(const QString& folder,
                            const std::function<void(QWidget& browser)>& shown = {});

    SceneOutliner* outliner() const { return outliner_; }
    Viewport* viewport() const { return viewport_; }
    // The edited object's command modes, one checkable button each.
    QWidget* modeBar() const { return modeBar_; }
    ImageWindow* imageWindow() const { return imageWindow_.get(); }
    RenderView* renderView() const { return renderView_; }
    mq::HostInterface& host() { return ip_; }

    // How errors and questions reach the user; message boxes by default.
    // Tests replace them, as a modal box would wait for a click.
    std::function<void(const QString& title, const QString& text)> reportError;
    // Asked before unsaved changes are dropped: Save, Discard or Cancel.
    std::function<QMessageBox::StandardButton(const QString& text)> askToSave;

signals:
    // The selected node changed (null: none), for the command panel.
    void nodeSelected(mq::Node* node);
    // The scene was replaced or its node tree changed.
    void sceneChanged();
    void renderFinished();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenus();
    void buildCreateMenu(QMenu* menu);
    void rebuildRecentMenu();
    void addRecentFile(const QString& path);
    // The scene now matches path on disk: its file, clean, a recent file.
    void markSavedAs(const QString& path);
    void refresh();  // outliner, titles, enabled states
    void select(mq::Node* node);
    // A click on a node in the outliner or the viewport: picks while a pick
    // button waits, selects otherwise.
    void nodeClicked(mq::Node* node);
    void rebuildModeBar();
    // A new node of the class under the root, as the step "Create <label>".
    mq::Node* makeNode(const QString& internalName);
    void beginEditing(mq::Node* node);
    // Undo and redo may delete the edited object: its rollouts close first.
    void withEditingClosed(const std::function<void()>& change);
    bool maybeSave();
    void showRenderSettings();
    void showUnitsSetup();
    void onRenderFinished();
    void prompt(const QString& text);
    QString sceneName() const;

    mq::HostInterface& ip_;
    QString file_;
    bool dirty_ = false;
    int savedUndoCount_ = 0;
    std::string savedUndoName_;
    mq::Node* selected_ = nullptr;
    QtHostUI* ui_ = nullptr;
    mq::Object* edited_ = nullptr;  // whose rollouts are open
    QString renderOutput_;

    SceneOutliner* outliner_;
    Viewport* viewport_;
    QWidget* modeBar_;
    QVBoxLayout* panelLayout_;
    QWidget* commandPanel_ = nullptr;
    std::unique_ptr<ImageWindow> imageWindow_;
    std::unique_ptr<RenderJob> job_;
    RenderView* renderView_ = nullptr;  // a dock, hidden until asked for
    QProgressBar* progress_;
    QPushButton* cancel_;
    QMenu* recentMenu_ = nullptr;
    QAction* undoAction_ = nullptr;
    QAction* redoAction_ = nullptr;
    QAction* deleteAction_ = nullptr;
    QAction* renderAction_ = nullptr;
    // Disabled while a render reads the scene.
    QList<QAction*> editActions_;
};

}  // namespace mosaiq::studio
