// The mosaiq command line, run as a user runs it: a separate process, its
// output and its exit code.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

struct Result {
    int code = -1;
    std::string out, err;
};

std::string readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeText(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "mosaiq-cli-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    fs::path path(const std::string& name) const { return dir_ / name; }

    // Runs the real binary; stdout and stderr go to files so neither can block.
    Result mosaiq(const std::vector<std::string>& args) {
        const std::string bin = MOSAIQ_BIN_DIR "/mosaiq";
        const std::string outFile = (dir_ / ".stdout").string(),
                          errFile = (dir_ / ".stderr").string();
        std::vector<std::string> all = {bin};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) argv.push_back(a.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        pid_t pid = 0;
        Result r;
        const int spawned = posix_spawn(&pid, bin.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0) {
            ADD_FAILURE() << "cannot run " << bin;
            return r;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.out = readText(outFile);
        r.err = readText(errFile);
        return r;
    }

    // inspect --json, parsed; fails the test when the command fails.
    json inspectJson(const fs::path& scene) {
        const Result r = mosaiq({"inspect", scene.string(), "--json"});
        EXPECT_EQ(r.code, 0) << r.err;
        return r.code == 0 ? json::parse(r.out) : json();
    }

    // Parameters of the node's object by internal name.
    static std::map<std::string, json> params(const json& doc, const std::string& node) {
        std::map<std::string, json> out;
        for (const json& n : doc["nodes"]) {
            if (n["name"] != node) continue;
            for (const json& block : n["object"]["paramBlocks"])
                for (const json& p : block["params"]) out[p["name"]] = p;
        }
        return out;
    }

    fs::path newScene(const std::string& name = "scene.mosaiq") {
        const fs::path scene = path(name);
        const Result r = mosaiq({"new", scene.string()});
        EXPECT_EQ(r.code, 0) << r.err;
        return scene;
    }

    fs::path writeObj(const std::string& name, const std::string& object) {
        const fs::path file = path(name);
        writeText(file, "o " + object +
                            "\nv 0 0 0\nv 10 0 0\nv 10 0 10\nv 0 0 10\nvt 0 0\nvt 1 0\nvt 1 1\n"
                            "vt 0 1\nf 1/1 2/2 3/3 4/4\n");
        return file;
    }

    fs::path dir_;
};

TEST_F(CliTest, VersionAndHelp) {
    const Result version = mosaiq({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out.rfind("mosaiq ", 0), 0u) << version.out;
    const Result help = mosaiq({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char* cmd : {"inspect", "new", "import", "set"})
        EXPECT_NE(help.out.find(cmd), std::string::npos) << cmd;
}

TEST_F(CliTest, NewSceneHoldsOneDefaultMosaiqObject) {
    const json doc = inspectJson(newScene());
    ASSERT_EQ(doc["nodes"].size(), 1u);
    const json& node = doc["nodes"][0];
    EXPECT_EQ(node["name"], "Mosaiq001");
    EXPECT_EQ(node["object"]["class"]["name"], "PatternPattern");
    EXPECT_EQ(node["object"]["class"]["superClass"], 16);
    EXPECT_EQ(node["object"]["class"]["id"], json::array({0x4E307640u, 0x2A77304Fu}));
    ASSERT_EQ(node["object"]["paramBlocks"].size(), 1u);
    EXPECT_EQ(node["object"]["paramBlocks"][0]["id"], 0);
    EXPECT_EQ(node["object"]["paramBlocks"][0]["name"], "parameters");

    // id, type and default value of every parameter; no parameter 2.
    const json identity = json::parse("[[1,0,0],[0,1,0],[0,0,1],[0,0,0]]");
    const std::map<std::string, std::tuple<int, std::string, json>> expected = {
        {"Pattern_On", {0, "bool", 1}},
        {"Pattern_Source", {17, "int", 0}},
        {"Pattern", {1, "node", nullptr}},
        {"Pattern_File", {18, "filename", "/"}},
        {"Crop_Size", {3, "world", {100, 100, 100}}},
        {"Crop_Transfrom", {6, "matrix3", identity}},
        {"Height", {4, "world", 100}},
        {"Shift", {5, "world", 0}},
        {"Use_Surface_Mapping", {7, "bool", 1}},
        {"Surface", {8, "node", nullptr}},
        {"Map_Channel", {9, "int", 1}},
        {"Real_World_Scale", {16, "bool", 0}},
        {"Tiling", {10, "float", {1, 1}}},
        {"Poli_ID", {11, "int", {1, 1}}},
        {"Random_Segment_Count", {12, "int", {1, 1}}},
        {"UV_Random_Seed", {13, "int", 42}},
        {"Dummy_Size", {14, "world", 1}},
        {"Texture_Size", {15, "int", 256}},
    };
    const auto got = params(doc, "Mosaiq001");
    ASSERT_EQ(got.size(), expected.size());
    for (const auto& [name, want] : expected) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(got.count(name));
        const json& p = got.at(name);
        EXPECT_EQ(p["id"], std::get<0>(want));
        EXPECT_EQ(p["type"], std::get<1>(want));
        EXPECT_EQ(p["value"], std::get<2>(want));
    }
}

TEST_F(CliTest, NewOverwritesAndSaysSo) {
    const fs::path scene = path("scene.mosaiq");
    writeText(scene, "old");
    const Result r = mosaiq({"new", scene.string()});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("overwriting"), std::string::npos) << r.err;
    EXPECT_EQ(inspectJson(scene)["nodes"].size(), 1u);
}

TEST_F(CliTest, SetClampsWithAWarningAndStoresTheClampedValue) {
    const fs::path scene = newScene();
    const Result r = mosaiq({"set", scene.string(), "Mosaiq001", "Texture_Size=3", "Shift=-200000",
                             "Map_Channel=0", "Height=55.5"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("warning"), std::string::npos) << r.err;
    for (const char* name : {"Texture_Size", "Shift", "Map_Channel"})
        EXPECT_NE(r.err.find(name), std::string::npos) << name << " in " << r.err;
    EXPECT_EQ(r.err.find("Height"), std::string::npos) << r.err;

    const auto p = params(inspectJson(scene), "Mosaiq001");
    EXPECT_EQ(p.at("Texture_Size")["value"], 4);
    EXPECT_EQ(p.at("Shift")["value"], -100000);
    EXPECT_EQ(p.at("Map_Channel")["value"], 1);
    EXPECT_EQ(p.at("Height")["value"], double(55.5f));
}

TEST_F(CliTest, SetTablesMatricesAndNodeProperties) {
    const fs::path scene = newScene();
    ASSERT_EQ(mosaiq({"set", scene.string(), "Mosaiq001", "Crop_Size=30,30,30", "Tiling=2, 3",
                      "Crop_Transfrom=0,1,0,-1,0,0,0,0,1,5,6,7", "renderable=false",
                      "transform=1,0,0,0,1,0,0,0,1,10,20,30"})
                  .code,
              0);
    const fs::path out = path("out.mosaiq");
    const std::string before = readText(scene);
    const Result r =
        mosaiq({"set", scene.string(), "Mosaiq001", "Crop_Size[2]=10", "-o", out.string()});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(readText(scene), before) << "-o must leave the input alone";

    const json doc = inspectJson(out);
    const auto p = params(doc, "Mosaiq001");
    EXPECT_EQ(p.at("Crop_Size")["value"], json({30, 30, 10}));
    EXPECT_EQ(p.at("Tiling")["value"], json({2, 3}));
    EXPECT_EQ(p.at("Crop_Transfrom")["value"], json::parse("[[0,1,0],[-1,0,0],[0,0,1],[5,6,7]]"));
    const json& node = doc["nodes"][0];
    EXPECT_EQ(node["renderable"], false);
    EXPECT_EQ(node["transform"]["local"], json::parse("[[1,0,0],[0,1,0],[0,0,1],[10,20,30]]"));
    EXPECT_EQ(node["transform"]["world"], node["transform"]["local"]);
}

TEST_F(CliTest, ImportMergesMeshesUnderUniqueNamesAndRefersToThem) {
    const fs::path scene = newScene();
    const fs::path obj = writeObj("tile.obj", "Tile");
    const Result r = mosaiq({"import", scene.string(), obj.string(), obj.string()});
    ASSERT_EQ(r.code, 0) << r.err;

    // The asset is referred to, relative to the scene, not copied in.
    const json saved = json::parse(readText(scene));
    ASSERT_EQ(saved["nodes"].size(), 3u);
    EXPECT_EQ(saved["nodes"][1]["object"]["mesh"]["file"], "tile.obj");

    ASSERT_EQ(mosaiq({"set", scene.string(), "Mosaiq001", "Pattern=Tile", "Surface=Tile001"}).code,
              0);
    const json doc = inspectJson(scene);
    std::vector<std::string> names;
    for (const json& n : doc["nodes"]) names.push_back(n["name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"Mosaiq001", "Tile", "Tile001"}));
    const json& tile = doc["nodes"][1]["object"];
    EXPECT_EQ(tile["class"]["id"], json({9, 0}));
    EXPECT_EQ(tile["mesh"]["verts"], 4);
    EXPECT_EQ(tile["mesh"]["faces"], 2);
    const auto p = params(doc, "Mosaiq001");
    EXPECT_EQ(p.at("Pattern")["value"], "Tile");
    EXPECT_EQ(p.at("Surface")["value"], "Tile001");

    // A scene that does not exist yet is started empty.
    const fs::path fresh = path("fresh.mosaiq");
    ASSERT_EQ(mosaiq({"import", fresh.string(), obj.string()}).code, 0);
    EXPECT_EQ(inspectJson(fresh)["nodes"].size(), 1u);
}

TEST_F(CliTest, UsageErrorsExitWithTwo) {
    const fs::path scene = newScene();
    const std::string before = readText(scene);
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{}, {}},
        {{"render", scene.string()}, {}},
        {{"inspect"}, {"SCENE"}},
        {{"set", scene.string(), "Mosaiq001"}, {}},
        {{"set", scene.string(), "Mosaiq001", "Crop_Size"}, {"KEY=VALUE", "Crop_Size"}},
        {{"set", scene.string(), "Mosaiq001", "Nope=1"},
         {"Mosaiq001", "Nope", "renderable", "Crop_Size", "Crop_Transfrom", "Poli_ID"}},
        {{"set", scene.string(), "Nobody", "Height=1"}, {"Nobody"}},
        {{"set", scene.string(), "Mosaiq001", "Height=tall"}, {"Mosaiq001", "Height", "tall"}},
        {{"set", scene.string(), "Mosaiq001", "Map_Channel=1.5"}, {"Map_Channel", "1.5"}},
        {{"set", scene.string(), "Mosaiq001", "Crop_Size=1,2"}, {"Crop_Size", "3"}},
        {{"set", scene.string(), "Mosaiq001", "Crop_Size[3]=1"}, {"Crop_Size", "0 to 2"}},
        {{"set", scene.string(), "Mosaiq001", "Height[0]=1"}, {"Height", "not a table"}},
        {{"set", scene.string(), "Mosaiq001", "Pattern=Ghost"}, {"Pattern", "Ghost"}},
        {{"set", scene.string(), "Mosaiq001", "material=Gold"}, {"Gold"}},
        {{"set", scene.string(), "Mosaiq001", "transform=1,2,3"}, {"transform", "12"}},
        // A good assignment before a bad one is not written either.
        {{"set", scene.string(), "Mosaiq001", "Height=50", "UV_Random_Seed=x"}, {"UV_Random_Seed"}},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        SCOPED_TRACE(line);
        const Result r = mosaiq(c.args);
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find("mosaiq: error: "), std::string::npos) << r.err;
        for (const std::string& m : c.mentions)
            EXPECT_NE(r.err.find(m), std::string::npos) << r.err;
    }
    EXPECT_EQ(readText(scene), before);
}

TEST_F(CliTest, InputErrorsExitWithThree) {
    const fs::path scene = newScene();
    const std::string before = readText(scene);
    writeText(path("broken.mosaiq"), "{\"format\": \"mosaiq-scene\",");
    writeText(path("garbage.obj"), "not a mesh at all");
    json dangling = json::parse(before);
    dangling["nodes"][0]["object"]["paramBlocks"][0]["params"][2]["value"] = "Ghost";
    writeText(path("dangling.mosaiq"), dangling.dump());

    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> mentions;
    };
    const std::vector<Case> cases = {
        {{"inspect", path("missing.mosaiq").string()}, {"missing.mosaiq"}},
        {{"inspect", path("broken.mosaiq").string()}, {"broken.mosaiq", "JSON", "line 1"}},
        {{"inspect", path("dangling.mosaiq").string()},
         {"dangling.mosaiq", "/nodes/0/object/paramBlocks/0/params/2/value", "Ghost"}},
        {{"set", path("missing.mosaiq").string(), "Mosaiq001", "Height=1"}, {"missing.mosaiq"}},
        {{"import", scene.string(), path("nothere.obj").string()}, {"nothere.obj"}},
        {{"import", scene.string(), path("garbage.obj").string()}, {"garbage.obj"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        const Result r = mosaiq(c.args);
        EXPECT_EQ(r.code, 3) << r.err;
        EXPECT_NE(r.err.find("mosaiq: error: "), std::string::npos) << r.err;
        for (const std::string& m : c.mentions)
            EXPECT_NE(r.err.find(m), std::string::npos) << r.err;
    }
    EXPECT_EQ(readText(scene), before) << "a failed import must not write the scene";
    EXPECT_FALSE(fs::exists(path("missing.mosaiq")));
}

TEST_F(CliTest, OutputErrorsExitWithFour) {
    const fs::path scene = newScene();
    fs::create_directories(path("folder.mosaiq"));
    const std::vector<std::vector<std::string>> cases = {
        {"new", path("no/such/folder/s.mosaiq").string()},
        {"new", path("folder.mosaiq").string()},
        {"set", scene.string(), "Mosaiq001", "Height=5", "-o", path("no/such/out.mosaiq").string()},
        {"import", path("no/such/new.mosaiq").string(), writeObj("tile.obj", "Tile").string()},
    };
    for (const auto& args : cases) {
        SCOPED_TRACE(args[0] + " " + args[1]);
        const Result r = mosaiq(args);
        EXPECT_EQ(r.code, 4) << r.err;
        EXPECT_NE(r.err.find("mosaiq: error: "), std::string::npos) << r.err;
    }
    EXPECT_FALSE(fs::exists(path("no")));
    EXPECT_TRUE(fs::is_directory(path("folder.mosaiq")));
}

TEST_F(CliTest, InspectForPeopleNamesEverything) {
    const fs::path scene = newScene();
    const Result r = mosaiq({"inspect", scene.string()});
    ASSERT_EQ(r.code, 0) << r.err;
    for (const char* text : {"Mosaiq001", "PatternPattern", "0x4E307640", "0x2A77304F", "local",
                             "world", "Crop_Transfrom", "Poli_ID", "\"/\""})
        EXPECT_NE(r.out.find(text), std::string::npos) << text;
}

TEST_F(CliTest, ExampleSceneLoadsWithItsReferences) {
    const json doc = inspectJson(fs::path(MOSAIQ_SOURCE_DIR) / "examples" / "simple.mosaiq");
    const auto p = params(doc, "Mosaiq001");
    ASSERT_FALSE(p.empty());
    EXPECT_EQ(p.at("Pattern")["value"], "Pattern");
    EXPECT_EQ(p.at("Surface")["value"], "Surface");
    std::map<std::string, json> objects;
    for (const json& n : doc["nodes"]) objects[n["name"]] = n["object"];
    EXPECT_GT(objects.at("Pattern")["mesh"]["faces"], 0);
    EXPECT_TRUE(objects.at("Surface").contains("paramBlocks"));
}

}  // namespace
