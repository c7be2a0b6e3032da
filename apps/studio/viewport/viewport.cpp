#include "viewport.h"

#include "gl_window.h"

#include "host/changes.h"
#include "host/hold.h"
#include "tracer/shading.h"

#include <QElapsedTimer>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QOpenGLBuffer>
#include <QOpenGLContext>
#include <QOpenGLFunctions_3_3_Core>
#include <QOpenGLShaderProgram>
#include <QOpenGLVersionFunctionsFactory>
#include <QToolButton>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

namespace mosaiq::studio {

using mq::Box3;
using mq::Matrix3;
using mq::Point3;

// One node's mesh on the GPU, with the CPU copy hit tests read.
struct GpuMesh {
    mq::Object* obj = nullptr;
    uint64_t stamp = 0;      // the scene's change stamp when last checked
    uint64_t signature = 0;  // of the mesh last uploaded
    std::vector<Point3> verts;
    std::vector<int> indices;
    Box3 bounds;  // object space
    GLuint vao = 0, vbo = 0, ibo = 0;
    // A coarse stand-in drawn while the view moves (heavy meshes only): the
    // same vertices, fewer triangles. proxyVao 0: none.
    GLuint proxyVao = 0, proxyIbo = 0;
    GLsizei proxyCount = 0;
};

struct GlResources {
    QOpenGLFunctions_3_3_Core* f = nullptr;
    QOpenGLShaderProgram mesh, batch;
    GLuint batchVao = 0, batchVbo = 0;
};

namespace {

constexpr float kClickSlop = 3;       // pixels a press may move and still click
constexpr float kOrbitRate = 0.006f;  // radians per pixel
constexpr float kZoomStep = 0.85f;    // per wheel notch
// Above this a selected mesh shows its bounds, not a silhouette.
constexpr int kOutlineTriangles = 200000;
// Meshes above this get a coarse stand-in for drawing while the view moves,
// clustered on a grid of this many cells along the longest side: a software
// OpenGL draws a million triangles at a few frames a second.
constexpr int kProxyTriangles = 150000;
constexpr int kProxyCells = 64;
// How long after the last wheel notch the view still counts as moving.
constexpr int kSettleMs = 250;

// Vertex clustering: each vertex snaps to the first vertex seen in its grid
// cell; triangles whose corners meet in fewer than three cells vanish, and
// repeats are dropped. The indices refer to the original vertices.
std::vector<int> clusterProxy(const std::vector<Point3>& verts, const std::vector<int>& indices,
                              const Box3& bounds) {
    const Point3 extent = bounds.Width();
    const float cell = std::max({extent.x, extent.y, extent.z, 1e-20f}) / float(kProxyCells);
    std::unordered_map<uint64_t, int> firstInCell;
    std::vector<int> rep(verts.size());
    for (size_t i = 0; i < verts.size(); ++i) {
        const Point3 q = (verts[i] - bounds.pmin) * (1.0f / cell);
        const auto c = [](float v) { return uint64_t(std::clamp(v, 0.0f, 1048575.0f)); };
        const uint64_t key = c(q.x) | c(q.y) << 20 | c(q.z) << 40;
        rep[i] = firstInCell.try_emplace(key, int(i)).first->second;
    }
    std::vector<int> out;
    std::unordered_set<uint64_t> seen;
    for (size_t t = 0; t + 2 < indices.size(); t += 3) {
        int a = rep[indices[t]], b = rep[indices[t + 1]], c = rep[indices[t + 2]];
        if (a == b || b == c || a == c) continue;
        int k[3] = {a, b, c};
        std::sort(k, k + 3);
        // Vertex indices of one mesh fit 21 bits each for any mesh this is worth it on.
        const uint64_t key = uint64_t(k[0]) | uint64_t(k[1]) << 21 | uint64_t(k[2]) << 42;
        if (!seen.insert(key).second) continue;
        out.insert(out.end(), {a, b, c});
    }
    return out;
}
const Point3 kClay{0.68f, 0.67f, 0.64f};
const Point3 kSelected{1.0f, 0.92f, 0.55f};
const Point3 kWire{0.55f, 0.62f, 0.72f};
const float kBackground[3] = {0.215f, 0.22f, 0.23f};

const char* kMeshVertex = R"(#version 330 core
layout(location = 0) in vec3 pos;
uniform mat4 model;
uniform mat4 viewProj;
out vec3 worldPos;
void main() {
    vec4 w = model * vec4(pos, 1.0);
    worldPos = w.xyz;
    gl_Position = viewProj * w;
})";

// Face normals from the screen derivatives: flat shading without a normal
// per corner, which halves what a million triangles upload. Lit by a
// headlight and a sky that is brighter above than below, both sides alike.
const char* kMeshFragment = R"(#version 330 core
in vec3 worldPos;
uniform vec3 color;
uniform vec3 eye;
uniform vec3 viewDir;
uniform int perspective;
uniform int solid;
out vec4 frag;
void main() {
    if (solid == 1) { frag = vec4(color, 1.0); return; }
    vec3 n = normalize(cross(dFdx(worldPos), dFdy(worldPos)));
    vec3 toEye = perspective == 1 ? normalize(eye - worldPos) : -viewDir;
    if (dot(n, toEye) < 0.0) n = -n;
    float head = max(dot(n, toEye), 0.0);
    vec3 sky = mix(vec3(0.20, 0.19, 0.18), vec3(0.42, 0.46, 0.54), 0.5 + 0.5 * n.z);
    frag = vec4(color * (sky + 0.72 * pow(head, 1.3)), 1.0);
})";

const char* kBatchVertex = R"(#version 330 core
layout(location = 0) in vec3 pos;
layout(location = 1) in vec3 col;
uniform mat4 viewProj;
out vec3 worldPos;
out vec3 vcol;
void main() {
    worldPos = pos;
    vcol = col;
    gl_Position = viewProj * vec4(pos, 1.0);
})";

// Lines and points flat; triangles lit as meshes are. fade > 0 blends into
// the background with distance, so the grid's far lines do not shimmer.
const char* kBatchFragment = R"(#version 330 core
in vec3 worldPos;
in vec3 vcol;
uniform int lit;
uniform vec3 eye;
uniform float fade;
uniform vec3 background;
out vec4 frag;
void main() {
    vec3 c = vcol;
    if (lit == 1) {
        vec3 n = normalize(cross(dFdx(worldPos), dFdy(worldPos)));
        vec3 toEye = normalize(eye - worldPos);
        float head = abs(dot(n, toEye));
        c *= mix(vec3(0.20, 0.19, 0.18), vec3(0.42, 0.46, 0.54), 0.5 + 0.5 * abs(n.z)) + 0.72 * head;
    }
    if (fade > 0.0) c = mix(c, background, clamp(length(worldPos - eye) / fade, 0.0, 1.0));
    frag = vec4(c, 1.0);
})";

