// mosaiq preview, run as a user runs it, on a copy of the example scene and
// its pattern: both modes. The failures are cli_test's.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>

namespace {

namespace fs = std::filesystem;

using Result = mq::test::CliResult;
using mq::test::readText;

class PreviewCli : public mq::test::CliFixture {
protected:
    void SetUp() override {
        const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
        for (const char* name : {"simple.mosaiq", "pattern.obj"})
            fs::copy_file(examples / name, dir_ / name);
        // Run in the folder, so default outputs land there.
        workDir_ = dir_.path().string();
    }
    // What the command made: files other than its inputs.
    std::vector<std::string> made() const { return files({"simple.mosaiq", "pattern.obj"}); }
};

int opaquePixels(const mq::test::Picture& p) {
    int opaque = 0;
    for (size_t i = 3; i < p.rgba.size(); i += 4) opaque += p.rgba[i] == 255;
    return opaque;
}

TEST_F(PreviewCli, SceneNodeWritesAnRgbaPngNamedAfterTheNodeAndLeavesTheSceneAlone) {
    const std::string before = readText(dir_ / "simple.mosaiq");
    const Result r = mosaiq({"preview", "simple.mosaiq", "Mosaiq001", "--size", "24"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "wrote Mosaiq001-preview.png\n");
    EXPECT_EQ(made(), std::vector<std::string>{"Mosaiq001-preview.png"});

    auto in = OIIO::ImageInput::open((dir_ / "Mosaiq001-preview.png").string());
    ASSERT_TRUE(in);
    const OIIO::ImageSpec& written = in->spec();
    EXPECT_EQ(written.nchannels, 4);
    EXPECT_EQ(written.format, OIIO::TypeDesc::UINT8);
    const mq::test::Picture p = mq::test::readPicture(dir_ / "Mosaiq001-preview.png");
    EXPECT_TRUE(p.width == 24 && p.height == 24);  // a square crop box
    EXPECT_GT(opaquePixels(p), 0);
    // --size is for this run only.
    EXPECT_EQ(readText(dir_ / "simple.mosaiq"), before);
}

TEST_F(PreviewCli, PatternFileFitsTheWholePatternOrTakesTheGivenCropBox) {
    Result r = mosaiq({"preview", "--pattern", "pattern.obj", "--size", "20"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "wrote pattern-preview.png\n");
    const mq::test::Picture whole = mq::test::readPicture(dir_ / "pattern-preview.png");
    EXPECT_NEAR(std::sqrt(double(whole.width) * whole.height), 20.0, 1.0);
    EXPECT_GT(opaquePixels(whole), 0);

    // --repeat lays the same texture out 3 x 3.
    r = mosaiq({"preview", "--pattern", "pattern.obj", "--size", "20", "--repeat", "3", "-o",
                "tiled.png"});
    ASSERT_EQ(r.code, 0) << r.err;
    const mq::test::Picture tiled = mq::test::readPicture(dir_ / "tiled.png");
    ASSERT_TRUE(tiled.width == 3 * whole.width && tiled.height == 3 * whole.height);
    int differing = 0;
    for (int y = 0; y < tiled.height; ++y)
        for (int x = 0; x < tiled.width; ++x)
            differing += !std::equal(tiled.at(x, y), tiled.at(x, y) + 4,
                                     whole.at(x % whole.width, y % whole.height));
    EXPECT_EQ(differing, 0);

    // A crop box twice as wide as the pattern, and as deep: 20 * sqrt(2) by
    // 20 / sqrt(2) pixels, in float EXR.
    r = mosaiq({"preview", "--pattern", "pattern.obj", "--crop", "0,0,2,20,10,4", "--size", "20",
                "-o", "wide.exr"});
    ASSERT_EQ(r.code, 0) << r.err;
    auto in = OIIO::ImageInput::open((dir_ / "wide.exr").string());
    ASSERT_TRUE(in);
    const OIIO::ImageSpec imageSpec = in->spec();
    EXPECT_TRUE(imageSpec.width == 28 && imageSpec.height == 14 && imageSpec.nchannels == 4);
    EXPECT_EQ(imageSpec.format, OIIO::TypeDesc::FLOAT);
}

}  // namespace
