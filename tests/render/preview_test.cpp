// The preview texture: image size from the tile's extent, coverage in
// alpha and row order, ambient light against the analytic mean over the
// light directions, shadowing and determinism.
#include "render/preview.h"

#include "support/tile_test_util.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <memory>
#include <vector>

namespace mq {
namespace {

using test::Triangle;

std::unique_ptr<PatternTile> builtTile(const std::vector<Triangle>& tris, const Point3& crop) {
    auto tile = test::makeTile(tris, crop, 1, 1);
    tile->built = true;  // as capture would leave it
    return tile;
}

float alphaAt(const PreviewImage& img, int x, int row) {
    return img.rgba[(size_t(row) * img.width + x) * 4 + 3];
}
float lightAt(const PreviewImage& img, int x, int row) {
    return img.rgba[(size_t(row) * img.width + x) * 4];
}

// Mean of d.z over the light directions d = normalise(x, y, 2 - x^2 - y^2),
// (x, y) uniform over the square -1..1: what an unshadowed level face gets.
double meanLightOnLevelFace() {
    const int n = 400;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const double x = 2.0 * (i + 0.5) / n - 1.0, y = 2.0 * (j + 0.5) / n - 1.0;
            const double z = 2.0 - x * x - y * y;
            sum += z / std::sqrt(x * x + y * y + z * z);
        }
    }
    return sum / (double(n) * n);
}

TEST(PreviewTexture, ImageSizeKeepsTheAspectRatioAndCapsTheLongerSide) {
    // (crop x, crop y, texture size) and the image's width and height.
    for (const auto [x, y, size, width, height] : {std::array{10, 10, 256, 256, 256},
                                                   {20, 10, 256, 362, 181},
                                                   {40, 10, 2048, 2048, 512},
                                                   {10, 40, 2048, 512, 2048}}) {
        int w = 0, h = 0;
        EXPECT_TRUE(previewImageSize(Point3(float(x), float(y), 3), size, w, h));
        EXPECT_EQ(std::pair(w, h), std::pair(width, height)) << x << " x " << y << " @ " << size;
    }
    int w = 0, h = 0;
    EXPECT_FALSE(previewImageSize({0, 10, 3}, 256, w, h));
    EXPECT_FALSE(previewImageSize({10, 10, 3}, 0, w, h));

    // The render takes the same size; an unbuilt tile gives nothing.
    std::vector<Triangle> tris;
    test::addFloor(tris, 0, 0, 20, 10, 1);
    auto tile = builtTile(tris, {20, 10, 2});
    PreviewImage img;
    ASSERT_TRUE(renderPreviewTexture(*tile, 12, img));
    ASSERT_TRUE(previewImageSize(tile->cropSize, 12, w, h));
    EXPECT_TRUE(img.width == w && img.height == h && img.rgba.size() == size_t(w) * h * 4);
    tile->built = false;
    EXPECT_FALSE(renderPreviewTexture(*tile, 12, img));
    EXPECT_TRUE(img.rgba.empty());
}

TEST(PreviewTexture, CoveredPixelsAreOpaqueAndLitByTheMeanOthersTransparentBlack) {
    // A level floor everywhere but where x > 5 and y < 5: the bottom right,
    // as the top row is the tile's largest y.
    std::vector<Triangle> tris;
    test::addFloor(tris, -10, -10, 5, 30, 1);
    test::addFloor(tris, 5, 5, 30, 30, 1);
    auto tile = builtTile(tris, {10, 10, 2});
    PreviewImage img;
    ASSERT_TRUE(renderPreviewTexture(*tile, 16, img));
    ASSERT_EQ(img.width, 16);
    ASSERT_EQ(img.height, 16);
    const double mean = meanLightOnLevelFace();
    double sum = 0.0;
    int lit = 0;
    for (int row = 0; row < img.height; ++row) {
        // Columns 0..6 lie wholly left of x = 5, rows 0..6 wholly above y = 5;
        // columns and rows 9..15 wholly on the other sides.
        for (int x = 0; x < img.width; ++x) {
            if (x <= 6 || row <= 6) {
                EXPECT_EQ(alphaAt(img, x, row), 1.0f) << x << ", " << row;
                if (x <= 6) {
                    EXPECT_NEAR(lightAt(img, x, row), mean, 0.02) << x << ", " << row;
                }
                sum += lightAt(img, x, row);
                ++lit;
            } else if (x >= 9 && row >= 9) {
                const float* p = &img.rgba[(size_t(row) * img.width + x) * 4];
                EXPECT_TRUE(p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 0) << x << ", " << row;
            }
        }
    }
    EXPECT_NEAR(sum / lit, mean, 0.005);
}

TEST(PreviewTexture, AWallShadowsTheFloorBesideItAndRendersTheSameEveryTime) {
    // Floor at z = 0.5 over a 20 x 10 tile, a wall 2.5 high along x = 10.
    std::vector<Triangle> tris = {
        {Point3(-10, -10, 0.5f), Point3(50, -10, 0.5f), Point3(-10, 50, 0.5f)}};
    tris.push_back({Point3(10, -10, 0.5f), Point3(10, 20, 0.5f), Point3(10, 20, 3)});
    tris.push_back({Point3(10, -10, 0.5f), Point3(10, 20, 3), Point3(10, -10, 3)});
    auto tile = builtTile(tris, {20, 10, 4});
    PreviewImage img;
    ASSERT_TRUE(renderPreviewTexture(*tile, 14, img));
    ASSERT_EQ(img.width, 20);  // a pixel is one unit wide
    const double mean = meanLightOnLevelFace();
    for (int row = 0; row < img.height; ++row) {
        // Ten units from the wall only the lowest directions are blocked.
        EXPECT_NEAR(lightAt(img, 0, row), mean, 0.05) << row;
        // Right beside it, about half the sky is gone.
        EXPECT_LT(lightAt(img, 9, row), 0.75 * lightAt(img, 0, row)) << row;
        EXPECT_LT(lightAt(img, 10, row), 0.75 * lightAt(img, 0, row)) << row;
        EXPECT_EQ(alphaAt(img, 9, row), 1.0f);
    }

    PreviewImage again;
    ASSERT_TRUE(renderPreviewTexture(*tile, 14, again));
    EXPECT_EQ(again.rgba, img.rgba);

    // Misses draw fewer random numbers than hits: with part of the tile
    // bare, any thread count must still follow the one stream exactly.
    tris.erase(tris.begin());
    tris.push_back({Point3(-10, -10, 0.5f), Point3(8, -10, 0.5f), Point3(-10, 12, 0.5f)});
    auto partial = builtTile(tris, {20, 10, 4});
    PreviewImage one;
    ASSERT_TRUE(renderPreviewTexture(*partial, 40, one, 1));
    for (int threads : {2, 5}) {
        PreviewImage many;
        ASSERT_TRUE(renderPreviewTexture(*partial, 40, many, threads));
        EXPECT_EQ(many.rgba, one.rgba) << threads << " threads";
    }
}

}  // namespace
}  // namespace mq
