// Image textures and the image dome: a textured quad seen through its map
// channels, the uv pass, loading errors, the lat-long mapping, and the dome's
// importance sampler against quadrature and uniform sampling.
#include "tracer/texture.h"
#include "support/test_util.h"
#include "tracer/shading.h"
#include "tracer/tracer_scenes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>

namespace mq::test {
namespace {

constexpr float kPiF = 3.14159265f;

RenderSettings tiny(int size, int spp, const fs::path& folder) {
    RenderSettings s = small(size, spp, 2);
    s.seed = 11;
    s.assetFolder = folder;
    return s;
}

// An image file from colour(x, y), row 0 at the top: 8-bit sRGB for .png,
// float for .exr (with the pass layers too, so R, G, B must be found by name).
void writeTexture(const fs::path& file, int w, int h,
                  const std::function<Point3(int, int)>& colour) {
    Image img(w, h);
    for (int i = 0; i < w * h; ++i) {
        const Point3 c = colour(i % w, i / w);
        for (int k = 0; k < 4; ++k) img.rgba[4 * size_t(i) + k] = k < 3 ? c[k] : 1.0f;
    }
    writeImage(file, img);
}

// Quad a-b-c-d as two triangles, with UVWs per corner on the given channels.
Mesh quadMesh(const std::array<Point3, 4>& corners,
              const std::vector<std::pair<int, std::array<Point3, 4>>>& channels) {
    Mesh m;
    m.verts.assign(corners.begin(), corners.end());
    m.faces.resize(2);
    m.faces[0].v[0] = 0, m.faces[0].v[1] = 1, m.faces[0].v[2] = 2;
    m.faces[1].v[0] = 0, m.faces[1].v[1] = 2, m.faces[1].v[2] = 3;
    for (const auto& [channel, uvw] : channels) {
        m.setMapSupport(channel);
        m.Map(channel).verts.assign(uvw.begin(), uvw.end());
        m.Map(channel).faces = {TVFace{{0, 1, 2}}, TVFace{{0, 2, 3}}};
    }
    return m;
}

// Mean colour of the 5 x 5 pixels around (x, y).
Point3 meanAround(const Image& img, int x, int y) {
    Point3 sum;
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            const float* p = img.pixel(x + dx, y + dy);
            sum += Point3(p[0], p[1], p[2]);
        }
    }
    return sum / 25.0f;
}

TEST(TracerTexture, QuadShowsItsImageUprightOnItsChannelAndTheUvPass) {
    TempDir dir;
    // 8 x 8 in quarters, rows from the top: red, green / blue, yellow.
    writeTexture(dir / "quarters.png", 8, 8, [](int x, int y) {
        if (y < 4) return x < 4 ? Point3(1, 0, 0) : Point3(0, 1, 0);
        return x < 4 ? Point3(0, 0, 1) : Point3(1, 1, 0);
    });
    // A 2 x 2 quad in the x-z plane facing the camera on -y. Channel 2 runs u
    // along x and v up z; channel 1 swaps them and has w = 0.25, so a flipped
    // v or the wrong channel shows another quarter's colour.
    const Point3 a(0, 0, 0.25f), b(0, 1, 0.25f), c(1, 1, 0.25f), d(1, 0, 0.25f);
    Scene scene;
    addNode(scene.root(), "Quad",
            new TriObject(
                quadMesh({Point3(-1, 0, -1), Point3(1, 0, -1), Point3(1, 0, 1), Point3(-1, 0, 1)},
                         {{1, {a, b, c, d}}, {2, {Point3(0, 0, 0), d - a, c - a, b - a}}})))
        ->setMaterial("quarters");
    scene.materials = {
        {"quarters",
         {{"baseColor", {{"texture", "quarters.png"}, {"channel", 2}}}, {"specular", 0.0}}}};
    scene.lights = nlohmann::json::array({{{"type", "dome"}}});
    // The quad spans pixels 5 to 27; the quarters' centres land on pixels 10 and 21.
    frontCamera(scene, 4.0f, 2.0f * std::atan(32.0f / 88.0f) * 180.0f / kPiF);
    const Image img = renderImage(scene, tiny(32, 16, dir.path()));

    // In a white dome a diffuse surface shows its albedo; absent primaries stay exactly 0.
    const std::pair<int, int> at[4] = {{10, 10}, {21, 10}, {10, 21}, {21, 21}};
    const Point3 colour[4] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}};
    for (int q = 0; q < 4; ++q) {
        const Point3 mean = meanAround(img, at[q].first, at[q].second);
        expectNear(mean, colour[q], 0.1f);
        for (int k = 0; k < 3; ++k) EXPECT_TRUE(colour[q][k] > 0.0f || mean[k] == 0.0f) << q;
    }
    // The uv pass: channel 1 at the first hit (jittered within the pixel), 0 off the quad.
    const auto uv = [&](int x, int y) {
        const float* p = &img.uv[3 * (size_t(y) * 32 + x)];
        return Point3(p[0], p[1], p[2]);
    };
    expectNear(uv(10, 10), {0.75f, 0.25f, 0.25f}, 1.0f / 22.0f);
    expectNear(uv(21, 10), {0.75f, 0.75f, 0.25f}, 1.0f / 22.0f);
    expectNear(uv(10, 21), {0.25f, 0.25f, 0.25f}, 1.0f / 22.0f);
    expectNear(uv(0, 0), {0, 0, 0}, 0.0f);

    // A channel the mesh lacks reads UVW 0: the corner where the four
    // quarters meet, repeating.
    scene.materials["quarters"]["baseColor"]["channel"] = 7;
    expectNear(meanAround(renderImage(scene, tiny(32, 16, dir.path())), 16, 16),
               {0.5f, 0.5f, 0.25f}, 0.1f);

    // 8-bit texels are sRGB: a linear mid grey survives the round trip.
    writeTexture(dir / "grey.png", 1, 1, [](int, int) { return Point3(0.5f, 0.2f, 0.05f); });
    expectNear(Texture::load(dir / "grey.png").texel(0, 0), {0.5f, 0.2f, 0.05f}, 0.005f);
}