// Row-vector matrix to column-major GL storage (the same memory layout).
void toGL(const Matrix3& m, float out[16]) {
    for (int r = 0; r < 4; ++r) {
        out[r * 4 + 0] = m.GetRow(r).x;
        out[r * 4 + 1] = m.GetRow(r).y;
        out[r * 4 + 2] = m.GetRow(r).z;
        out[r * 4 + 3] = r == 3 ? 1.0f : 0.0f;
    }
}

// Column-major a * b.
void mul4(const float a[16], const float b[16], float out[16]) {
    for (int c = 0; c < 4; ++c)
        for (int r = 0; r < 4; ++r) {
            float s = 0;
            for (int k = 0; k < 4; ++k) s += a[k * 4 + r] * b[c * 4 + k];
            out[c * 4 + r] = s;
        }
}

// Rotation by angle (radians) about a unit axis through the origin.
Matrix3 rotationAbout(const Point3& axis, float angle) {
    const float c = std::cos(angle), s = std::sin(angle);
    Matrix3 m;
    for (int i = 0; i < 3; ++i) {
        Point3 e;
        e[i] = 1;
        m.SetRow(i, e * c + CrossProd(axis, e) * s + axis * (DotProd(axis, e) * (1 - c)));
    }
    return m;
}

// A z-up frame looking along -back from eye.
Matrix3 frameFrom(const Point3& back, const Point3& eye) {
    const Point3 up = std::abs(back.z) > 0.999f ? Point3(0, 1, 0) : Point3(0, 0, 1);
    const Point3 right = Normalize(CrossProd(up, back));
    return Matrix3(right, CrossProd(back, right), back, eye);
}

uint64_t fnv(uint64_t h, const void* data, size_t bytes) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

// A triangle mesh's signature from its counts and a strided sample of its
// vertices and faces: cheap enough to take for every node on every change.
// An edit of one unsampled vertex goes unseen until another change hits a
// sample; edits in the studio rebuild whole meshes, so that does not arise.
uint64_t sampleSignature(const mq::Mesh& mesh) {
    uint64_t h = 1469598103934665603ull;
    const size_t nv = mesh.verts.size(), nf = mesh.faces.size();
    h = fnv(h, &nv, sizeof nv);
    h = fnv(h, &nf, sizeof nf);
    const size_t vs = std::max<size_t>(1, nv / 512), fs = std::max<size_t>(1, nf / 512);
    for (size_t i = 0; i < nv; i += vs) h = fnv(h, &mesh.verts[i], sizeof(Point3));
    for (size_t i = 0; i < nf; i += fs) h = fnv(h, mesh.faces[i].v, sizeof mesh.faces[i].v);
    return h;
}

// The view's orthographic axes: Top, Front, Left.
Matrix3 orthoFrame(int which) {
    switch (which) {
        case 0:
            return Matrix3({1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {});
        case 1:
            return Matrix3({1, 0, 0}, {0, 0, 1}, {0, -1, 0}, {});
        default:
            return Matrix3({0, -1, 0}, {0, 0, 1}, {-1, 0, 0}, {});
    }
}

}  // namespace

Viewport::Viewport(mq::HostInterface& ip, QWidget* parent)
    : QOpenGLWidget(parent), ip_(ip), batch_(std::make_unique<BatchWindow>()) {
    settle_.setSingleShot(true);
    connect(&settle_, &QTimer::timeout, this, [this] { setMoving(false); });
    QSurfaceFormat format;
    format.setVersion(3, 3);
    format.setProfile(QSurfaceFormat::CoreProfile);
    format.setDepthBufferSize(24);
    format.setStencilBufferSize(8);
    setFormat(format);
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(true);
    setMinimumSize(160, 120);

    persp_ = mq::ViewCamera::lookAt({120, -160, 110}, {0, 0, 0});
    distance_ = Length(persp_.eye());

    // Changes come from any thread: only note them, the paint rebuilds.
    listener_ = mq::sceneChanges().addListener([this] {
        QMetaObject::invokeMethod(
            this, [this] { update(); }, Qt::QueuedConnection);
    });

    auto* label = new QToolButton(this);
    label->setObjectName("viewLabel");
    label->setPopupMode(QToolButton::InstantPopup);
    label->setAutoRaise(true);
    label->setStyleSheet(
        "QToolButton { color: #d8d8d8; background: transparent; border: none; padding: 2px 6px; }"
        "QToolButton:hover { background: rgba(255,255,255,30); }"
        "QToolButton::menu-indicator { image: none; }");
    auto* menu = new QMenu(label);
    const std::pair<View, const char*> views[] = {{View::Perspective, "P"},
                                                  {View::Top, "T"},
                                                  {View::Front, ""},
                                                  {View::Left, "L"},
                                                  {View::Camera, "C"}};
    int n = 1;
    for (auto [v, key] : views) {
        auto* a = new QAction(viewName(v), this);
        QList<QKeySequence> keys{QKeySequence(Qt::CTRL | (Qt::Key_0 + n++))};
        if (*key) keys.prepend(QKeySequence(QString(key)));
        a->setShortcuts(keys);
        a->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        connect(a, &QAction::triggered, this, [this, v] { setView(v); });
        addAction(a);
        menu->addAction(a);
        viewActions_.push_back(a);
    }
    menu->addSeparator();
    const auto command = [&](const QString& text, QKeySequence key, auto slot) {
        auto* a = new QAction(text, this);
        a->setShortcut(key);
        a->setShortcutContext(Qt::WidgetWithChildrenShortcut);
        connect(a, &QAction::triggered, this, slot);
        addAction(a);
        viewActions_.push_back(a);
        return a;
    };
    menu->addAction(command(tr("Wireframe"), Qt::Key_F3, [this] { toggleWireframe(); }));
    menu->addAction(command(tr("Edged Faces"), Qt::Key_F4, [this] { toggleEdgedFaces(); }));
    menu->addSeparator();
    menu->addAction(command(tr("Frame Selected"), Qt::Key_F, [this] { frameSelection(); }));
    QAction* all = command(tr("Frame All"), Qt::Key_A, [this] { frameAll(); });
    all->setShortcuts({QKeySequence(Qt::Key_A), QKeySequence(Qt::Key_Home)});
    menu->addAction(all);
    label->setMenu(menu);
    label_ = label;
    label_->move(4, 4);
    setView(View::Perspective);
}

