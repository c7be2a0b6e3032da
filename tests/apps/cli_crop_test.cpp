// mosaiq crop and inspect --tile, run as a user runs them, on a copy of the
// example scene and its pattern: what the commands print and write. The crop
// results themselves are the plug-in tests', the failures cli_test's.
#include "support/cli_runner.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using Result = mq::test::CliResult;
using mq::test::readText;

class CropCli : public mq::test::CliFixture {
protected:
    void SetUp() override {
        const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
        for (const char* name : {"simple.mosaiq", "pattern.obj"})
            fs::copy_file(examples / name, dir_ / name);
    }

    void set(const std::vector<std::string>& assignments) {
        std::vector<std::string> args = {"set", scene_, "Mosaiq001"};
        args.insert(args.end(), assignments.begin(), assignments.end());
        const Result r = mosaiq(args);
        ASSERT_EQ(r.code, 0) << r.err;
    }
    // A parameter of Mosaiq001 (the scene's first node) as the file holds it.
    static json param(const std::string& scene, const std::string& name) {
        const json doc = json::parse(readText(scene));
        for (const json& p : doc["nodes"][0]["object"]["paramBlocks"][0]["params"])
            if (p["name"] == name) return p["value"];
        return json();
    }
    // Numbers, nested or not, each within eps of want's.
    static void expectNear(const json& got, const std::vector<double>& want, double eps = 1e-4) {
        std::vector<double> flat;
        for (const json& v : got.flatten()) flat.push_back(v.get<double>());
        ASSERT_EQ(flat.size(), want.size()) << got;
        for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(flat[i], want[i], eps) << i;
    }

    const std::string scene_ = (dir_ / "simple.mosaiq").string();
    const std::string patternFile_ = (dir_ / "pattern.obj").string();
};

// The example pattern: a pyramid 10 x 10 at the base and 4 high, stored Y-up.
TEST_F(CropCli, ResetAndFitPrintAndWriteTheBoxForNodeAndFilePatterns) {
    set({"Crop_Size=1,2,3", "Crop_Transfrom=0,1,0,-1,0,0,0,0,1,5,6,7"});
    const std::string before = readText(scene_);
    const std::string out = (dir_ / "out.mosaiq").string();
    const Result r = mosaiq({"crop", "reset", scene_, "Mosaiq001", "-o", out});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("Mosaiq001.Crop_Size = 10, 10, 4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Mosaiq001.Crop_Transfrom"), std::string::npos) << r.out;
    EXPECT_EQ(readText(scene_), before) << "-o must leave the input alone";
    expectNear(param(out, "Crop_Transfrom"), {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 2});
    EXPECT_EQ(json::parse(readText(out))["nodes"].size(), 3u) << "no merged node may be saved";

    // A file pattern stands upright in its own object space too; fit keeps
    // the quarter turn about Z and fits the sampled points, so nearly.
    set({"Pattern_Source=1", "Pattern_File=" + patternFile_});
    ASSERT_EQ(mosaiq({"crop", "fit", scene_, "Mosaiq001"}).code, 0);
    expectNear(param(scene_, "Crop_Size"), {10, 10, 4}, 0.1);
    expectNear(param(scene_, "Crop_Transfrom"), {0, 1, 0, -1, 0, 0, 0, 0, 1, 0, 0, 2}, 0.05);
    EXPECT_EQ(json::parse(readText(scene_))["nodes"].size(), 3u);
}

TEST_F(CropCli, InspectTilePrintsTheCapturedPatternAsJsonAndText) {
    const Result r = mosaiq({"inspect", scene_, "--tile", "Mosaiq001", "--json"});
    ASSERT_EQ(r.code, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["node"], "Mosaiq001");
    EXPECT_EQ(j["faces"], 6);
    EXPECT_EQ(j["vertices"], 5);
    expectNear(j["cropSize"], {10, 10, 4.04});  // 1 % taller than the pyramid
    expectNear(j["segments"]["size"], {10, 10, 4.04});
    EXPECT_GE(j["octree"]["depth"], 1);
    EXPECT_EQ(j["pointCloud"]["valid"], true);
    expectNear(j["pointCloud"]["min"], {-5, -5, 0});
    expectNear(j["pointCloud"]["max"], {5, 5, 4});

    const Result text = mosaiq({"inspect", scene_, "--tile", "Mosaiq001"});
    ASSERT_EQ(text.code, 0) << text.err;
    for (const char* s : {"faces        6", "octree", "depth 1"})
        EXPECT_NE(text.out.find(s), std::string::npos) << s << " in " << text.out;
}

