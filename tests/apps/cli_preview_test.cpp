// mosaiq preview, run as a user runs it, on a copy of the example scene and
// its pattern: both modes, patterns that cannot be captured, usage errors.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Result = mq::test::CliResult;
using mq::test::readText;

class PreviewCli : public ::testing::Test {
protected:
    void SetUp() override {
        const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
        for (const char* name : {"simple.mosaiq", "pattern.obj"})
            fs::copy_file(examples / name, dir_ / name);
    }

    // Started in the test folder, so default outputs land there.
    Result mosaiq(const std::vector<std::string>& args) {
        return mq::test::runMosaiq(args, dir_.path(), dir_.path().string());
    }

    // Files in the test folder other than the inputs and the captured output.
    std::vector<std::string> made() const {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir_.path())) {
            const std::string n = e.path().filename().string();
            if (n != ".stdout" && n != ".stderr" && n != "simple.mosaiq" && n != "pattern.obj")
                names.push_back(n);
        }
        return names;
    }

    mq::test::TempDir dir_;
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
    EXPECT_EQ(in->spec().nchannels, 4);
    EXPECT_EQ(in->spec().format, OIIO::TypeDesc::UINT8);
    in.reset();
    const mq::test::Picture p = mq::test::readPicture(dir_ / "Mosaiq001-preview.png");
    EXPECT_EQ(p.width, 24);  // a square crop box
    EXPECT_EQ(p.height, 24);
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

    // A crop box twice as wide as the pattern, and as deep: 20 * sqrt(2) by
    // 20 / sqrt(2) pixels, nothing at the sides.
    r = mosaiq({"preview", "--pattern", "pattern.obj", "--crop", "0,0,2,20,10,4", "--size", "20",
                "-o", "wide.exr"});
    ASSERT_EQ(r.code, 0) << r.err;
    auto in = OIIO::ImageInput::open((dir_ / "wide.exr").string());
    ASSERT_TRUE(in);
    const OIIO::ImageSpec imageSpec = in->spec();
    ASSERT_EQ(imageSpec.width, 28);
    ASSERT_EQ(imageSpec.height, 14);
    ASSERT_EQ(imageSpec.nchannels, 4);
    EXPECT_EQ(imageSpec.format, OIIO::TypeDesc::FLOAT);
    std::vector<float> px(28 * 14 * 4);
    ASSERT_TRUE(in->read_image(0, 0, 0, 4, OIIO::TypeDesc::FLOAT, px.data()));
    float sides = 0.0f, middle = 0.0f;
    for (int y = 0; y < 14; ++y) {
        sides += px[(y * 28 + 0) * 4 + 3] + px[(y * 28 + 27) * 4 + 3];
        middle += px[(y * 28 + 14) * 4 + 3];
    }
    EXPECT_EQ(sides, 0.0f);
    EXPECT_GT(middle, 0.0f);
}

TEST_F(PreviewCli, PatternThatCannotBeCapturedExits3AndWritesNothing) {
    Result r = mosaiq({"set", "simple.mosaiq", "Mosaiq001", "Pattern="});
    ASSERT_EQ(r.code, 0) << r.err;
    r = mosaiq({"preview", "simple.mosaiq", "Mosaiq001", "-o", "out.png"});
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_NE(r.err.find("Mosaiq001"), std::string::npos) << r.err;

    r = mosaiq({"preview", "--pattern", "missing.obj"});
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_NE(r.err.find("missing.obj"), std::string::npos) << r.err;
    EXPECT_TRUE(made().empty());
}

TEST_F(PreviewCli, UsageAndOutputErrorsAreReportedBeforeAnythingIsWritten) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"preview", "simple.mosaiq", "Mosaiq001", "--pattern", "pattern.obj"},
             {"preview"},
             {"preview", "--pattern", "pattern.obj", "--crop", "0,0,1,10,0,4"}}) {
        const Result r = mosaiq(args);
        EXPECT_EQ(r.code, 2) << args.size() << ": " << r.err;
    }
    const Result r = mosaiq({"preview", "--pattern", "pattern.obj", "-o", "no/such/dir/p.png"});
    EXPECT_EQ(r.code, 4) << r.err;
    EXPECT_TRUE(made().empty());
}

}  // namespace