Viewport::~Viewport() {
    mq::sceneChanges().removeListener(listener_);
    // The context outlives this part of the widget: its notice must not reach here.
    if (context()) disconnect(context(), nullptr, this, nullptr);
    // GL objects go while their context is current.
    if (gl_ && context()) {
        makeCurrent();
        for (auto& [node, m] : meshes_) {
            gl_->f->glDeleteVertexArrays(1, &m->vao);
            gl_->f->glDeleteBuffers(1, &m->vbo);
            gl_->f->glDeleteBuffers(1, &m->ibo);
        }
        gl_->f->glDeleteVertexArrays(1, &gl_->batchVao);
        gl_->f->glDeleteBuffers(1, &gl_->batchVbo);
        meshes_.clear();
        gl_.reset();
        doneCurrent();
    }
}

bool Viewport::openGLAvailable() {
    QOpenGLContext probe;
    return probe.create();
}

QString Viewport::viewName(View view) {
    switch (view) {
        case View::Perspective:
            return tr("Perspective");
        case View::Top:
            return tr("Top");
        case View::Front:
            return tr("Front");
        case View::Left:
            return tr("Left");
        case View::Camera:
            return tr("Camera");
    }
    return {};
}

void Viewport::setView(View view) {
    view_ = view;
    label_->setText(viewName(view));
    label_->adjustSize();
    emit viewChanged(view);
    update();
}

void Viewport::toggleWireframe() {
    shading_ = shading_ == Shading::Wireframe
                   ? (edgedFaces_ ? Shading::EdgedFaces : Shading::Shaded)
                   : Shading::Wireframe;
    update();
}

void Viewport::toggleEdgedFaces() {
    edgedFaces_ = !edgedFaces_;
    if (shading_ != Shading::Wireframe)
        shading_ = edgedFaces_ ? Shading::EdgedFaces : Shading::Shaded;
    update();
}

void Viewport::setSelection(mq::Node* node) {
    if (node == selected_) return;
    selected_ = node;
    update();
}

// ---- Camera ----

mq::ViewCamera Viewport::camera() const {
    mq::ViewCamera c;
    c.width = std::max(width(), 1);
    c.height = std::max(height(), 1);
    const float aspect = float(c.width) / c.height;
    if (view_ == View::Perspective) {
        c.viewToWorld = persp_.viewToWorld;
        c.fovY = persp_.fovY;
    } else if (view_ == View::Camera) {
        // As the tracer frames it, but with the viewport's aspect: the
        // horizontal field of view is the scene's.
        try {
            const Box3 box = const_cast<Viewport*>(this)->sceneBounds();
            const mq::tracer::Camera cam =
                mq::tracer::makeCamera(ip_.scene().camera, box, c.width, c.height);
            c.viewToWorld = Matrix3(cam.right, cam.up, -cam.forward, cam.position);
            c.fovY = 2 * std::atan(cam.tanHalfFovX / aspect);
        } catch (const std::exception&) {
            c.viewToWorld = persp_.viewToWorld;
        }
    } else {
        const int k = int(view_) - int(View::Top);
        c.perspective = false;
        c.viewToWorld = orthoFrame(k);
        c.viewToWorld.SetTrans(orthoCentre_[k]);
        c.orthoHeight = orthoHeight_[k];
    }
    // Clip planes around what there is to see, for depth precision.
    const Box3 box = const_cast<Viewport*>(this)->sceneBounds();
    const float radius = box.IsEmpty() ? 100.0f : 0.5f * Length(box.Width()) + 1.0f;
    const Point3 centre = box.IsEmpty() ? Point3() : box.Center();
    const float reach = Length(centre - c.eye()) + radius;
    if (c.perspective) {
        c.farClip = std::max(2 * reach, 20 * distance_) + 10;
        c.nearClip = std::max(c.farClip * 2e-5f, std::min(0.01f * distance_, 0.1f * reach));
        c.nearClip = std::min(c.nearClip, 1.0f);
    } else {
        c.farClip = std::max(2 * reach, 10 * c.orthoHeight);
    }
    return c;
}

void Viewport::toPerspective() {
    if (view_ == View::Perspective) return;
    const mq::ViewCamera c = camera();
    const Point3 back = c.viewToWorld.GetRow(2);
    if (view_ == View::Camera) {
        persp_.viewToWorld = c.viewToWorld;
        persp_.fovY = c.fovY;
        const Box3 box = sceneBounds();
        distance_ = box.IsEmpty() ? 100.0f : std::max(DotProd(c.eye() - box.Center(), back), 1.0f);
        pivot_ = c.eye() - back * distance_;
    } else {
        // From the orthographic view's centre, at the distance that shows
        // about what it showed, tipped a little so the orbit has somewhere to go.
        pivot_ = c.viewToWorld.GetTrans();
        distance_ = 0.5f * c.orthoHeight / std::tan(0.5f * persp_.fovY);
        persp_.fovY = 0.785398f;
        const Point3 tilted = Normalize(back + Point3(0, 0, back.z > 0.9f ? 0 : 0.15f) +
                                        (back.z > 0.9f ? Point3(0, -0.15f, 0) : Point3()));
        persp_.viewToWorld = frameFrom(tilted, pivot_ + tilted * distance_);
    }
    setView(View::Perspective);
}

void Viewport::orbit(float dx, float dy) {
    toPerspective();
    Matrix3 m = persp_.viewToWorld;
    const Point3 c = orbitCentre_;
    const Matrix3 yaw = rotationAbout({0, 0, 1}, -dx * kOrbitRate);
    Point3 back = VectorTransform(yaw, m.GetRow(2));
    const Point3 right = VectorTransform(yaw, m.GetRow(0));
    Matrix3 turn = yaw;
    const Matrix3 pitch = rotationAbout(Normalize(right), -dy * kOrbitRate);
    // Stop short of the poles, where z up would leave the frame undefined.
    if (std::abs(VectorTransform(pitch, back).z) < 0.995f) turn = yaw * pitch;
    back = VectorTransform(turn, m.GetRow(2));
    const Point3 eye = (m.GetTrans() - c) * turn + c;
    pivot_ = (pivot_ - c) * turn + c;
    persp_.viewToWorld = frameFrom(Normalize(back), eye);
    update();
}

void Viewport::pan(float dx, float dy) {
    const mq::ViewCamera c = camera();
    if (view_ == View::Camera) toPerspective();
    const float s = c.perspective ? c.pixelSizeAt(pivot_) : c.orthoHeight / c.height;
    const Point3 move = c.viewToWorld.GetRow(0) * (-dx * s) + c.viewToWorld.GetRow(1) * (dy * s);
    if (view_ == View::Perspective) {
        persp_.viewToWorld.SetTrans(persp_.eye() + move);
        pivot_ += move;
    } else {
        orthoCentre_[int(view_) - int(View::Top)] += move;
    }
    update();
}

