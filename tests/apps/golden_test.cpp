// Every example scene and the demo scene, rendered small, against the
// pictures recorded in tests/golden. A change that moves the picture fails
// here; when the change is meant, record again with MOSAIQ_UPDATE_GOLDEN=1
// and look at the new pictures before committing them.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kSource = MOSAIQ_SOURCE_DIR;

struct Golden {
    const char* name;   // the picture's name in tests/golden
    const char* scene;  // relative to the repository; empty: the demo scene
};

const Golden kGoldens[] = {
    {"demo", ""},
    {"simple", "examples/simple.mosaiq"},
    {"chainmail-sphere", "examples/chainmail-sphere.mosaiq"},
    {"weave-box", "examples/weave-box.mosaiq"},
    {"scales-cylinder", "examples/scales-cylinder.mosaiq"},
    {"pavers-plane", "examples/pavers-plane.mosaiq"},
};

class GoldenImage : public ::testing::TestWithParam<Golden> {};

TEST_P(GoldenImage, MatchesTheRecordedPicture) {
    const Golden& g = GetParam();
    mq::test::TempDir dir;
    const fs::path out = dir / (std::string(g.name) + ".png");
    std::vector<std::string> args = {"render"};
    if (*g.scene) args.push_back(g.scene);
    // Small and few samples: enough to see the pattern's shape and shading.
    for (const char* a : {"--resolution", "96x72", "--spp", "4", "--seed", "7", "-q", "-o"})
        args.push_back(a);
    args.push_back(out.string());
    // Example scenes name their pattern files from the repository root.
    const mq::test::CliResult r = mq::test::runMosaiq(args, dir.path(), kSource.string());
    ASSERT_EQ(r.code, 0) << r.err;

    const fs::path golden = kSource / "tests/golden" / (std::string(g.name) + ".png");
    if (std::getenv("MOSAIQ_UPDATE_GOLDEN")) {
        fs::copy_file(out, golden, fs::copy_options::overwrite_existing);
        GTEST_SKIP() << "recorded " << golden;
    }
    ASSERT_TRUE(fs::exists(golden))
        << golden << " is missing; record it with MOSAIQ_UPDATE_GOLDEN=1";
    const mq::test::Picture want = mq::test::readPicture(golden);
    const mq::test::Picture got = mq::test::readPicture(out);
    ASSERT_EQ(got.width, want.width);
    ASSERT_EQ(got.height, want.height);
    // Identical on one build; the slack is for other compilers and CPUs,
    // where a path may take another turn in a few pixels.
    const mq::test::PictureDifference d = mq::test::comparePictures(got, want, 6);
    EXPECT_GE(d.closeFraction, 0.99) << g.name << ": mean error " << d.meanError;
    EXPECT_LE(d.meanError, 1.0) << g.name;
}

INSTANTIATE_TEST_SUITE_P(Examples, GoldenImage, ::testing::ValuesIn(kGoldens),
                         [](const auto& test) {
                             std::string n = test.param.name;
                             for (char& c : n)
                                 if (c == '-') c = '_';
                             return n;
                         });

}  // namespace
