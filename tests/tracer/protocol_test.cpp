// The render-object protocol: call order, per-ray context reaching the
// callbacks, and a user primitive rendering the picture its mesh renders.
#include "support/test_util.h"
#include "tracer/tracer_scenes.h"

#include <gtest/gtest.h>

namespace mq::test {
namespace {

TEST(TracerProtocol, CallsComeInTheDocumentedOrder) {
    RayLog log;
    Scene scene;
    addNode(scene.root(), "Analytic", new AnalyticSphereObject({0, 0, 0}, 1.0f, log));
    {
        Renderer r(scene, small(8, 1, 2, 1));
        r.renderFrame(0);
        r.renderFrame(1);
    }  // the destructor ends the render
    const std::vector<std::string> frame = {
        "frameBegin", "instance.frameBegin", "instance.compileGeometry", "expand 0", "expand 1",
        "collapse 0", "collapse 1",          "instance.frameEnd",        "frameEnd"};
    std::vector<std::string> expected = {"init", "renderBegin", "newRenderInstance",
                                         "instance.renderBegin"};
    expected.insert(expected.end(), frame.begin(), frame.end());
    expected.insert(expected.end(), frame.begin(), frame.end());
    expected.insert(expected.end(), {"instance.renderEnd", "deleteRenderInstance", "renderEnd"});
    EXPECT_EQ(log.calls_, expected);
}

TEST(TracerProtocol, RayContextReachesTheCallbacks) {
    RayLog log;
    Scene scene;
    addNode(scene.root(), "Analytic", new AnalyticSphereObject({0, 0, 0}, 1.0f, log));
    addNode(scene.root(), "Floor", new TriObject(makePlaneMesh(12, 12, 1, 1)),
            TransMatrix({0, 0, -1}));
    frontCamera(scene, 6.0f, 50.0f);
    scene.lights = nlohmann::json::array({{{"type", "dome"}, {"color", {1, 1, 1}}}});
    const Image img = renderImage(scene, small(24, 2, 2, 3));

    EXPECT_GT(log.calls.load(), 500);
    EXPECT_EQ(log.badThread.load(), 0);
    EXPECT_EQ(log.zeroSequence.load(), 0);
    EXPECT_EQ(log.backwardSequence.load(), 0);
    // Every hit the tracer shaded was found again by (thread, level, sequence).
    EXPECT_EQ(log.lookupMisses.load(), 0);
    EXPECT_GT(log.byLevel[0].load(), 0);  // camera rays
    EXPECT_GT(log.byLevel[1].load(), 0);  // shadow and bounce rays from the floor
    EXPECT_GT(log.byLevel[2].load(), 0);
    // The sphere is in the picture as object 1.
    EXPECT_EQ(img.objectId[size_t(12) * 24 + 12], 1.0f);
}

TEST(TracerProtocol, UserPrimitiveRendersLikeItsMesh) {
    auto render = [](bool analytic) {
        RayLog log;
        Scene scene;
        if (analytic) {
            addNode(scene.root(), "Ball", new AnalyticSphereObject({0, 0, 0}, 1.0f, log));
        } else {
            addNode(scene.root(), "Ball", new TriObject(makeSphereMesh(1.0f, 128)));
        }
        frontCamera(scene, 4.0f, 45.0f);
        // Direct light only from a sun without a size: no noise from lighting.
        scene.lights = nlohmann::json::array({{{"type", "sun"},
                                               {"direction", {0.4, -1.0, 0.6}},
                                               {"angle", 0.0},
                                               {"intensity", 2.0}}});
        return renderImage(scene, small(32, 4, 2, 1));
    };
    const Image mesh = render(false), user = render(true);
    int differing = 0;
    double totalDiff = 0.0, lit = 0.0;
    for (size_t i = 0; i < mesh.rgba.size(); ++i) {
        const double d = std::fabs(mesh.rgba[i] - user.rgba[i]);
        totalDiff += d;
        lit += mesh.rgba[i];
        if (d > 0.05) ++differing;
    }
    EXPECT_GT(lit, 100.0);
    // Only the faceted silhouette may differ.
    EXPECT_LE(differing, int(0.02 * mesh.rgba.size()));
    EXPECT_LT(totalDiff / mesh.rgba.size(), 0.005);
    EXPECT_EQ(mesh.objectId, user.objectId);
}

}  // namespace
}  // namespace mq::test