TEST(TracerTexture, UnreadableImagesFailBeforeRenderingNamingMaterialAndFile) {
    TempDir dir;
    dir.write("garbage.png", "not a picture");
    RayLog log;
    Scene scene;
    addNode(scene.root(), "Ball", new AnalyticSphereObject({0, 0, 0}, 1.0f, log))
        ->setMaterial("Brick");
    const auto failure = [&] {
        return messageOf<InputError>([&] { renderImage(scene, tiny(4, 1, dir.path())); });
    };
    const auto mentions = [](const std::string& what, const std::vector<std::string>& parts) {
        for (const auto& p : parts)
            EXPECT_NE(what.find(p), std::string::npos) << p << " in " << what;
    };

    scene.materials = {{"Brick", {{"baseColor", {{"texture", "bricks.png"}}}}}};
    mentions(failure(), {"/materials/Brick/baseColor/texture", "material \"Brick\"",
                         (dir / "bricks.png").string(), "no such file"});
    EXPECT_NO_THROW(checkRenderData(scene)) << "images are the render's to load";
    EXPECT_TRUE(log.calls_.empty());  // no render object was started
    scene.materials["Brick"]["baseColor"]["texture"] = "garbage.png";
    mentions(failure(), {"material \"Brick\"", (dir / "garbage.png").string()});
    scene.materials["Brick"]["baseColor"]["channel"] = 100;
    mentions(failure(), {"/materials/Brick/baseColor/channel"});

    scene.materials = nlohmann::json::object();
    scene.lights = nlohmann::json::array({{{"type", "dome"}, {"image", "sky.exr"}}});
    mentions(failure(), {"/lights/0/image", (dir / "sky.exr").string(), "no such file"});
    EXPECT_TRUE(log.calls_.empty());
}

// A black 64 x 32 lat-long sky with one grey block of texels.
std::function<Point3(int, int)> skyBlock(int x0, int x1, int y0, int y1, float value) {
    return [=](int x, int y) {
        return x >= x0 && x < x1 && y >= y0 && y < y1 ? Point3(value, value, value) : Point3();
    };
}

// The documented mapping from the image's (s, t) to a direction.
Point3 skyDirection(float s, float t) {
    const float theta = t * kPiF, phi = (0.5f - s) * 2.0f * kPiF;
    return {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)};
}