void Viewport::zoomAt(float x, float y, float notches) {
    if (view_ == View::Camera) toPerspective();
    const mq::ViewCamera c = camera();
    const float keep = std::pow(kZoomStep, notches);  // of the distance or height
    if (view_ == View::Perspective) {
        // Along the ray under the cursor, so what is there stays there.
        const mq::Ray r = c.screenRay(x, y);
        const Point3 back = c.viewToWorld.GetRow(2);
        const float along = distance_ * (1 - keep) / std::max(-DotProd(r.dir, back), 0.05f);
        persp_.viewToWorld.SetTrans(c.eye() + r.dir * along);
        distance_ *= keep;
        pivot_ = persp_.eye() - back * distance_;
    } else {
        const int k = int(view_) - int(View::Top);
        const Point3 under = c.screenRay(x, y).p;
        orthoCentre_[k] = under + (orthoCentre_[k] - under) * keep;
        orthoHeight_[k] *= keep;
    }
    update();
}

void Viewport::dolly(float dy) {
    if (view_ != View::Perspective) {
        zoomAt(width() * 0.5f, height() * 0.5f, dy * 0.05f);
        return;
    }
    const Point3 back = persp_.viewToWorld.GetRow(2);
    const float next = distance_ * std::exp(-dy * 0.01f);
    persp_.viewToWorld.SetTrans(persp_.eye() - back * (distance_ - next));
    distance_ = next;
    pivot_ = persp_.eye() - back * distance_;
    update();
}

Box3 Viewport::worldBounds(mq::Node* node) {
    mq::Object* obj = node->GetObjectRef();
    if (obj && obj->hasOwnDisplay()) {
        // What the object draws is where it is: record one drawing. Any
        // camera does (the view's own needs these bounds for its clipping).
        const mq::ViewCamera any;
        mq::HitTestWindow recorder(any);
        mq::CameraViewExp vpt(any, recorder);
        obj->Display(ip_.GetTime(), node, vpt, 0);
        return recorder.drawn().bounds;
    }
    Box3 local;
    const auto it = meshes_.find(node);
    if (it != meshes_.end() && it->second->obj == obj)
        local = it->second->bounds;
    else if (obj)
        local = obj->objectBounds(ip_.GetTime());
    Box3 world;
    if (local.IsEmpty()) return world;
    const Matrix3 tm = node->GetObjectTM(ip_.GetTime());
    for (int i = 0; i < 8; ++i)
        world += Point3(i & 1 ? local.pmax.x : local.pmin.x, i & 2 ? local.pmax.y : local.pmin.y,
                        i & 4 ? local.pmax.z : local.pmin.z) *
                 tm;
    return world;
}

Box3 Viewport::sceneBounds() {
    Box3 box;
    for (mq::Node* n : ip_.scene().allNodes()) box += worldBounds(n);
    return box;
}

void Viewport::frame(const Box3& box) {
    if (box.IsEmpty()) return;
    const Point3 centre = box.Center();
    const float radius = std::max(0.5f * Length(box.Width()), 1e-3f);
    if (view_ == View::Camera) toPerspective();
    const mq::ViewCamera c = camera();
    if (view_ == View::Perspective) {
        // The bounding sphere just inside the narrower field of view.
        const float aspect = float(c.width) / c.height;
        const float half = std::min(c.fovY, 2 * std::atan(std::tan(c.fovY / 2) * aspect)) / 2;
        const Point3 back = persp_.viewToWorld.GetRow(2);
        distance_ = radius / std::sin(half);
        pivot_ = centre;
        persp_.viewToWorld.SetTrans(centre + back * distance_);
        // Perspective draws the near side larger: move across the view until
        // the projected bounds are centred.
        for (int pass = 0; pass < 3; ++pass) {
            const mq::ViewCamera now = camera();
            float lo[2] = {1e30f, 1e30f}, hi[2] = {-1e30f, -1e30f};
            for (int i = 0; i < 8; ++i) {
                float x, y;
                if (!now.project(
                        Point3(i & 1 ? box.pmax.x : box.pmin.x, i & 2 ? box.pmax.y : box.pmin.y,
                               i & 4 ? box.pmax.z : box.pmin.z),
                        x, y))
                    return update();
                lo[0] = std::min(lo[0], x), hi[0] = std::max(hi[0], x);
                lo[1] = std::min(lo[1], y), hi[1] = std::max(hi[1], y);
            }
            const float px = now.pixelSizeAt(centre);
            const Point3 shift =
                now.viewToWorld.GetRow(0) * ((lo[0] + hi[0] - now.width) * 0.5f * px) -
                now.viewToWorld.GetRow(1) * ((lo[1] + hi[1] - now.height) * 0.5f * px);
            persp_.viewToWorld.SetTrans(persp_.eye() + shift);
            pivot_ += shift;
        }
    } else {
        const int k = int(view_) - int(View::Top);
        const Matrix3 axes = orthoFrame(k);
        float w = 0, h = 0;
        for (int i = 0; i < 8; ++i) {
            const Point3 d =
                Point3(i & 1 ? box.pmax.x : box.pmin.x, i & 2 ? box.pmax.y : box.pmin.y,
                       i & 4 ? box.pmax.z : box.pmin.z) -
                centre;
            w = std::max(w, std::abs(DotProd(d, axes.GetRow(0))));
            h = std::max(h, std::abs(DotProd(d, axes.GetRow(1))));
        }
        orthoCentre_[k] = centre;
        orthoHeight_[k] = 2.2f * std::max({h, w * c.height / c.width, 1e-3f});
    }
    update();
}

void Viewport::frameSelection() {
    if (!selected_) return frameAll();
    Box3 box = worldBounds(selected_);
    if (box.IsEmpty()) box += selected_->GetNodeTM(ip_.GetTime()).GetTrans();
    if (Length(box.Width()) == 0)
        box = Box3(box.pmin - Point3(5, 5, 5), box.pmax + Point3(5, 5, 5));
    frame(box);
}

void Viewport::frameAll() {
    Box3 box = sceneBounds();
    if (box.IsEmpty()) box = Box3({-50, -50, 0}, {50, 50, 0});
    frame(box);
}

// ---- Meshes ----

