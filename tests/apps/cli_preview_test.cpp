// mosaiq preview, run as a user runs it, on a copy of the example scene and
// its pattern: both modes, and every failure's exit code.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <cmath>

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

TEST_F(PreviewCli, FailuresExitWithTheirCodesBeforeAnythingIsWritten) {
    ASSERT_EQ(mosaiq({"set", "simple.mosaiq", "Mosaiq001", "Pattern="}).code, 0);
    const std::pair<std::vector<std::string>, int> cases[] = {
        // A pattern that cannot be captured names the object or the file.
        {{"preview", "simple.mosaiq", "Mosaiq001", "-o", "out.png"}, 3},
        {{"preview", "--pattern", "missing.obj"}, 3},
        {{"preview", "simple.mosaiq", "Mosaiq001", "--pattern", "pattern.obj"}, 2},
        {{"preview"}, 2},
        {{"preview", "--pattern", "pattern.obj", "--crop", "0,0,1,10,0,4"}, 2},
        {{"preview", "--pattern", "pattern.obj", "-o", "no/such/dir/p.png"}, 4},
    };
    for (const auto& [args, code] : cases) {
        const Result r = mosaiq(args);
        EXPECT_EQ(r.code, code) << args.size() << ": " << r.err;
        if (code == 3) {
            EXPECT_NE(r.err.find(args.size() == 5 ? "Mosaiq001" : "missing.obj"), std::string::npos)
                << r.err;
        }
    }
    EXPECT_TRUE(made().empty());
}

}  // namespace
