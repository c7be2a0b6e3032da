// The OpenGL viewport in the main window, under xvfb-run with Mesa's
// software OpenGL: picking by click (meshes and an object that draws
// itself), framing, creation by click and a command mode's drag.
#include "viewport/viewport.h"
#include "main_window.h"

#include "host/hold.h"
#include "host/plugins.h"

#include <QMouseEvent>
#include <QStandardPaths>
#include <QtTest>

#include <cmath>

using mosaiq::studio::MainWindow;
using mosaiq::studio::Viewport;

namespace {

// A cross of segments at its node, drawn and hit through the graphics window.
class Marker : public mq::GeomObject {
public:
    bool hasOwnDisplay() const override { return true; }
    int Display(mq::TimeValue t, mq::Node* node, mq::ViewExp& vpt, int flags) override {
        draw(t, node, vpt.getGW());
        return 1;
    }
    int HitTest(mq::TimeValue t, mq::Node* node, int, mq::ViewExp& vpt) override {
        draw(t, node, vpt.getGW());
        return vpt.getGW().checkHitCode();
    }
    mq::ClassId ClassID() const override { return {0x7e57, 1}; }
    std::string GetClassName() const override { return "Marker"; }
    mq::ReferenceTarget* Clone(mq::RemapDir&) override { return new Marker; }

private:
    void draw(mq::TimeValue t, mq::Node* node, mq::GraphicsWindow& gw) {
        gw.setTransform(node->GetNodeTM(t));
        const mq::Point3 cross[4] = {{-10, 0, 0}, {10, 0, 0}, {0, -10, 0}, {0, 10, 0}};
        gw.segments(cross, 4);
    }
};

// Records what the viewport sends it.
class RecordingMode : public mq::CommandMode, public mq::MouseCallBack {
public:
    const char* name() const override { return "Record"; }
    mq::MouseCallBack* MouseProc() override { return this; }
    bool proc(mq::ViewExp&, mq::MouseMsg msg, int point, int flags, mq::IPoint2) override {
        if (msg != mq::MouseMsg::FreeMove) log.push_back({msg, point, flags});
        return true;
    }
    struct Entry {
        mq::MouseMsg msg;
        int point, flags;
    };
    std::vector<Entry> log;
};

void send(QWidget* w, QEvent::Type type, QPoint at, Qt::MouseButton button,
          Qt::MouseButtons buttons, Qt::KeyboardModifiers mods = {}) {
    QMouseEvent e(type, at, w->mapToGlobal(at), button, buttons, mods);
    QApplication::sendEvent(w, &e);
}

void click(QWidget* w, QPoint at) {
    send(w, QEvent::MouseButtonPress, at, Qt::LeftButton, Qt::LeftButton);
    send(w, QEvent::MouseButtonRelease, at, Qt::LeftButton, Qt::NoButton);
}

QPoint pixelOf(Viewport& v, const mq::Point3& p) {
    float x, y;
    v.camera().project(p, x, y);
    return QPoint(int(std::lround(x)), int(std::lround(y)));
}

}  // namespace

class ViewportTest : public QObject {
    Q_OBJECT
private slots:
    void initTestCase() {
        QStandardPaths::setTestModeEnabled(true);
        mq::pluginManager().loadFolder(MOSAIQ_BIN_DIR);
    }

    void init() {
        host_ = std::make_unique<mq::HostInterface>();
        window_ = std::make_unique<MainWindow>(*host_);
        window_->reportError = [](const QString&, const QString& text) { QFAIL(qPrintable(text)); };
        window_->askToSave = [](const QString&) { return QMessageBox::Discard; };
        window_->show();
        QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
        view_ = window_->viewport();
        if (!view_) QSKIP("no OpenGL on this platform: run under xvfb-run or a display");
        view_->grabFramebuffer();  // makes the context
        if (!view_->glError().isEmpty())
            QSKIP(qPrintable("no OpenGL 3.3 core context: " + view_->glError()));
    }
    void cleanup() {
        window_.reset();
        host_.reset();
    }

    void clickPicksTheNearestNode() {
        auto marker = std::make_unique<mq::Node>("Marker");
        marker->SetObjectRef(new Marker);
        marker->SetNodeTM(0, mq::TransMatrix({45, 0, 0}));
        mq::Node* cross = host_->scene().root()->attachChild(std::move(marker));
        mq::Node* box = window_->createObject("Box");  // the outliner learns of both
        view_->setView(Viewport::View::Top);
        view_->frameAll();
        const QPoint centre(view_->width() / 2, view_->height() / 2);
        QWheelEvent out(centre, view_->mapToGlobal(centre), {}, QPoint(0, -600), Qt::NoButton, {},
                        Qt::NoScrollPhase, false);
        QApplication::sendEvent(view_, &out);
        view_->grabFramebuffer();  // meshes are uploaded on drawing

        click(view_, pixelOf(*view_, {0, 0, 25}));
        QCOMPARE(window_->selectedNode(), box);
        click(view_, pixelOf(*view_, {45, 8, 0}));  // on the cross's arm
        QCOMPARE(window_->selectedNode(), cross);
        click(view_, pixelOf(*view_, {32, -20, 0}));  // between them
        QCOMPARE(window_->selectedNode(), nullptr);
    }

