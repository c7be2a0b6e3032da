// The renderer end to end on tiny images: coverage against the analytic
// disc, the furnace, determinism across threads and crops, and output files.
#include "support/test_util.h"
#include "tracer/tracer_scenes.h"

#include <gtest/gtest.h>

#include <cstring>

namespace mq::test {
namespace {

constexpr float kPiF = 3.14159265f;

RenderSettings tiny(int size, int spp, int threads = 1) {
    RenderSettings s = small(size, spp, threads);
    s.seed = 7;
    return s;
}

// A sphere over a floor with the default lights, plus the analytic sphere.
void busyScene(Scene& scene, RayLog& log) {
    addNode(scene.root(), "Sphere", new TriObject(makeSphereMesh(1.0f, 24)));
    addNode(scene.root(), "Floor", new TriObject(makePlaneMesh(10, 10, 1, 1)),
            TransMatrix({0, 0, -1}));
    addNode(scene.root(), "Analytic", new AnalyticSphereObject({1.6f, 0.5f, -0.5f}, 0.5f, log));
}

bool samePixels(const Image& a, const Image& b) {
    return a.width == b.width && a.height == b.height && a.rgba == b.rgba && a.normal == b.normal &&
           a.depth == b.depth && a.objectId == b.objectId;
}

TEST(TracerRender, SphereCoversTheAnalyticDisc) {
    Scene scene;
    addNode(scene.root(), "Sphere", new TriObject(makeSphereMesh(1.0f, 96)));
    const float distance = 5.0f, fov = 40.0f;
    frontCamera(scene, distance, fov);
    const int size = 32;
    const Image img = renderImage(scene, tiny(size, 8, 1));

    // Radius of the silhouette on the image plane, in pixels.
    const float tanAlpha = std::tan(std::asin(1.0f / distance));
    const float radiusPx = tanAlpha / std::tan(0.5f * fov * kPiF / 180.0f) * 0.5f * size;
    double covered = 0.0, cx = 0.0, cy = 0.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const float a = img.pixel(x, y)[3];
            covered += a;
            cx += a * (x + 0.5);
            cy += a * (y + 0.5);
        }
    }
    EXPECT_NEAR(covered, kPiF * radiusPx * radiusPx, 0.03 * kPiF * radiusPx * radiusPx);
    EXPECT_NEAR(cx / covered, 0.5 * size, 0.25);
    EXPECT_NEAR(cy / covered, 0.5 * size, 0.25);
    EXPECT_EQ(img.pixel(size / 2, size / 2)[3], 1.0f);
    EXPECT_EQ(img.pixel(0, 0)[3], 0.0f);
    // The passes see the same disc: object 1 at the centre, depth d - r, normal towards the camera.
    const size_t centre = size_t(size / 2) * size + size / 2;
    EXPECT_EQ(img.objectId[centre], 1.0f);
    EXPECT_EQ(img.objectId[0], 0.0f);
    EXPECT_NEAR(img.depth[centre], distance - 1.0f, 0.05f);
    EXPECT_LT(img.normal[3 * centre + 1], -0.95f);
}

TEST(TracerRender, WhiteDiffuseSphereInWhiteDomeIsWhite) {
    Scene scene;
    addNode(scene.root(), "Ball", new TriObject(makeSphereMesh(1.0f, 32)))->setMaterial("white");
    scene.materials = {{"white", {{"baseColor", {1, 1, 1}}, {"specular", 0.0}, {"metallic", 0.0}}}};
    scene.lights = nlohmann::json::array({{{"type", "dome"}, {"color", {1, 1, 1}}}});
    const Image img = renderImage(scene, tiny(16, 32, 2));
    double sum = 0.0;
    int onBall = 0;
    for (size_t i = 0; i < img.objectId.size(); ++i) {
        if (img.objectId[i] != 1.0f) continue;
        ++onBall;
        for (int c = 0; c < 3; ++c) sum += img.rgba[4 * i + c];
    }
    ASSERT_GT(onBall, 50);
    EXPECT_NEAR(sum / (3.0 * onBall), 1.0, 0.03);
}

