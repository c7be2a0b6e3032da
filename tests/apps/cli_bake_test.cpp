// mosaiq bake, run as a user runs it from the repository root: the formats it
// writes and a signal during the write. What the baked mesh looks like is the
// differential test's business, the failures cli_test's.
#include "host/import.h"
#include "support/cli_runner.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Result = mq::test::CliResult;

class BakeCli : public mq::test::CliFixture {};

TEST_F(BakeCli, ObjAndGlbReadBackWithTheTriangleCountItPrints) {
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

TEST_F(BakeCli, ASignalDuringTheWriteKeepsTheOldFileAndLeavesNoTemporary) {
    // The chain mail bakes to some 70 MB of .glb, long enough to be stopped
    // once its temporary file shows.
    const fs::path out = dir_.write("mail.glb", "old");
    const pid_t pid =
        start({"bake", "examples/chainmail-sphere.mosaiq", "Mosaiq_chainmail", "-o", out.string()});
    bool writing = false;
    for (int i = 0; i < 60000 && !writing; ++i) {
        for (const std::string& name : files())
            writing = writing || name.find(".tmp-") != std::string::npos;
        if (!writing) std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    ::kill(pid, SIGTERM);
    const Result r = finish(pid);
    ASSERT_TRUE(writing) << "no temporary file appeared\n" << r.err;
    EXPECT_EQ(r.code, 128 + SIGTERM) << r.err;
    EXPECT_EQ(mq::test::readText(out), "old");
    EXPECT_EQ(files(), std::vector<std::string>{"mail.glb"});
}

}  // namespace