void Viewport::updateMeshes() {
    if (locked_ || !gl_) return;
    auto* f = gl_->f;
    const uint64_t stamp = mq::sceneChanges().stamp();
    const mq::TimeValue t = ip_.GetTime();
    std::unordered_map<mq::Node*, std::unique_ptr<GpuMesh>> kept;
    for (mq::Node* node : ip_.scene().allNodes()) {
        mq::Object* obj = node->GetObjectRef();
        if (!obj || obj->hasOwnDisplay()) continue;
        auto it = meshes_.find(node);
        std::unique_ptr<GpuMesh> m;
        if (it != meshes_.end()) m = std::move(it->second);
        if (m && m->obj == obj && m->stamp == stamp) {
            kept[node] = std::move(m);
            continue;
        }
        // A triangle object is checked by a sample; anything else is built
        // again and uploaded only when the result differs.
        std::optional<mq::Mesh> built;
        uint64_t signature;
        if (auto* tri = dynamic_cast<mq::TriObject*>(obj)) {
            signature = sampleSignature(tri->mesh);
        } else {
            built = mq::meshOfObject(obj, t);
            if (!built) continue;
            signature = sampleSignature(*built);
        }
        if (m && m->obj == obj && m->signature == signature) {
            m->stamp = stamp;
            kept[node] = std::move(m);
            continue;
        }
        if (!m) {
            m = std::make_unique<GpuMesh>();
            f->glGenVertexArrays(1, &m->vao);
            f->glGenBuffers(1, &m->vbo);
            f->glGenBuffers(1, &m->ibo);
        }
        const mq::Mesh& mesh = built ? *built : static_cast<mq::TriObject*>(obj)->mesh;
        m->obj = obj;
        m->stamp = stamp;
        m->signature = signature;
        m->verts = mesh.verts;
        m->bounds = mesh.getBoundingBox();
        m->indices.resize(mesh.faces.size() * 3);
        const int nv = int(mesh.verts.size());
        size_t k = 0;
        for (const mq::Face& face : mesh.faces)
            if (int(face.v[0]) < nv && int(face.v[1]) < nv && int(face.v[2]) < nv)
                for (int j = 0; j < 3; ++j) m->indices[k++] = int(face.v[j]);
        m->indices.resize(k);
        f->glBindVertexArray(m->vao);
        f->glBindBuffer(GL_ARRAY_BUFFER, m->vbo);
        f->glBufferData(GL_ARRAY_BUFFER, m->verts.size() * sizeof(Point3), m->verts.data(),
                        GL_STATIC_DRAW);
        f->glEnableVertexAttribArray(0);
        f->glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, sizeof(Point3), nullptr);
        f->glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m->ibo);
        f->glBufferData(GL_ELEMENT_ARRAY_BUFFER, m->indices.size() * sizeof(int), m->indices.data(),
                        GL_STATIC_DRAW);
        f->glBindVertexArray(0);
        uploadProxy(*m);
        kept[node] = std::move(m);
    }
    for (auto& [node, m] : meshes_)
        if (m) {
            f->glDeleteVertexArrays(1, &m->vao);
            f->glDeleteBuffers(1, &m->vbo);
            f->glDeleteBuffers(1, &m->ibo);
            f->glDeleteVertexArrays(1, &m->proxyVao);
            f->glDeleteBuffers(1, &m->proxyIbo);
        }
    meshes_ = std::move(kept);
    builtStamp_ = stamp;
}

void Viewport::uploadProxy(GpuMesh& m) {
    auto* f = gl_->f;
    if (m.indices.size() / 3 <= size_t(kProxyTriangles) || m.verts.size() >= (1u << 21)) {
        m.proxyCount = 0;
        return;
    }
    const std::vector<int> proxy = clusterProxy(m.verts, m.indices, m.bounds);
    if (!m.proxyVao) {
        f->glGenVertexArrays(1, &m.proxyVao);
        f->glGenBuffers(1, &m.proxyIbo);
    }
    f->glBindVertexArray(m.proxyVao);
    f->glBindBuffer(GL_ARRAY_BUFFER, m.vbo);
    f->glEnableVertexAttribArray(0);
    f->glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, sizeof(Point3), nullptr);
    f->glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m.proxyIbo);
    f->glBufferData(GL_ELEMENT_ARRAY_BUFFER, proxy.size() * sizeof(int), proxy.data(),
                    GL_STATIC_DRAW);
    f->glBindVertexArray(0);
    m.proxyCount = GLsizei(proxy.size());
}

void Viewport::setMoving(bool moving) {
    if (moving_ == moving) return;
    moving_ = moving;
    // Full detail once the view settles.
    if (!moving) update();
}

void Viewport::settleLater() {
    setMoving(true);
    settle_.start(kSettleMs);
}

// ---- Drawing ----

void Viewport::initializeGL() {
    const QSurfaceFormat fmt = context()->format();
    if (fmt.version() < qMakePair(3, 3) || fmt.profile() != QSurfaceFormat::CoreProfile) {
        glError_ = tr("OpenGL 3.3 core is not available (got %1.%2)")
                       .arg(fmt.majorVersion())
                       .arg(fmt.minorVersion());
        return;
    }
    auto gl = std::make_unique<GlResources>();
    gl->f = QOpenGLVersionFunctionsFactory::get<QOpenGLFunctions_3_3_Core>(context());
    if (!gl->f || !gl->f->initializeOpenGLFunctions()) {
        glError_ = tr("OpenGL 3.3 core functions could not be resolved");
        return;
    }
    const auto build = [this](QOpenGLShaderProgram& p, const char* vs, const char* fs) {
        if (p.addShaderFromSourceCode(QOpenGLShader::Vertex, vs) &&
            p.addShaderFromSourceCode(QOpenGLShader::Fragment, fs) && p.link())
            return true;
        glError_ = tr("Viewport shader failed: %1").arg(p.log());
        return false;
    };
    if (!build(gl->mesh, kMeshVertex, kMeshFragment) ||
        !build(gl->batch, kBatchVertex, kBatchFragment))
        return;
    gl->f->glGenVertexArrays(1, &gl->batchVao);
    gl->f->glGenBuffers(1, &gl->batchVbo);
    gl->f->glBindVertexArray(gl->batchVao);
    gl->f->glBindBuffer(GL_ARRAY_BUFFER, gl->batchVbo);
    gl->f->glEnableVertexAttribArray(0);
    gl->f->glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, sizeof(BatchWindow::Vertex), nullptr);
    gl->f->glEnableVertexAttribArray(1);
    gl->f->glVertexAttribPointer(1, 3, GL_FLOAT, GL_FALSE, sizeof(BatchWindow::Vertex),
                                 reinterpret_cast<void*>(3 * sizeof(float)));
    gl->f->glBindVertexArray(0);
    gl_ = std::move(gl);
    // The context may go before the widget (reparenting): its objects go with it.
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, [this] {
        meshes_.clear();
        gl_.reset();
    });
}

void Viewport::resizeGL(int, int) {}