TEST(TracerRender, ImagesDoNotDependOnThreadsOrCrop) {
    RayLog log;
    Scene scene;
    busyScene(scene, log);
    const Image one = renderImage(scene, tiny(40, 2, 1));
    const Image two = renderImage(scene, tiny(40, 2, 2));
    EXPECT_TRUE(samePixels(one, two));
    EXPECT_EQ(renderImage(scene, tiny(40, 2, 2)).rgba, two.rgba);

    RenderSettings cropped = tiny(40, 2, 2);
    cropped.crop = CropRegion{5, 27, 3, 21};
    const Image part = renderImage(scene, cropped);
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 40; ++x) {
            const bool inside = x >= 5 && x < 27 && y >= 3 && y < 21;
            const float* p = part.pixel(x, y);
            const float* q = one.pixel(x, y);
            if (inside) {
                ASSERT_EQ(0, std::memcmp(p, q, 4 * sizeof(float))) << x << "," << y;
            } else {
                ASSERT_EQ(p[0] + p[1] + p[2] + p[3], 0.0f) << x << "," << y;
            }
        }
    }
    // Something was actually drawn, lit and not all the same.
    float lo = 1e9f, hi = -1e9f;
    for (size_t i = 0; i < one.rgba.size(); i += 4) {
        lo = std::min(lo, one.rgba[i]);
        hi = std::max(hi, one.rgba[i]);
    }
    EXPECT_GT(hi - lo, 0.1f);
}

// Passes that meet end to end add up to the one-shot render bit for bit, in
// a crop too; the preview only fills blocks inside the crop; cancel stops both.
TEST(TracerRender, PassesAddUpToTheFullRenderAndCancelStops) {
    RayLog log;
    Scene scene;
    busyScene(scene, log);
    RenderSettings s = tiny(40, 5, 2);
    const Image full = renderImage(scene, s);
    s.crop = CropRegion{5, 27, 3, 21};
    const Image fullCrop = renderImage(scene, s);
    std::vector<int> counts;
    Renderer r(scene, s);
    ASSERT_TRUE(r.renderPasses(0, {1, 2, 5}, 4, [&](const Image& img, int done) {
        counts.push_back(done);
        if (done == 0) {
            EXPECT_EQ(0, std::memcmp(img.pixel(26, 20), img.pixel(24, 20), 4 * sizeof(float)));
            EXPECT_EQ(img.pixel(4, 3)[3] + img.pixel(27, 3)[3], 0.0f);
        }
        if (done == 5) {
            EXPECT_EQ(img.rgba, fullCrop.rgba);
        }
    }));
    EXPECT_EQ(counts, (std::vector<int>{0, 1, 2, 5}));
    s.crop.reset();
    Renderer whole(scene, s);
    whole.renderPasses(0, {3, 5}, 1, [&](const Image& img, int done) {
        if (done == 5) {
            EXPECT_EQ(img.rgba, full.rgba);
        }
    });

    Renderer stopped(scene, s);
    stopped.cancel();
    EXPECT_FALSE(stopped.renderPasses(0, {1}, 4, [](const Image&, int) { ADD_FAILURE(); }));
    Renderer stoppedFrame(scene, s);
    stoppedFrame.cancel();
    EXPECT_THROW(stoppedFrame.renderFrame(0), RenderCancelled);
}