    void frameSelectedCentresAndFills() {
        mq::Node* box = window_->createObject("Box");
        box->SetNodeTM(0, mq::TransMatrix({300, -120, 40}));
        window_->createObject("Sphere");
        window_->selectNodeByName(QString::fromStdString(box->GetName()));
        view_->grabFramebuffer();
        for (Viewport::View v : {Viewport::View::Perspective, Viewport::View::Front}) {
            view_->setView(v);
            view_->frameSelection();
            float lo[2] = {1e9f, 1e9f}, hi[2] = {-1e9f, -1e9f};
            const mq::Box3 ob = box->GetObjectRef()->objectBounds(0);
            for (int i = 0; i < 8; ++i) {
                const mq::Point3 c(i & 1 ? ob.pmax.x : ob.pmin.x, i & 2 ? ob.pmax.y : ob.pmin.y,
                                   i & 4 ? ob.pmax.z : ob.pmin.z);
                float x, y;
                QVERIFY(view_->camera().project(c * box->GetObjectTM(0), x, y));
                lo[0] = std::min(lo[0], x), hi[0] = std::max(hi[0], x);
                lo[1] = std::min(lo[1], y), hi[1] = std::max(hi[1], y);
            }
            const float w = view_->width(), h = view_->height();
            QVERIFY(std::abs((lo[0] + hi[0]) / 2 - w / 2) < 0.05f * w);
            QVERIFY(std::abs((lo[1] + hi[1]) / 2 - h / 2) < 0.05f * h);
            QVERIFY(hi[0] - lo[0] > 0.45f * w || hi[1] - lo[1] > 0.45f * h);
            QVERIFY(hi[0] - lo[0] <= w && hi[1] - lo[1] <= h);
        }
    }

    // While the view moves a heavy mesh draws a coarse stand-in that looks
    // like it; full detail comes back when it stops.
    void movingViewDrawsAStandIn() {
        mq::Mesh grid;
        const int n = 300;  // 180,000 triangles of a wavy sheet
        for (int j = 0; j <= n; ++j)
            for (int i = 0; i <= n; ++i)
                grid.verts.push_back({float(i), float(j), 8.0f * std::sin(i * 0.05f)});
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) {
                const uint32_t a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
                mq::Face f1, f2;
                f1.v[0] = a, f1.v[1] = b, f1.v[2] = d;
                f2.v[0] = a, f2.v[1] = d, f2.v[2] = c;
                grid.faces.push_back(f1);
                grid.faces.push_back(f2);
            }
        auto node = std::make_unique<mq::Node>("Sheet");
        node->SetObjectRef(new mq::TriObject(std::move(grid)));
        host_->scene().root()->attachChild(std::move(node));
        view_->frameAll();
        const QImage still = view_->grabFramebuffer();
        view_->setMoving(true);
        const QImage moving = view_->grabFramebuffer();
        view_->setMoving(false);
        QCOMPARE(moving.size(), still.size());
        QVERIFY2(moving != still, "the stand-in is drawn");
        double diff = 0;
        for (int y = 0; y < still.height(); ++y)
            for (int x = 0; x < still.width(); ++x)
                diff += std::abs(qGray(still.pixel(x, y)) - qGray(moving.pixel(x, y)));
        QVERIFY2(diff / (still.width() * still.height()) < 4.0, qPrintable(QString::number(diff)));
        QVERIFY(view_->grabFramebuffer() == still);
    }

    void createByClickAndCancel() {
        view_->setView(Viewport::View::Top);
        const size_t before = host_->scene().allNodes().size();
        window_->beginCreateByClick("Sphere");
        QVERIFY(view_->creating());
        const QPoint at(view_->width() / 4, view_->height() / 3);
        mq::Point3 expected;
        mq::HitTestWindow gw(view_->camera());
        QVERIFY(mq::CameraViewExp(view_->camera(), gw)
                    .mapScreenToConstructionPlane(at.x(), at.y(), expected));
        click(view_, at);
        QCOMPARE(host_->scene().allNodes().size(), before + 1);
        mq::Node* made = window_->selectedNode();
        QVERIFY(made && made->GetName().rfind("Sphere", 0) == 0);
        QVERIFY(mq::Length(made->GetNodeTM(0).GetTrans() - expected) < 1e-3f);
        QCOMPARE(mq::theHold.undoName(), std::string("Create Sphere"));
        // Escape leaves the mode; the next click selects again.
        QTest::keyClick(view_, Qt::Key_Escape);
        QVERIFY(!view_->creating());
        click(view_, QPoint(2, 2));
        QCOMPARE(host_->scene().allNodes().size(), before + 1);
    }

    void commandModeReceivesADrag() {
        RecordingMode mode;
        host_->AddCommandMode(&mode);
        host_->SetCommandMode(&mode);
        const QPoint a(100, 100), b(160, 130);
        send(view_, QEvent::MouseButtonPress, a, Qt::LeftButton, Qt::LeftButton, Qt::ShiftModifier);
        send(view_, QEvent::MouseMove, (a + b) / 2, Qt::NoButton, Qt::LeftButton);
        send(view_, QEvent::MouseMove, b, Qt::NoButton, Qt::LeftButton);
        send(view_, QEvent::MouseButtonRelease, b, Qt::LeftButton, Qt::NoButton);
        send(view_, QEvent::MouseButtonPress, b, Qt::RightButton, Qt::RightButton);
        using M = mq::MouseMsg;
        const std::vector<std::pair<M, int>> want = {
            {M::Point, 0}, {M::Move, 1}, {M::Move, 1}, {M::Point, 1}, {M::Abort, 0}};
        QCOMPARE(mode.log.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i) {
            QVERIFY(mode.log[i].msg == want[i].first);
            QCOMPARE(mode.log[i].point, want[i].second);
        }
        QCOMPARE(mode.log[0].flags, mq::MOUSE_SHIFT);
        host_->SetCommandMode(nullptr);
        host_->DeleteMode(&mode);
    }

private:
    std::unique_ptr<mq::HostInterface> host_;
    std::unique_ptr<MainWindow> window_;
    Viewport* view_ = nullptr;
};

QTEST_MAIN(ViewportTest)
#include "viewport_test.moc"