void Viewport::drawGrid(const float* viewProj) {
    const mq::ViewCamera c = camera();
    BatchWindow grid;
    // The plane the view looks at: the ground, or the orthographic view's own.
    const Matrix3 axes = c.perspective ? Matrix3() : orthoFrame(int(view_) - int(View::Top));
    const Point3 u = axes.GetRow(0), v = axes.GetRow(1);
    const float scale = c.perspective ? distance_ * 0.1f : c.orthoHeight * 0.1f;
    const float step = std::pow(10.0f, std::floor(std::log10(std::max(scale, 1e-4f))));
    const Point3 focus = c.perspective ? pivot_ : c.viewToWorld.GetTrans();
    const int lines =
        c.perspective ? 60 : int(std::ceil(c.orthoHeight * c.width / c.height / step)) + 12;
    const float cu = std::round(DotProd(focus, u) / (10 * step)) * 10 * step;
    const float cv = std::round(DotProd(focus, v) / (10 * step)) * 10 * step;
    const float reach = lines * step;
    const Point3 bg{kBackground[0], kBackground[1], kBackground[2]};
    for (int i = -lines; i <= lines; ++i) {
        const float a = cu + i * step, b = cv + i * step;
        const bool majorA = std::lround(a / step) % 10 == 0,
                   majorB = std::lround(b / step) % 10 == 0;
        // The world axes in muted red (x) and green (y), as the tracer's world is z up.
        const auto colour = [&](bool major, bool axis, const Point3& axisColour) {
            if (axis) return axisColour;
            return bg + Point3(1, 1, 1) * (major ? 0.09f : 0.04f);
        };
        const Point3 ua[2] = {u * a + v * (cv - reach), u * a + v * (cv + reach)};
        grid.setColor(colour(majorA, std::abs(a) < step * 0.5f,
                             Point3(0.32f, 0.44f, 0.30f) * (c.perspective ? 1.0f : 0.9f)));
        grid.segments(ua, 2);
        const Point3 vb[2] = {u * (cu - reach) + v * b, u * (cu + reach) + v * b};
        grid.setColor(colour(majorB, std::abs(b) < step * 0.5f, Point3(0.50f, 0.30f, 0.28f)));
        grid.segments(vb, 2);
    }
    auto* f = gl_->f;
    f->glDepthMask(GL_FALSE);
    gl_->batch.bind();
    gl_->batch.setUniformValue("fade", c.perspective ? distance_ * 4.0f : 0.0f);
    drawBatch(grid, viewProj);
    gl_->batch.setUniformValue("fade", 0.0f);
    f->glDepthMask(GL_TRUE);
}

void Viewport::drawBatch(const BatchWindow& batch, const float* viewProj) {
    auto* f = gl_->f;
    QOpenGLShaderProgram& p = gl_->batch;
    p.bind();
    p.setUniformValue("viewProj", QMatrix4x4(viewProj).transposed());
    const Point3 eye = camera().eye();
    p.setUniformValue("eye", QVector3D(eye.x, eye.y, eye.z));
    p.setUniformValue("background", QVector3D(kBackground[0], kBackground[1], kBackground[2]));
    f->glBindVertexArray(gl_->batchVao);
    f->glBindBuffer(GL_ARRAY_BUFFER, gl_->batchVbo);
    const auto draw = [&](const std::vector<BatchWindow::Vertex>& v, GLenum mode) {
        if (v.empty()) return;
        f->glBufferData(GL_ARRAY_BUFFER, v.size() * sizeof(v[0]), v.data(), GL_STREAM_DRAW);
        f->glDrawArrays(mode, 0, GLsizei(v.size()));
    };
    p.setUniformValue("lit", 1);
    draw(batch.tris(), GL_TRIANGLES);
    p.setUniformValue("lit", 0);
    draw(batch.lines(), GL_LINES);
    if (!batch.dots().empty()) {
        const auto& d = batch.dots();
        f->glBufferData(GL_ARRAY_BUFFER, d.size() * sizeof(d[0]), d.data(), GL_STREAM_DRAW);
        for (const BatchWindow::PointRun& run : batch.pointRuns()) {
            f->glPointSize(std::max(run.size, 1.0f));
            f->glDrawArrays(GL_POINTS, run.first, run.count);
        }
    }
    f->glBindVertexArray(0);
}