TEST(TracerRender, SettingsAndSceneErrorsNameThePlaceAndTheValue) {
    EXPECT_THROW(RenderSettings::fromJson({{"width", 0}}), RenderError);
    const std::string spp = messageOf<RenderError>([] {
        RenderSettings::fromJson({{"spp", "many"}});
    });
    EXPECT_NE(spp.find("/render/spp"), std::string::npos) << spp;

    // Each fault is refused by checkRenderData, and by the render itself with
    // the same message.
    using json = nlohmann::json;
    const struct {
        const char* section;
        json value;
        std::string message;
    } cases[] = {
        {"lights", json::array({{{"type", "sun"}, {"color", {1, 1, -2147483648LL}}}}),
         "/lights/0/color/2: expected a finite number >= 0, found -2147483648"},
        {"lights", json::array({{{"type", "dome"}, {"intensity", -1}}}),
         "/lights/0/intensity: expected a finite number >= 0, found -1"},
        {"lights", json::array({{{"type", "point"}, {"color", {1e39, 0, 0}}}}),
         "/lights/0/color/0: 1e+39 is beyond single precision"},
        {"lights", json::array({{{"type", "sphere"}, {"radius", 1e-6}, {"intensity", 1e30}}}),
         "/lights/0/intensity: the light's radiance is beyond single precision"},
        {"lights", json::array({{{"type", "laser"}}}),
         "/lights/0/type: unknown light type \"laser\""},
        {"materials",
         {{"m", {{"emission", {0, -0.5, 0}}}}},
         "/materials/m/emission/1: expected a finite number >= 0, found -0.5"},
        {"materials",
         {{"m", {{"baseColor", {0.5, "red", 0}}}}},
         "/materials/m/baseColor/1: expected a number, found \"red\""},
        {"materials",
         {{"m", {{"roughness", -0.5}}}},
         "/materials/m/roughness: expected a number in [0, 1], found -0.5"},
        {"camera", {{"fov", 0}}, "/camera/fov: expected a number in [0.1, 179], found 0"},
        {"camera",
         {{"position", {3e38, 0, 0}}, {"target", {-3e38, 0, 0}}},
         "/camera: position, target and up do not define a view"},
        {"render", {{"width", 0}}, "/render/width: expected an integer in [1, 65536], found 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Scene scene;
        addNode(scene.root(), "Ball", new TriObject(makeSphereMesh(1.0f, 8)));
        json* section = c.section == std::string("lights")      ? &scene.lights
                        : c.section == std::string("materials") ? &scene.materials
                        : c.section == std::string("camera")    ? &scene.camera
                                                                : &scene.render;
        *section = c.value;
        EXPECT_EQ(messageOf<InputError>([&] { checkRenderData(scene); }), c.message);
        // The render takes its settings apart from the scene's section.
        if (section != &scene.render) {
            EXPECT_EQ(messageOf<InputError>([&] { renderImage(scene, tiny(4, 1, 1)); }), c.message);
        }
    }
}

TEST(TracerRender, UnknownKeysWarnWithTheNearestKnownOne) {
    Scene scene;
    addNode(scene.root(), "Ball", new TriObject(makeSphereMesh(1.0f, 8)))->setMaterial("gold");
    scene.render = {{"exposur", 1}, {"tonemap", "linear"}, {"clamp", 0}};
    scene.camera = {{"fov", 30}, {"positon", {0, -5, 0}}};
    scene.lights = nlohmann::json::array({{{"type", "sun"}, {"intensty", 2}, {"radius", 1}}});
    scene.materials = {{"gold", {{"roughnes", 0.3}, {"metallic", 1}}}};
    const std::vector<std::string> expected = {
        "/render/exposur: unknown key (did you mean \"exposure\"?)",
        "/materials/gold/roughnes: unknown key (did you mean \"roughness\"?)",
        "/lights/0/intensty: unknown key (did you mean \"intensity\"?)",
        "/lights/0/radius: ignored; a \"sun\" light has no \"radius\" (a \"sphere\" light has)",
        "/camera/positon: unknown key (did you mean \"position\"?)"};
    std::vector<std::string> warned;
    checkRenderData(scene, [&](const std::string& w) { warned.push_back(w); });
    EXPECT_EQ(warned, expected);

    // The render warns of the same, but for the settings it is handed.
    warned.clear();
    Renderer r(scene, tiny(4, 1, 1));
    r.setWarningSink([&](const std::string& w) { warned.push_back(w); });
    r.renderFrame(0);
    EXPECT_EQ(warned, std::vector<std::string>(expected.begin() + 1, expected.end()));

    const std::string curve = messageOf<RenderError>([] {
        RenderSettings::fromJson({{"tonemap", "filmc"}});
    });
    EXPECT_EQ(curve,
              "/render/tonemap: expected \"filmic\" or \"linear\", found \"filmc\" (did "
              "you mean \"filmic\"?)");
}

// Without a camera, the object fills the frame wherever it stands.
TEST(TracerRender, DefaultCameraFitsTheObjectToTheFrame) {
    Scene scene;
    addNode(scene.root(), "Slab", new TriObject(makePlaneMesh(6, 2, 1, 1)),
            TransMatrix({40, -25, 7}));
    RenderSettings s = tiny(64, 1, 1);
    s.height = 48;
    const Image img = renderImage(scene, s);
    int x0 = s.width, x1 = -1, y0 = s.height, y1 = -1;
    for (int y = 0; y < s.height; ++y) {
        for (int x = 0; x < s.width; ++x) {
            if (img.pixel(x, y)[3] == 0.0f) continue;
            x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
        }
    }
    EXPECT_GT(x0, 0);
    EXPECT_GT(y0, 0);
    EXPECT_LT(x1, s.width - 1);
    EXPECT_LT(y1, s.height - 1);
    EXPECT_TRUE(x1 - x0 > 0.75 * s.width || y1 - y0 > 0.75 * s.height)
        << x0 << ".." << x1 << " x " << y0 << ".." << y1;
}

bool startsWith(const std::string& data, const std::string& magic) {
    return data.compare(0, magic.size(), magic) == 0;
}

size_t entries(const fs::path& dir) {
    return size_t(std::distance(fs::directory_iterator(dir), fs::directory_iterator()));
}

TEST(TracerOutput, WritesFormatsAndNeverLeavesHalfFiles) {
    TempDir dir;
    Image img(4, 3);
    for (size_t i = 0; i < img.rgba.size(); ++i) img.rgba[i] = float(i % 5) * 0.25f;

    writeImage(dir / "a.png", img);
    writeImage(dir / "a.exr", img, {{"mosaiq:seed", "7"}});
    writeImage(dir / "a.jpg", img);
    EXPECT_TRUE(startsWith(readText(dir / "a.png"), "\x89PNG"));
    EXPECT_TRUE(startsWith(readText(dir / "a.exr"), std::string("\x76\x2f\x31\x01", 4)));
    EXPECT_TRUE(startsWith(readText(dir / "a.jpg"), "\xff\xd8"));
    EXPECT_EQ(entries(dir.path()), 3u);

    // Unknown format, missing folder, a folder in the way: an error, and
    // nothing under the final name or beside it.
    EXPECT_THROW(writeImage(dir / "b.tga2", img), RenderError);
    EXPECT_THROW(writeImage(dir / "missing" / "b.png", img), RenderError);
    fs::create_directory(dir / "c.png");
    writeText(dir / "c.png" / "keep", "x");
    EXPECT_THROW(writeImage(dir / "c.png", img), RenderError);
    EXPECT_TRUE(fs::is_directory(dir / "c.png"));
    EXPECT_FALSE(fs::exists(dir / "b.tga2"));
    EXPECT_EQ(entries(dir.path()), 4u);

    // A failed rewrite keeps the earlier file whole.
    const std::string before = readText(dir / "a.png");
    EXPECT_THROW(writeImage(dir / "a.png", Image()), RenderError);
    EXPECT_EQ(readText(dir / "a.png"), before);
}

}  // namespace
}  // namespace mq::test