// The pyramid's base lies exactly in the reset box's bottom, where rounding
// decides hits on curved surfaces: every command that captures says so and
// names the cure, and the cure silences it.
TEST_F(CropCli, FacesInTheCropBoxWarnUntilAMarginMakesTheBoxTaller) {
    ASSERT_EQ(mosaiq({"crop", "reset", scene_, "Mosaiq001"}).code, 0);
    const std::string warning =
        "2 pattern faces lie exactly in a face of the crop box (2 in its "
        "bottom)";
    const Result tile = mosaiq({"inspect", scene_, "--tile", "Mosaiq001", "--json"});
    EXPECT_EQ(json::parse(tile.out)["facesOnCropFaces"], json({0, 0, 0, 0, 2, 0}));
    EXPECT_NE(tile.err.find(warning), std::string::npos) << tile.err;
    const Result inspect = mosaiq({"inspect", scene_});
    EXPECT_NE(inspect.err.find("mosaiq crop fit " + scene_ + " Mosaiq001 --margin 1"),
              std::string::npos)
        << inspect.err;
    const std::vector<std::string> render = {
        "render", scene_, "-o",     (dir_ / "r.png").string(), "--resolution", "16x12",
        "--spp",  "1",    "--quiet"};
    EXPECT_NE(mosaiq(render).err.find(warning), std::string::npos);

    const Result crop = mosaiq({"crop", "reset", scene_, "Mosaiq001", "--margin", "1"});
    ASSERT_EQ(crop.code, 0) << crop.err;
    EXPECT_NE(crop.out.find("Mosaiq001.Crop_Size = 10, 10, 4.04"), std::string::npos) << crop.out;
    expectNear(param(scene_, "Crop_Transfrom"), {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 2});
    for (const Result& r : {mosaiq({"inspect", scene_}), mosaiq(render)})
        EXPECT_EQ(r.err.find("crop box"), std::string::npos) << r.err;
}

TEST_F(CropCli, APatternFileWithoutFacesIsAnEmptyTileThatRendersNothingWithAWarning) {
    const fs::path points =
        dir_.write("points.mosaiq",
                   R"({"format": "mosaiq-scene", "version": 1, "nodes": [{"name": "Points",
            "object": {"class": {"superClass": 16, "id": [9, 0]},
                       "mesh": {"inline": {"verts": [[0, 0, 0], [1, 0, 0]], "faces": []}}}}]})");
    set({"Pattern_Source=1", "Pattern_File=" + points.string()});
    // Stored relative to the scene beside it.
    const std::string warning = "\"points.mosaiq\" holds a mesh without faces";
    const Result tile = mosaiq({"inspect", scene_, "--tile", "Mosaiq001", "--json"});
    ASSERT_EQ(tile.code, 0) << tile.err;
    EXPECT_EQ(json::parse(tile.out)["faces"], 0);
    EXPECT_NE(tile.err.find(warning), std::string::npos) << tile.err;
    const Result render = mosaiq({"render", scene_, "-o", (dir_ / "r.png").string(), "--resolution",
                                  "16x12", "--spp", "1", "--quiet"});
    EXPECT_EQ(render.code, 0) << render.err;
    EXPECT_NE(render.err.find(warning), std::string::npos) << render.err;
    // Nothing to fit a crop box to.
    EXPECT_EQ(mosaiq({"crop", "reset", scene_, "Mosaiq001"}).code, 3);
}

}  // namespace