void Viewport::paintGL() {
    if (!gl_) return;
    QElapsedTimer timer;
    timer.start();
    auto* f = gl_->f;
    updateMeshes();
    const mq::ViewCamera cam = camera();
    const mq::TimeValue t = ip_.GetTime();
    f->glViewport(0, 0, GLsizei(width() * devicePixelRatioF()),
                  GLsizei(height() * devicePixelRatioF()));
    f->glClearColor(kBackground[0], kBackground[1], kBackground[2], 1);
    f->glClearStencil(0);
    f->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT | GL_STENCIL_BUFFER_BIT);
    f->glEnable(GL_DEPTH_TEST);
    f->glDepthFunc(GL_LEQUAL);
    float view[16], proj[16], viewProj[16];
    cam.viewMatrix(view);
    cam.projectionMatrix(proj);
    mul4(proj, view, viewProj);
    drawGrid(viewProj);

    QOpenGLShaderProgram& p = gl_->mesh;
    p.bind();
    p.setUniformValue("viewProj", QMatrix4x4(viewProj).transposed());
    const Point3 eye = cam.eye(), dir = -cam.viewToWorld.GetRow(2);
    p.setUniformValue("eye", QVector3D(eye.x, eye.y, eye.z));
    p.setUniformValue("viewDir", QVector3D(dir.x, dir.y, dir.z));
    p.setUniformValue("perspective", cam.perspective ? 1 : 0);
    Box3 selectionBox;
    const auto colour = [&](const Point3& c) {
        p.setUniformValue("color", QVector3D(c.x, c.y, c.z));
    };
    for (auto& [node, m] : meshes_) {
        float model[16];
        toGL(node->GetObjectTM(t), model);
        p.setUniformValue("model", QMatrix4x4(model).transposed());
        const bool coarse = moving_ && m->proxyCount > 0;
        f->glBindVertexArray(coarse ? m->proxyVao : m->vao);
        const GLsizei count = coarse ? m->proxyCount : GLsizei(m->indices.size());
        const bool selected = node == selected_;
        if (shading_ == Shading::Wireframe) {
            f->glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
            p.setUniformValue("solid", 1);
            colour(selected ? kSelected : kWire);
            f->glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
            f->glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
            continue;
        }
        // The selection marks its pixels in the stencil, for its outline.
        if (selected) {
            f->glEnable(GL_STENCIL_TEST);
            f->glStencilFunc(GL_ALWAYS, 1, 0xff);
            f->glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
        }
        p.setUniformValue("solid", 0);
        colour(kClay);
        f->glEnable(GL_POLYGON_OFFSET_FILL);
        f->glPolygonOffset(1, 1);
        f->glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
        f->glDisable(GL_POLYGON_OFFSET_FILL);
        f->glDisable(GL_STENCIL_TEST);
        if (shading_ == Shading::EdgedFaces || selected) {
            f->glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
            p.setUniformValue("solid", 1);
            colour(selected && shading_ == Shading::EdgedFaces ? kSelected * 0.8f
                                                               : Point3(0.1f, 0.1f, 0.1f));
            if (shading_ == Shading::EdgedFaces)
                f->glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
            if (selected && count / 3 > kOutlineTriangles) {
                // Too many triangles to rasterise again as lines each frame: its box instead.
                selectionBox = worldBounds(node);
            } else if (selected) {
                // Lines outside the marked pixels: a bright silhouette.
                f->glEnable(GL_STENCIL_TEST);
                f->glStencilFunc(GL_NOTEQUAL, 1, 0xff);
                f->glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
                f->glDisable(GL_DEPTH_TEST);
                f->glLineWidth(3.0f);
                colour(kSelected);
                f->glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
                f->glLineWidth(1.0f);
                f->glEnable(GL_DEPTH_TEST);
                f->glDisable(GL_STENCIL_TEST);
            }
            f->glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
        }
    }
    f->glBindVertexArray(0);

    // Objects that draw themselves, then the command mode's gizmo.
    batch_->clear();
    if (!selectionBox.IsEmpty()) {
        const Box3& b = selectionBox;
        Point3 edges[24];
        int k = 0;
        for (int i = 0; i < 8; ++i)
            for (int axis = 0; axis < 3; ++axis)
                if (!(i & (1 << axis))) {
                    const int j = i | (1 << axis);
                    for (int c : {i, j})
                        edges[k++] =
                            Point3(c & 1 ? b.pmax.x : b.pmin.x, c & 2 ? b.pmax.y : b.pmin.y,
                                   c & 4 ? b.pmax.z : b.pmin.z);
                }
        batch_->setColor(kSelected);
        batch_->segments(edges, 24);
    }
    mq::CameraViewExp vpt(cam, *batch_);
    for (mq::Node* node : ip_.scene().allNodes()) {
        mq::Object* obj = node->GetObjectRef();
        if (!obj || !obj->hasOwnDisplay()) continue;
        batch_->setTransform(Matrix3());
        obj->Display(t, node, vpt, node == selected_ ? mq::DISP_SELECTED : 0);
    }
    if (mq::CommandMode* mode = ip_.GetCommandMode())
        if (mq::MouseCallBack* proc = mode->MouseProc()) {
            batch_->setTransform(Matrix3());
            proc->display(vpt);
        }
    if (!batch_->empty()) drawBatch(*batch_, viewProj);
    if (timing_) f->glFinish();
    lastFrameMs_ = timer.nsecsElapsed() * 1e-6;
    ++frames_;
}

double Viewport::drawNow() {
    timing_ = true;
    makeCurrent();
    paintGL();
    doneCurrent();
    timing_ = false;
    return lastFrameMs_;
}

// ---- Picking ----

mq::Node* Viewport::pick(int x, int y) {
    const mq::ViewCamera cam = camera();
    const mq::TimeValue t = ip_.GetTime();
    const mq::HitRegion region{x, y, 4};
    mq::HitTestWindow hw(cam);
    hw.setHitRegion(&region);
    mq::CameraViewExp vpt(cam, hw);
    mq::Node* best = nullptr;
    float nearest = 1e30f;
    for (mq::Node* node : ip_.scene().allNodes()) {
        mq::Object* obj = node->GetObjectRef();
        if (!obj) continue;
        hw.clearHitCode();
        hw.setTransform(Matrix3());
        if (obj->hasOwnDisplay()) {
            if (!obj->HitTest(t, node, 0, vpt)) continue;
        } else {
            const auto it = meshes_.find(node);
            if (it == meshes_.end() || it->second->obj != obj) continue;
            const GpuMesh& m = *it->second;
            // Whole meshes off the cursor are passed over by their projected bounds.
            const Box3 box = worldBounds(node);
            if (box.IsEmpty()) continue;
            float lo[2] = {1e30f, 1e30f}, hi[2] = {-1e30f, -1e30f};
            bool behind = false;
            for (int i = 0; i < 8 && !behind; ++i) {
                float sx, sy;
                behind = !cam.project(
                    Point3(i & 1 ? box.pmax.x : box.pmin.x, i & 2 ? box.pmax.y : box.pmin.y,
                           i & 4 ? box.pmax.z : box.pmin.z),
                    sx, sy);
                lo[0] = std::min(lo[0], sx), hi[0] = std::max(hi[0], sx);
                lo[1] = std::min(lo[1], sy), hi[1] = std::max(hi[1], sy);
            }
            const float r = float(region.radius);
            if (!behind && (x + r < lo[0] || x - r > hi[0] || y + r < lo[1] || y - r > hi[1]))
                continue;
            hw.setTransform(node->GetObjectTM(t));
            hw.triangles(m.verts.data(), int(m.verts.size()), m.indices.data(),
                         int(m.indices.size() / 3));
        }
        if (hw.checkHitCode() && hw.hitDistance() < nearest) {
            nearest = hw.hitDistance();
            best = node;
        }
    }
    return best;
}

// ---- Mouse ----

int Viewport::mouseFlags(Qt::KeyboardModifiers mods) const {
    return (mods & Qt::ShiftModifier ? mq::MOUSE_SHIFT : 0) |
           (mods & Qt::ControlModifier ? mq::MOUSE_CTRL : 0) |
           (mods & Qt::AltModifier ? mq::MOUSE_ALT : 0);
}

void Viewport::sendModeMouse(mq::MouseMsg msg, int point, QMouseEvent* event) {
    mq::CommandMode* mode = ip_.GetCommandMode();
    mq::MouseCallBack* proc = mode ? mode->MouseProc() : nullptr;
    if (!proc) return;
    const mq::ViewCamera cam = camera();
    mq::HitTestWindow hw(cam);
    mq::CameraViewExp vpt(cam, hw);
    const QPoint at = event ? event->position().toPoint() : mapFromGlobal(QCursor::pos());
    const int flags = event ? mouseFlags(event->modifiers()) : 0;
    if (!proc->proc(vpt, msg, point, flags, {at.x(), at.y()})) ip_.SetCommandMode(nullptr);
    update();
}

