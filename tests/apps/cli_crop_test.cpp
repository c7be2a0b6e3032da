// mosaiq crop and inspect --tile, run as a user runs them, on a copy of the
// example scene and its pattern.
#include "support/cli_runner.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

using Result = mq::test::CliResult;
using mq::test::readText;

class CropCli : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "mosaiq-crop-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
        for (const char* name : {"simple.mosaiq", "pattern.obj"})
            fs::copy_file(examples / name, dir_ / name);
        scene_ = (dir_ / "simple.mosaiq").string();
        patternFile_ = (dir_ / "pattern.obj").string();
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    Result mosaiq(const std::vector<std::string>& args) { return mq::test::runMosaiq(args, dir_); }

    void set(const std::vector<std::string>& assignments) {
        std::vector<std::string> args = {"set", scene_, "Mosaiq001"};
        args.insert(args.end(), assignments.begin(), assignments.end());
        const Result r = mosaiq(args);
        ASSERT_EQ(r.code, 0) << r.err;
    }

    // A Mosaiq001 parameter's value as the scene file holds it.
    static json param(const std::string& scene, const std::string& name) {
        const json doc = json::parse(readText(scene));
        for (const json& n : doc["nodes"]) {
            if (n["name"] != "Mosaiq001") continue;
            for (const json& p : n["object"]["paramBlocks"][0]["params"])
                if (p["name"] == name) return p["value"];
        }
        return nullptr;
    }

    static void expectNear(const json& got, const std::vector<double>& want) {
        ASSERT_EQ(got.size(), want.size()) << got;
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_NEAR(got[i].get<double>(), want[i], 1e-4) << got;
    }

    // Crop_Transfrom's rows, flattened.
    static json rows(const json& matrix) {
        json flat = json::array();
        for (const json& row : matrix)
            for (const json& v : row) flat.push_back(v);
        return flat;
    }

    fs::path dir_;
    std::string scene_, patternFile_;
};

// The example pattern: a pyramid 10 x 10 at the base and 4 high, stored Y-up
// in the file and turned Z-up on import.
TEST_F(CropCli, ResetEnclosesThePatternUnrotated) {
    set({"Crop_Size=1,2,3", "Crop_Transfrom=0,1,0,-1,0,0,0,0,1,5,6,7"});
    const std::string before = readText(scene_);
    const std::string out = (dir_ / "out.mosaiq").string();
    const Result r = mosaiq({"crop", "reset", scene_, "Mosaiq001", "-o", out});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("Mosaiq001.Crop_Size = 10, 10, 4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Mosaiq001.Crop_Transfrom"), std::string::npos) << r.out;
    EXPECT_EQ(readText(scene_), before) << "-o must leave the input alone";
    expectNear(param(out, "Crop_Size"), {10, 10, 4});
    expectNear(rows(param(out, "Crop_Transfrom")), {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 2});
    EXPECT_EQ(param(out, "Pattern"), "Pattern");
    EXPECT_EQ(json::parse(readText(out))["nodes"].size(), 3u) << "no merged node may be saved";

    // A file pattern stands upright in its own object space too.
    set({"Pattern_Source=1", "Pattern_File=" + patternFile_});
    ASSERT_EQ(mosaiq({"crop", "reset", scene_, "Mosaiq001"}).code, 0);
    expectNear(param(scene_, "Crop_Size"), {10, 10, 4});
    expectNear(rows(param(scene_, "Crop_Transfrom")), {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 2});
    EXPECT_EQ(json::parse(readText(scene_))["nodes"].size(), 3u);
}

TEST_F(CropCli, FitKeepsTheRotationAndDropsScaleAndPosition) {
    // 45 degrees about Z, scaled by 2, moved away.
    const double c = std::sqrt(0.5);
    set({"Crop_Transfrom=1.4142135,1.4142135,0,-1.4142135,1.4142135,0,0,0,2,5,6,7"});
    const Result r = mosaiq({"crop", "fit", scene_, "Mosaiq001"});
    ASSERT_EQ(r.code, 0) << r.err;
    // The square base seen diagonally spans its diagonal.
    expectNear(param(scene_, "Crop_Size"), {10 * std::sqrt(2.0), 10 * std::sqrt(2.0), 4});
    expectNear(rows(param(scene_, "Crop_Transfrom")), {c, c, 0, -c, c, 0, 0, 0, 1, 0, 0, 2});
}

