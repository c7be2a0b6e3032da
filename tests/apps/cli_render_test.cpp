// mosaiq render, run as a user runs it from the repository root:
// determinism, crops, -D overrides, frame ranges and Ctrl-C. The failures
// are cli_test's.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <signal.h>

#include <chrono>
#include <thread>

namespace {

namespace fs = std::filesystem;

using Result = mq::test::CliResult;

using mq::test::Picture;
using mq::test::readText;

class RenderCli : public mq::test::CliFixture {
protected:
    // A tiny render of the pavers example, plus extra arguments.
    Result tiny(const fs::path& out, std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"render", "examples/pavers-plane.mosaiq", "-o", out};
        for (const char* a : {"--resolution", "48x32", "--spp", "2", "-t", "2", "-q"})
            args.push_back(a);
        args.insert(args.end(), extra.begin(), extra.end());
        return mosaiq(args);
    }
};

TEST_F(RenderCli, RendersAreDeterministicCropsTheSameRegionAndDefinesChangeThem) {
    const Result r = tiny(path("full.png"));
    ASSERT_EQ(r.code, 0) << r.err;
    ASSERT_EQ(tiny(path("again.png")).code, 0);
    EXPECT_EQ(readText(path("full.png")), readText(path("again.png")));
    ASSERT_EQ(tiny(path("crop.png"), {"--crop", "8,40,4,28"}).code, 0);
    EXPECT_EQ(files().size(), 3u) << "no temporary files are left";

    const Picture full = mq::test::readPicture(path("full.png")),
                  crop = mq::test::readPicture(path("crop.png"));
    ASSERT_TRUE(full.width == 48 && full.height == 32 && crop.width == 48 && crop.height == 32);
    int differing = 0, outside = 0;
    for (int y = 0; y < 32; ++y) {
        for (int x = 0; x < 48; ++x) {
            if (x < 8 || x >= 40 || y < 4 || y >= 28) {
                outside += crop.at(x, y)[3] != 0;
                continue;
            }
            for (int c = 0; c < 4; ++c)
                differing += std::abs(int(full.at(x, y)[c]) - int(crop.at(x, y)[c])) > 2;
        }
    }
    EXPECT_LE(differing, 32 * 24 * 4 / 100);
    EXPECT_EQ(outside, 0);

    // -D sets render settings, and node parameters: the surface's material
    // swapped and the pattern off change the picture.
    ASSERT_EQ(mosaiq({"render", "examples/pavers-plane.mosaiq", "-o", path("d.png").string(), "-D",
                      "width=20", "-D", "height=10", "--spp", "1", "-q"})
                  .code,
              0);
    const Picture defined = mq::test::readPicture(path("d.png"));
    EXPECT_TRUE(defined.width == 20 && defined.height == 10);
    ASSERT_EQ(tiny(path("changed.png"),
                   {"-D", "Surface.material=ground", "-D", "Mosaiq_pavers.Pattern_On=0"})
                  .code,
              0);
    EXPECT_NE(readText(path("full.png")), readText(path("changed.png")));
}

TEST_F(RenderCli, FramesAreNumberedAndANodeThatRendersNothingIsNamedEachFrame) {
    // An empty Poli_ID range: the rest of the scene still renders.
    const Result r = tiny(path("seq.png"), {"--frames", "1-2", "-D", "Mosaiq_pavers.Poli_ID=7,8"});
    ASSERT_EQ(r.code, 0) << r.err;
    for (const char* frame : {"frame 1 renders nothing", "frame 2 renders nothing"})
        EXPECT_NE(r.err.find(std::string("\"Mosaiq_pavers\": ") + frame), std::string::npos)
            << r.err;
    EXPECT_NE(r.err.find("\"Poli_ID\" range 7 to 8"), std::string::npos) << r.err;
    EXPECT_EQ(files(), (std::vector<std::string>{"seq.0001.png", "seq.0002.png"}));
    EXPECT_EQ(mq::test::readPicture(path("seq.0002.png")).width, 48);

    // Copied elsewhere with its pattern beside it, the scene still finds the
    // pattern; without the pattern, the render fails naming the node and file.
    const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
    fs::create_directories(path("moved/patterns"));
    fs::copy_file(examples / "pavers-plane.mosaiq", path("moved/pavers-plane.mosaiq"));
    const std::vector<std::string> args = {"render",
                                           path("moved/pavers-plane.mosaiq").string(),
                                           "--resolution",
                                           "16x12",
                                           "--spp",
                                           "1",
                                           "-q",
                                           "-o",
                                           path("moved.png").string()};
    const Result missing = mosaiq(args);
    EXPECT_EQ(missing.code, 3);
    EXPECT_NE(
        missing.err.find("Mosaiq_pavers: pattern file \"patterns/pavers.obj\" does not exist"),
        std::string::npos)
        << missing.err;
    EXPECT_FALSE(fs::exists(path("moved.png")));
    fs::copy_file(examples / "patterns/pavers.obj", path("moved/patterns/pavers.obj"));
    const Result found = mosaiq(args);
    ASSERT_EQ(found.code, 0) << found.err;
    EXPECT_EQ(found.err.find("renders nothing"), std::string::npos) << found.err;
}

TEST_F(RenderCli, InterruptLeavesNoFile) {
    // The demo at many samples runs long enough to be stopped midway.
    const pid_t pid = start({"render", "-o", path("demo.png").string(), "--resolution", "320x240",
                             "--spp", "4096", "-t", "1"});
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ::kill(pid, SIGINT);
    const Result r = finish(pid);
    EXPECT_EQ(r.code, 130) << r.err;
    EXPECT_TRUE(files().empty()) << "left behind: " << (files().empty() ? "" : files().front());
}

}  // namespace