void Viewport::mousePressEvent(QMouseEvent* event) {
    pressAt_ = lastAt_ = event->position().toPoint();
    const Qt::MouseButton b = event->button();
    const bool alt = event->modifiers() & Qt::AltModifier;
    mq::CommandMode* mode = ip_.GetCommandMode();
    const bool modeMouse = mode && mode->MouseProc();
    if (alt && b == Qt::LeftButton) {
        drag_ = Drag::Orbit;
        setMoving(true);
        orbitCentre_ = pivot_;
        if (selected_) {
            const Box3 box = worldBounds(selected_);
            if (!box.IsEmpty()) orbitCentre_ = box.Center();
        }
    } else if (b == Qt::MiddleButton) {
        drag_ = Drag::Pan;
        setMoving(true);
    } else if (alt && b == Qt::RightButton) {
        drag_ = Drag::Dolly;
        setMoving(true);
    } else if (creating()) {
        if (b == Qt::RightButton) {
            creatingNode_ ? endCreate(false) : cancelCreate();
        } else if (b == Qt::LeftButton) {
            drag_ = Drag::Create;
            createMouse(mq::MouseMsg::Point, event);
        }
    } else if (modeMouse) {
        if (b == Qt::RightButton) {
            sendModeMouse(mq::MouseMsg::Abort, 0, event);
        } else if (b == Qt::LeftButton) {
            drag_ = Drag::Mode;
            sendModeMouse(mq::MouseMsg::Point, 0, event);
        }
    } else if (b == Qt::LeftButton) {
        drag_ = Drag::Click;
    }
    event->accept();
}

void Viewport::mouseMoveEvent(QMouseEvent* event) {
    const QPoint at = event->position().toPoint();
    const QPoint d = at - lastAt_;
    lastAt_ = at;
    switch (drag_) {
        case Drag::Orbit:
            orbit(d.x(), d.y());
            break;
        case Drag::Pan:
            pan(d.x(), d.y());
            break;
        case Drag::Dolly:
            dolly(d.x() - d.y());
            break;
        case Drag::Mode:
            sendModeMouse(mq::MouseMsg::Move, 1, event);
            break;
        case Drag::Create:
            createMouse(mq::MouseMsg::Move, event);
            break;
        case Drag::None:
            if (creatingNode_)
                createMouse(mq::MouseMsg::FreeMove, event);
            else if (!creating())
                sendModeMouse(mq::MouseMsg::FreeMove, 0, event);
            break;
        case Drag::Click:
            break;
    }
}

void Viewport::mouseReleaseEvent(QMouseEvent* event) {
    const Drag was = drag_;
    drag_ = Drag::None;
    if (was == Drag::Orbit || was == Drag::Pan || was == Drag::Dolly) setMoving(false);
    const QPoint at = event->position().toPoint();
    if (was == Drag::Click) {
        if ((at - pressAt_).manhattanLength() <= kClickSlop) emit nodeClicked(pick(at.x(), at.y()));
    } else if (was == Drag::Mode) {
        sendModeMouse(mq::MouseMsg::Point, 1, event);
    } else if (was == Drag::Create) {
        createMouse(mq::MouseMsg::Point, event);
    }
}

void Viewport::wheelEvent(QWheelEvent* event) {
    const QPointF at = event->position();
    settleLater();
    zoomAt(float(at.x()), float(at.y()), event->angleDelta().y() / 120.0f);
    event->accept();
}

void Viewport::keyPressEvent(QKeyEvent* event) {
    if (event->key() != Qt::Key_Escape) return QOpenGLWidget::keyPressEvent(event);
    if (creating())
        creatingNode_ ? endCreate(false) : cancelCreate();
    else
        sendModeMouse(mq::MouseMsg::Abort, 0, nullptr);
}

// ---- Creation ----

void Viewport::beginCreate(std::function<mq::Node*()> make, const QString& step) {
    if (creatingNode_) endCreate(false);
    make_ = std::move(make);
    createStep_ = step;
    emit prompt(tr("Click in the viewport to place it; right click or Escape cancels"));
}

void Viewport::cancelCreate() {
    if (creatingNode_) endCreate(false);
    make_ = nullptr;
    emit prompt(tr("Creation cancelled"));
}

void Viewport::createMouse(mq::MouseMsg msg, QMouseEvent* event) {
    const mq::ViewCamera cam = camera();
    mq::HitTestWindow hw(cam);
    mq::CameraViewExp vpt(cam, hw);
    const QPoint at = event->position().toPoint();
    const mq::TimeValue t = ip_.GetTime();
    const bool press = event->type() == QEvent::MouseButtonPress;
    if (!creatingNode_) {
        if (!press) return;
        // The node exists from the first press, inside a hold the end of
        // the creation accepts or cancels.
        mq::theHold.Begin();
        creatingNode_ = make_();
        if (!creatingNode_) {
            mq::theHold.Cancel();
            return;
        }
        Point3 p;
        if (!vpt.mapScreenToConstructionPlane(at.x(), at.y(), p)) p = Point3();
        createTM_ = mq::TransMatrix(p);
        creatingNode_->SetNodeTM(t, createTM_);
        createCallback_ = creatingNode_->GetObjectRef()->GetCreateMouseCallBack();
        createPoint_ = 0;
        if (!createCallback_) return endCreate(true);
    }
    int point = createPoint_;
    if (msg == mq::MouseMsg::Move) point = 1;
    const int result = createCallback_->proc(vpt, msg, point, mouseFlags(event->modifiers()),
                                             {at.x(), at.y()}, createTM_);
    if (creatingNode_) creatingNode_->SetNodeTM(t, createTM_);
    if (msg == mq::MouseMsg::Point) ++createPoint_;
    update();
    if (result == mq::CREATE_STOP)
        endCreate(true);
    else if (result == mq::CREATE_ABORT) {
        createCallback_ = nullptr;  // it aborted itself
        endCreate(false);
    }
}

void Viewport::endCreate(bool accept) {
    mq::Node* node = creatingNode_;
    if (!node) return;
    // Escape or a right click: the callback hears of it first.
    if (!accept && createCallback_) {
        const mq::ViewCamera cam = camera();
        mq::HitTestWindow hw(cam);
        mq::CameraViewExp vpt(cam, hw);
        const QPoint at = mapFromGlobal(QCursor::pos());
        createCallback_->proc(vpt, mq::MouseMsg::Abort, createPoint_, 0, {at.x(), at.y()},
                              createTM_);
    }
    creatingNode_ = nullptr;
    createCallback_ = nullptr;
    drag_ = Drag::None;
    if (accept) {
        mq::theHold.Accept(createStep_.toStdString());
    } else {
        // The hold's undo takes the node out of the scene again.
        mq::theHold.Cancel();
        node = nullptr;
    }
    update();
    emit created(node);
}

}  // namespace mosaiq::studio