TEST_F(CropCli, InspectTileDescribesTheCapturedPattern) {
    int objFaces = 0;
    std::istringstream obj(readText(patternFile_));
    for (std::string line; std::getline(obj, line);) objFaces += line.rfind("f ", 0) == 0;

    const Result r = mosaiq({"inspect", scene_, "--tile", "Mosaiq001", "--json"});
    ASSERT_EQ(r.code, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["node"], "Mosaiq001");
    EXPECT_EQ(j["faces"], objFaces);
    EXPECT_EQ(j["vertices"], 5);
    expectNear(j["cropSize"], {10, 10, 4});
    expectNear(j["segments"]["size"], {10, 10, 4});
    const json& tree = j["octree"];
    EXPECT_GE(tree["depth"], 1);
    EXPECT_GE(tree["leaves"], 1);
    EXPECT_GT(tree["nodes"], tree["leaves"]);
    EXPECT_GE(tree["largestLeaf"], 1);
    EXPECT_LE(tree["largestLeaf"], objFaces);
    // The tree covers the whole tile, from the origin to the crop size.
    for (int i = 0; i < 3; ++i) {
        EXPECT_LT(tree["min"][i].get<double>(), 0.0);
        EXPECT_GT(tree["max"][i].get<double>(), j["cropSize"][i].get<double>());
    }
    EXPECT_EQ(j["pointCloud"]["valid"], true);
    expectNear(j["pointCloud"]["min"], {-5, -5, 0});
    expectNear(j["pointCloud"]["max"], {5, 5, 4});

    const Result text = mosaiq({"inspect", scene_, "--tile", "Mosaiq001"});
    ASSERT_EQ(text.code, 0) << text.err;
    for (const std::string& s : {"faces        " + std::to_string(objFaces), std::string("octree"),
                                 std::string("depth 1")})
        EXPECT_NE(text.out.find(s), std::string::npos) << s << " in " << text.out;
}

TEST_F(CropCli, PatternProblemsExitWithThreeNamingTheCauseAndWriteNothing) {
    std::ofstream(dir_ / "garbage.obj") << "not a mesh\n";
    struct Case {
        std::vector<std::string> assignments;
        std::string mention;
    };
    const std::vector<Case> cases = {
        {{"Pattern_Source=1", "Pattern_File=" + (dir_ / "missing.obj").string()}, "missing.obj"},
        {{"Pattern_Source=1", "Pattern_File=" + (dir_ / "garbage.obj").string()}, "garbage.obj"},
        {{"Pattern_Source=0", "Pattern="}, "\"Pattern\""},
        {{"Pattern_Source=0", "Pattern=Mosaiq001"}, "\"Mosaiq001\" has no mesh"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mention);
        set(c.assignments);
        const std::string before = readText(scene_);
        for (const std::vector<std::string>& args :
             {std::vector<std::string>{"crop", "reset", scene_, "Mosaiq001"},
              {"crop", "fit", scene_, "Mosaiq001"},
              {"inspect", scene_, "--tile", "Mosaiq001"}}) {
            SCOPED_TRACE(args[0] + " " + args[1]);
            const Result r = mosaiq(args);
            EXPECT_EQ(r.code, 3) << r.err;
            EXPECT_NE(r.err.find("Mosaiq001"), std::string::npos) << r.err;
            EXPECT_NE(r.err.find(c.mention), std::string::npos) << r.err;
        }
        EXPECT_EQ(readText(scene_), before);
    }
}

TEST_F(CropCli, BadNodesAndArgumentsExitWithTwoAndUnwritableOutputWithFour) {
    const std::string before = readText(scene_);
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{"crop", "reset", scene_, "Nobody"}, {"Nobody"}},
        {{"crop", "fit", scene_, "Surface"}, {"Surface", "not a Mosaiq object"}},
        {{"inspect", scene_, "--tile", "Nobody"}, {"Nobody"}},
        {{"inspect", scene_, "--tile", "Pattern"}, {"Pattern", "not a Mosaiq object"}},
        {{"crop", "twist", scene_, "Mosaiq001"}, {"twist"}},
        {{"crop", "reset", scene_}, {"NODE"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1] + " " + c.args.back());
        const Result r = mosaiq(c.args);
        EXPECT_EQ(r.code, 2) << r.err;
        for (const std::string& m : c.mentions)
            EXPECT_NE(r.err.find(m), std::string::npos) << r.err;
    }
    const Result r = mosaiq(
        {"crop", "reset", scene_, "Mosaiq001", "-o", (dir_ / "no/such/out.mosaiq").string()});
    EXPECT_EQ(r.code, 4) << r.err;
    EXPECT_EQ(readText(scene_), before);
}

}  // namespace
