// mosaiq bake, run as a user runs it from the repository root: the files it
// writes read back, the triangle limit, and the exit codes of bad requests.
#include "host/import.h"
#include "support/cli_runner.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
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

// Triangles of every mesh node, and the bounds of their world positions.
struct ReadBack {
    long long triangles = 0;
    mq::Box3 bounds;
};
ReadBack readBack(const fs::path& file) {
    const mq::ImportedScene scene = mq::importMeshFile(file);
    ReadBack r;
    for (size_t i = 0; i < scene.nodes.size(); ++i) {
        if (!scene.nodes[i].mesh) continue;
        mq::Matrix3 world;
        for (int n = int(i); n >= 0; n = scene.nodes[size_t(n)].parent)
            world = world * scene.nodes[size_t(n)].transform;
        r.triangles += scene.nodes[i].mesh->getNumFaces();
        for (const mq::Point3& p : scene.nodes[i].mesh->verts) r.bounds += p * world;
    }
    return r;
}

TEST_F(BakeCli, WritesObjAndGlbThatReadBackAlike) {
    ReadBack got[2];
    const char* exts[2] = {".obj", ".glb"};
    for (int i = 0; i < 2; ++i) {
        const fs::path out = path(std::string("simple") + exts[i]);
        const Result r =
            mosaiq({"bake", "examples/simple.mosaiq", "Mosaiq001", "-o", out.string()});
        ASSERT_EQ(r.code, 0) << r.err;
        const std::string prefix = "wrote " + out.string() + " (";
        ASSERT_EQ(r.out.rfind(prefix, 0), 0u) << r.out;
        const long long reported = std::atoll(r.out.c_str() + prefix.size());
        EXPECT_GT(reported, 0);
        EXPECT_NE(r.out.find(" triangles)\n"), std::string::npos) << r.out;
        got[i] = readBack(out);
        EXPECT_EQ(got[i].triangles, reported) << exts[i];
    }
    // The plane is 100 x 100 at z = 0 and the pattern stands on it.
    for (int a = 0; a < 3; ++a) {
        EXPECT_NEAR(got[0].bounds.pmin[a], got[1].bounds.pmin[a], 1e-4f);
        EXPECT_NEAR(got[0].bounds.pmax[a], got[1].bounds.pmax[a], 1e-4f);
    }
    EXPECT_NEAR(got[1].bounds.pmin.x, -50.0f, 1e-3f);
    EXPECT_NEAR(got[1].bounds.pmax.y, 50.0f, 1e-3f);
    EXPECT_GE(got[1].bounds.pmin.z, -1e-4f);
    EXPECT_GT(got[1].bounds.pmax.z, 0.0f);
}

TEST_F(BakeCli, MaxTrianglesRefusesWithExitFourAndWritesNothing) {
    const Result r = mosaiq({"bake", "examples/simple.mosaiq", "Mosaiq001", "-o",
                             path("mesh.glb").string(), "--max-triangles", "10"});
    EXPECT_EQ(r.code, 4) << r.err;
    EXPECT_NE(r.err.find("would write "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" triangles, more than --max-triangles 10"), std::string::npos) << r.err;
    EXPECT_TRUE(written().empty());
}

TEST_F(BakeCli, BadRequestsExitWithTheirCodesAndWriteNothing) {
    const std::string out = path("mesh.glb").string();
    struct Case {
        std::vector<std::string> args;
        int code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"examples/simple.mosaiq", "Mosaiq001", "-o", path("mesh.fbx").string()},
         2,
         "unsupported mesh format \".fbx\""},
        {{"examples/simple.mosaiq", "Surface", "-o", out}, 2, "is not a Mosaiq object"},
        {{"examples/simple.mosaiq", "Nobody", "-o", out}, 2, "no node named \"Nobody\""},
        {{"examples/none.mosaiq", "Mosaiq001", "-o", out}, 3, "no such scene file"},
        {{"examples/simple.mosaiq", "Mosaiq001", "-o", path("no/mesh.glb").string()},
         4,
         "does not exist"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"bake"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Result r = mosaiq(args);
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

}  // namespace
