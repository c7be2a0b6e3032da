// mosaiq bake, run as a user runs it from the repository root: the formats it
// writes, the triangle limit, and the exit codes of bad requests. What the
// baked mesh looks like is the differential test's business.
#include "host/import.h"
#include "support/cli_runner.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Result = mq::test::CliResult;

class BakeCli : public ::testing::Test {
protected:
    Result mosaiq(const std::vector<std::string>& args) {
        return mq::test::runMosaiq(args, dir_.path(), MOSAIQ_SOURCE_DIR);
    }
    fs::path path(const std::string& name) const { return dir_ / name; }
    // Files in the folder apart from the runner's own captures.
    std::vector<std::string> written() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir_.path())) {
            const std::string name = entry.path().filename().string();
            if (name != ".stdout" && name != ".stderr") names.push_back(name);
        }
        return names;
    }

    mq::test::TempDir dir_;
};

TEST_F(BakeCli, ObjAndGlbReadBackAndTheLimitRefusesWritingNothing) {
    const Result refused = mosaiq({"bake", "examples/simple.mosaiq", "Mosaiq001", "-o",
                                   path("mesh.glb").string(), "--max-triangles", "10"});
    EXPECT_EQ(refused.code, 4) << refused.err;
    EXPECT_NE(refused.err.find(" triangles, more than --max-triangles 10"), std::string::npos)
        << refused.err;
    EXPECT_TRUE(written().empty());

    for (const char* name : {"simple.obj", "simple.glb"}) {
        const fs::path out = path(name);
        const Result r =
            mosaiq({"bake", "examples/simple.mosaiq", "Mosaiq001", "-o", out.string()});
        ASSERT_EQ(r.code, 0) << r.err;
        const std::string prefix = "wrote " + out.string() + " (";
        ASSERT_EQ(r.out.rfind(prefix, 0), 0u) << r.out;
        long long triangles = 0;
        for (const mq::ImportedNode& n : mq::importMeshFile(out).nodes)
            triangles += n.mesh ? n.mesh->getNumFaces() : 0;
        EXPECT_GT(triangles, 10) << name;
        EXPECT_EQ(triangles, std::atoll(r.out.c_str() + prefix.size())) << name;
    }
}

TEST_F(BakeCli, BadRequestsExitWithTheirCodesAndWriteNothing) {
    const std::string out = path("mesh.glb").string();
    const struct {
        std::string scene, node, output;
        int code;
        std::string message;
    } cases[] = {
        {"simple", "Mosaiq001", path("mesh.fbx").string(), 2, "unsupported mesh format \".fbx\""},
        {"simple", "Surface", out, 2, "is not a Mosaiq object"},
        {"simple", "Nobody", out, 2, "no node named \"Nobody\""},
        {"none", "Mosaiq001", out, 3, "no such scene file"},
        {"simple", "Mosaiq001", path("no/mesh.glb").string(), 4, "does not exist"},
    };
    for (const auto& c : cases) {
        const Result r =
            mosaiq({"bake", "examples/" + c.scene + ".mosaiq", c.node, "-o", c.output});
        EXPECT_EQ(r.code, c.code) << c.message << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    }

    // A pattern file that is not there cannot be captured: an input error.
    const fs::path scene = path("missing-pattern.mosaiq");
    ASSERT_EQ(mosaiq({"set", "examples/pavers-plane.mosaiq", "Mosaiq_pavers",
                      "Pattern_File=examples/patterns/none.obj", "-o", scene.string()})
                  .code,
              0);
    const Result r = mosaiq({"bake", scene.string(), "Mosaiq_pavers", "-o", out});
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_NE(r.err.find("Mosaiq_pavers: frame 0: cannot bake: "), std::string::npos) << r.err;
    EXPECT_EQ(written(), std::vector<std::string>{"missing-pattern.mosaiq"});
}

TEST_F(BakeCli, ASignalDuringTheWriteKeepsTheOldFileAndLeavesNoTemporary) {
    // The chain mail bakes to some 70 MB of .glb, long enough to be stopped
    // once its temporary file shows.
    const fs::path out = dir_.write("mail.glb", "old");
    const pid_t pid = mq::test::startMosaiq(
        {"bake", "examples/chainmail-sphere.mosaiq", "Mosaiq_chainmail", "-o", out.string()},
        dir_.path(), MOSAIQ_SOURCE_DIR);
    bool writing = false;
    for (int i = 0; i < 60000 && !writing; ++i) {
        for (const std::string& name : written())
            writing = writing || name.find(".tmp-") != std::string::npos;
        if (!writing) std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    ::kill(pid, SIGTERM);
    const Result r = mq::test::finishMosaiq(pid, dir_.path());
    ASSERT_TRUE(writing) << "no temporary file appeared\n" << r.err;
    EXPECT_EQ(r.code, 128 + SIGTERM) << r.err;
    EXPECT_EQ(mq::test::readText(out), "old");
    EXPECT_EQ(written(), std::vector<std::string>{"mail.glb"});
}

}  // namespace
