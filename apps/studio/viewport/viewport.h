// The studio's OpenGL viewport: the scene's meshes shaded over a ground
// grid, objects that draw themselves, the selection highlighted; DCC
// navigation, click selection, command modes and creation by click.
// Main thread only. Needs an OpenGL 3.3 core context; without one it draws
// nothing (see glError()).
#pragma once

#include "host/interface.h"
#include "host/view_camera.h"

#include <QOpenGLWidget>
#include <QTimer>

#include <functional>
#include <memory>
#include <unordered_map>

class QAction;
class QToolButton;

namespace mosaiq::studio {

class BatchWindow;
struct GpuMesh;
struct GlResources;

class Viewport : public QOpenGLWidget {
    Q_OBJECT
public:
    enum class View { Perspective, Top, Front, Left, Camera };
    enum class Shading { Shaded, Wireframe, EdgedFaces };

    // Whether this platform can make an OpenGL context at all (Qt's
    // offscreen platform cannot; a QOpenGLWidget there breaks its window).
    static bool openGLAvailable();

    // ip must outlive the viewport.
    explicit Viewport(mq::HostInterface& ip, QWidget* parent = nullptr);
    ~Viewport() override;

    void setView(View view);
    View view() const { return view_; }
    static QString viewName(View view);
    // F3 and F4: wireframe on and off; edges over the shaded faces on and off.
    void toggleWireframe();
    void toggleEdgedFaces();
    Shading shading() const { return shading_; }

    // The node drawn highlighted (null: none); the window's selection.
    void setSelection(mq::Node* node);
    mq::Node* selection() const { return selected_; }
    // Frame the selection (everything when none); frame everything.
    void frameSelection();
    void frameAll();

    // The camera as the last frame drew it (or will draw it next).
    mq::ViewCamera camera() const;
    // The nearest node whose drawing lies within 4 pixels of (x, y), or null.
    mq::Node* pick(int x, int y);

    // Creation by click: make() adds the node under the root (inside the
    // hold the viewport opened) and returns it; the viewport places it and
    // drives its creation callback. step names the undo step.
    void beginCreate(std::function<mq::Node*()> make, const QString& step);
    bool creating() const { return static_cast<bool>(make_); }
    void cancelCreate();

    // While a render reads the scene nothing is re-evaluated: cached meshes draw.
    void setSceneLocked(bool locked) { locked_ = locked; }

    // Empty when OpenGL 3.3 core came up; otherwise why it did not.
    const QString& glError() const { return glError_; }
    bool drawnOnce() const { return frames_ > 0; }
    // Time of the last frame's drawing calls, in milliseconds.
    double lastFrameMs() const { return lastFrameMs_; }
    // Draw one frame now and wait for the GPU; returns its time in ms.
    double drawNow();
    // While the view moves (a navigation drag, the wheel), heavy meshes draw
    // a coarse stand-in so the view keeps up; full detail returns when it
    // stops. Set by the mouse; public for benchmarks.
    void setMoving(bool moving);
    bool moving() const { return moving_; }
    // The view, shading and framing commands, with their keys, for menus.
    const QList<QAction*>& viewActions() const { return viewActions_; }

signals:
    // A click on a node (null: empty space), for the window to select or pick.
    void nodeClicked(mq::Node* node);
    // A creation ended: the node made (its undo step accepted), or null.
    void created(mq::Node* node);
    void viewChanged(mosaiq::studio::Viewport::View view);
    void prompt(const QString& text);

protected:
    void initializeGL() override;
    void resizeGL(int w, int h) override;
    void paintGL() override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    enum class Drag { None, Orbit, Pan, Dolly, Click, Mode, Create };

    void requestRedraw();
    void updateMeshes();
    void uploadProxy(GpuMesh& m);
    void settleLater();
    GpuMesh* meshFor(mq::Node* node);
    mq::Box3 worldBounds(mq::Node* node);
    mq::Box3 sceneBounds();
    void frame(const mq::Box3& box);
    void drawGrid(const float* viewProj);
    void drawBatch(const BatchWindow& batch, const float* viewProj);
    void orbit(float dx, float dy);
    void pan(float dx, float dy);
    void zoomAt(float x, float y, float notches);
    void dolly(float dy);
    void toPerspective();
    void sendModeMouse(mq::MouseMsg msg, int point, QMouseEvent* event);
    void createMouse(mq::MouseMsg msg, QMouseEvent* event);
    void endCreate(bool accept);
    void showViewMenu(const QPoint& at);
    int mouseFlags(Qt::KeyboardModifiers mods) const;

    mq::HostInterface& ip_;
    View view_ = View::Perspective;
    Shading shading_ = Shading::Shaded;
    bool edgedFaces_ = false;
    mq::Node* selected_ = nullptr;

    // Perspective: the view's pivot and the eye's distance from it along
    // the view axis. Orthographic: the centre of the view and its height.
    mq::ViewCamera persp_;
    mq::Point3 pivot_{0, 0, 0};
    float distance_ = 200;
    mq::Point3 orthoCentre_[3];
    float orthoHeight_[3] = {200, 200, 200};

    std::unique_ptr<GlResources> gl_;
    std::unordered_map<mq::Node*, std::unique_ptr<GpuMesh>> meshes_;
    std::unique_ptr<BatchWindow> batch_;
    uint64_t builtStamp_ = ~uint64_t(0);
    int listener_ = -1;
    bool locked_ = false;
    QString glError_;
    int frames_ = 0;
    double lastFrameMs_ = 0;

    Drag drag_ = Drag::None;
    bool moving_ = false;
    QTimer settle_;
    QPoint pressAt_, lastAt_;
    mq::Point3 orbitCentre_;
    int modePoint_ = 0;

    std::function<mq::Node*()> make_;
    QString createStep_;
    mq::Node* creatingNode_ = nullptr;
    mq::CreateMouseCallBack* createCallback_ = nullptr;
    int createPoint_ = 0;
    mq::Matrix3 createTM_;

    QToolButton* label_ = nullptr;
    QList<QAction*> viewActions_;
    bool timing_ = false;
};

}  // namespace mosaiq::studio