TEST(TracerDome, CameraSeesTheImageUnmirroredAndRotated) {
    TempDir dir;
    // Centred at s = 26.5 / 64, t = 10.5 / 32: 31 degrees round from +x towards +y, 31 up.
    writeTexture(dir / "sky.exr", 64, 32, skyBlock(25, 28, 9, 12, 10.0f));
    Scene scene;
    scene.camera = {
        {"position", {0, 0, 0}}, {"target", {1, 0, 0}}, {"up", {0, 0, 1}}, {"fov", 90.0}};
    for (const float rotation : {0.0f, -30.0f}) {
        scene.lights = nlohmann::json::array(
            {{{"type", "dome"}, {"image", "sky.exr"}, {"intensity", 2.0}, {"rotation", rotation}}});
        const Image img = renderImage(scene, tiny(32, 4, dir.path()));
        double sum = 0.0, cx = 0.0, cy = 0.0, peak = 0.0;
        for (int i = 0; i < 32 * 32; ++i) {
            const double v = img.rgba[4 * size_t(i)];
            sum += v, cx += v * (i % 32 + 0.5), cy += v * (i / 32 + 0.5), peak = std::max(peak, v);
        }
        // Where the block's centre projects: camera right is -y, up is +z.
        const float r = rotation * kPiF / 180.0f;
        const Point3 d = skyDirection(26.5f / 64.0f, 10.5f / 32.0f);
        const Point3 w(std::cos(r) * d.x - std::sin(r) * d.y, std::sin(r) * d.x + std::cos(r) * d.y,
                       d.z);
        ASSERT_GT(sum, 0.0);
        EXPECT_NEAR(cx / sum, 16.0 * (1.0 - w.y / w.x), 1.0) << rotation;
        EXPECT_NEAR(cy / sum, 16.0 * (1.0 - w.z / w.x), 1.0) << rotation;
        EXPECT_NEAR(peak, 20.0, 0.2) << rotation;  // texel times intensity
    }
}

// Mean and spread of the red channel over the pixels.
std::pair<double, double> meanAndSpread(const Image& img) {
    double s = 0.0, s2 = 0.0;
    const double n = double(img.rgba.size() / 4);
    for (size_t i = 0; i < img.rgba.size(); i += 4)
        s += img.rgba[i], s2 += double(img.rgba[i]) * img.rgba[i];
    return {s / n, std::sqrt(std::max(0.0, s2 / n - (s / n) * (s / n)))};
}

TEST(TracerDome, ImportanceSamplingLightsFromTheImageAndMatchesUniformSampling) {
    TempDir dir;
    // 45 degrees wide from +x towards +y, 34 to 68 degrees from the zenith.
    writeTexture(dir / "sky.exr", 64, 32, skyBlock(24, 32, 6, 12, 20.0f));
    // A white diffuse 4 x 4 wall facing +x, filling the view.
    Scene scene;
    addNode(scene.root(), "Wall",
            new TriObject(quadMesh(
                {Point3(0, -2, -2), Point3(0, 2, -2), Point3(0, 2, 2), Point3(0, -2, 2)}, {})))
        ->setMaterial("white");
    scene.materials = {{"white", {{"baseColor", {1, 1, 1}}, {"specular", 0.0}}}};
    scene.camera = {
        {"position", {3, 0, 0}}, {"target", {0, 0, 0}}, {"up", {0, 0, 1}}, {"fov", 40.0}};
    RenderSettings settings = tiny(32, 64, dir.path());
    const auto render = [&](float rotation, const char* sampling) {
        scene.lights = nlohmann::json::array({{{"type", "dome"},
                                               {"image", "sky.exr"},
                                               {"rotation", rotation},
                                               {"sampling", sampling}}});
        return renderImage(scene, settings);
    };

    // The wall's radiance, (1 / pi) * integral of L(w) max(0, w.x) dw, by
    // the midpoint rule over the image's (s, t) square.
    const EnvironmentMap env(Texture::load(dir / "sky.exr"));
    double expected = 0.0;
    const int ns = 1024, nt = 512;
    for (int j = 0; j < nt; ++j) {
        for (int i = 0; i < ns; ++i) {
            const float t = (j + 0.5f) / nt;
            const Point3 d = skyDirection((i + 0.5f) / ns, t);
            expected += env.radiance(d).x * std::max(0.0f, d.x) * 2.0 * kPiF * std::sin(t * kPiF) /
                        (double(ns) * nt);
        }
    }
    ASSERT_GT(expected, 0.5);

    const Image importance = render(0.0f, "importance");
    const auto [mi, si] = meanAndSpread(importance);
    const auto [mu, su] = meanAndSpread(render(0.0f, "uniform"));
    EXPECT_NEAR(mi, expected, 0.02 * expected);
    EXPECT_NEAR(mu, expected, 0.05 * expected);
    EXPECT_LT(si, 0.5 * su);  // drawing towards the bright block is what makes it quieter
    // Turned half round, the block is behind the wall.
    EXPECT_EQ(meanAndSpread(render(180.0f, "importance")).first, 0.0);

    // Byte-identical for one thread and two, uv pass included.
    settings.threads = 1;
    const Image one = render(0.0f, "importance");
    EXPECT_EQ(0, std::memcmp(one.rgba.data(), importance.rgba.data(), one.rgba.size() * 4));
    EXPECT_EQ(one.uv, importance.uv);
}

}  // namespace
}  // namespace mq::test
