// The mosaiq command line, run as a user runs it: a separate process, its
// output and its exit code. Every command's failures are tabled here, by
// exit code; the other files test what the commands make when they work.
#include "support/cli_runner.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using mq::test::readText;
using mq::test::writeText;

using Result = mq::test::CliResult;
using Args = std::vector<std::string>;

class CliTest : public mq::test::CliFixture {
protected:
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

    fs::path newScene() {
        const fs::path scene = path("scene.mosaiq");
        const Result r = mosaiq({"new", scene.string()});
        EXPECT_EQ(r.code, 0) << r.err;
        return scene;
    }

    fs::path writeObj(const std::string& name, const std::string& object) {
        return dir_.write(name, "o " + object +
                                    "\nv 0 0 0\nv 10 0 0\nv 10 0 10\nv 0 0 10\nvt 0 0\nvt 1 0\n"
                                    "vt 1 1\nvt 0 1\nf 1/1 2/2 3/3 4/4\n");
    }
};

TEST_F(CliTest, NewWritesOneMosaiqObjectAndInspectPrintsExactlyItsDefaults) {
    EXPECT_EQ(mosaiq({"--version"}).out.rfind("mosaiq ", 0), 0u);
    writeText(path("scene.mosaiq"), "old");
    const Result refused = mosaiq({"new", path("scene.mosaiq").string()});
    EXPECT_EQ(refused.code, 4);
    EXPECT_EQ(refused.err, "mosaiq: error: " + path("scene.mosaiq").string() +
                               ": already exists; use --force to replace it\n");
    EXPECT_EQ(readText(path("scene.mosaiq")), "old");
    const Result r = mosaiq({"new", path("scene.mosaiq").string(), "--force"});
    EXPECT_EQ(r.code, 0) << r.err;

    const json doc = inspectJson(path("scene.mosaiq"));
    ASSERT_EQ(doc["nodes"].size(), 1u);
    EXPECT_EQ(doc["nodes"][0]["name"], "Mosaiq001");
    EXPECT_EQ(doc["nodes"][0]["object"]["class"],
              json::parse(R"({"name": "PatternPattern", "className": "Mosaiq", "superClass": 16,
                              "id": [1311798848, 712454223]})"));
    // Every parameter by name: its id and value.
    json got;
    for (const auto& [name, p] : params(doc, "Mosaiq001")) got[name] = {p["id"], p["value"]};
    EXPECT_EQ(got, json::parse(R"({
        "Pattern_On": [0, 1], "Pattern_Source": [17, 0], "Pattern": [1, null],
        "Pattern_File": [18, "/"], "Crop_Size": [3, [100, 100, 100]],
        "Crop_Transfrom": [6, [[1, 0, 0], [0, 1, 0], [0, 0, 1], [0, 0, 0]]],
        "Height": [4, 100], "Shift": [5, 0], "Use_Surface_Mapping": [7, 1], "Surface": [8, null],
        "Map_Channel": [9, 1], "Real_World_Scale": [16, 0], "Tiling": [10, [1, 1]],
        "Poli_ID": [11, [1, 1]], "Random_Segment_Count": [12, [1, 1]], "UV_Random_Seed": [13, 42],
        "Dummy_Size": [14, 1], "Texture_Size": [15, 256]})"));

    const Result text = mosaiq({"inspect", path("scene.mosaiq").string()});
    ASSERT_EQ(text.code, 0) << text.err;
    for (const char* part : {"Mosaiq001", "PatternPattern", "0x4E307640", "0x2A77304F", "local",
                             "world", "Crop_Transfrom", "Poli_ID", "\"/\""})
        EXPECT_NE(text.out.find(part), std::string::npos) << part;
}

TEST_F(CliTest, SetClampsWithAWarningAndParsesTablesMatricesAndNodeProperties) {
    const fs::path scene = newScene();
    Result r = mosaiq({"set", scene.string(), "Mosaiq001", "Texture_Size=3", "Shift=-200000",
                       "Map_Channel=0", "Height=55.5", "Crop_Size=30,30,30", "Tiling=2, 3",
                       "Crop_Transfrom=0,1,0,-1,0,0,0,0,1,5,6,7", "renderable=false",
                       "transform=1,0,0,0,1,0,0,0,1,10,20,30"});
    ASSERT_EQ(r.code, 0) << r.err;
    for (const char* name : {"warning", "Texture_Size", "Shift", "Map_Channel"})
        EXPECT_NE(r.err.find(name), std::string::npos) << name << " in " << r.err;
    EXPECT_EQ(r.err.find("Height"), std::string::npos) << r.err;
    const fs::path out = path("out.mosaiq");
    const std::string before = readText(scene);
    r = mosaiq({"set", scene.string(), "Mosaiq001", "Crop_Size[2]=10", "-o", out.string()});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(readText(scene), before) << "-o must leave the input alone";

    const json doc = inspectJson(out);
    const auto p = params(doc, "Mosaiq001");
    EXPECT_EQ(p.at("Texture_Size")["value"], 4);
    EXPECT_EQ(p.at("Shift")["value"], -100000);
    EXPECT_EQ(p.at("Map_Channel")["value"], 1);
    EXPECT_EQ(p.at("Height")["value"], double(55.5f));
    EXPECT_EQ(p.at("Crop_Size")["value"], json({30, 30, 10}));
    EXPECT_EQ(p.at("Tiling")["value"], json({2, 3}));
    EXPECT_EQ(p.at("Crop_Transfrom")["value"], json::parse("[[0,1,0],[-1,0,0],[0,0,1],[5,6,7]]"));
    const json& node = doc["nodes"][0];
    EXPECT_EQ(node["renderable"], false);
    EXPECT_EQ(node["transform"]["local"], json::parse("[[1,0,0],[0,1,0],[0,0,1],[10,20,30]]"));
    EXPECT_EQ(node["transform"]["world"], node["transform"]["local"]);
}

TEST_F(CliTest, FileParametersAreStoredForTheSceneAndALostPatternIsNamed) {
    const fs::path scene = newScene();
    writeObj("assets/tile.obj", "Tile");
    fs::create_directories(path("work"));
    workDir_ = path("work").string();
    // Given relative to the working folder, stored relative to the scene's.
    Result r = mosaiq({"set", "../scene.mosaiq", "Mosaiq001", "Pattern_Source=1",
                       "Pattern_File=../assets/tile.obj"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(params(json::parse(readText(scene)), "Mosaiq001").at("Pattern_File")["value"],
              "assets/tile.obj");
    // Outside the scene's folder: absolute.
    r = mosaiq({"set", "../scene.mosaiq", "Mosaiq001", "Pattern_File=/elsewhere/lost.obj"});
    ASSERT_EQ(r.code, 0) << r.err;
    workDir_ = MOSAIQ_SOURCE_DIR;

    // Inspect only warns about the lost pattern; render refuses.
    r = mosaiq({"inspect", scene.string()});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.err.find("mosaiq: warning: " + scene.string() +
                         ": Mosaiq001: pattern file \"/elsewhere/lost.obj\" does not exist"),
              std::string::npos)
        << r.err;
}

TEST_F(CliTest, ImportMergesMeshesUnderUniqueNamesAndRefersToThem) {
    fs::create_directories(path("scenes"));
    fs::create_directories(path("assets"));
    const fs::path scene = path("scenes/scene.mosaiq"), obj = writeObj("assets/tile.obj", "Tile");
    ASSERT_EQ(mosaiq({"new", scene.string()}).code, 0);
    const Result r = mosaiq({"import", scene.string(), obj.string(), obj.string()});
    ASSERT_EQ(r.code, 0) << r.err;

    // The asset is referred to, relative to the scene, not copied in; the
    // scene and its assets can move together.
    const json saved = json::parse(readText(scene));
    ASSERT_EQ(saved["nodes"].size(), 3u);
    EXPECT_EQ(saved["nodes"][1]["object"]["mesh"]["file"], "../assets/tile.obj");
    fs::create_directories(path("moved"));
    fs::rename(path("scenes"), path("moved/scenes"));
    fs::rename(path("assets"), path("moved/assets"));
    const fs::path moved = path("moved/scenes/scene.mosaiq");
    ASSERT_EQ(mosaiq({"set", moved.string(), "Mosaiq001", "Pattern=Tile", "Surface=Tile001"}).code,
              0);
    const json doc = inspectJson(moved);
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
    ASSERT_EQ(mosaiq({"import", fresh.string(), path("moved/assets/tile.obj").string()}).code, 0);
    EXPECT_EQ(inspectJson(fresh)["nodes"].size(), 1u);
    // The shipped example refers to its pattern and surface by name too.
    const auto example =
        params(inspectJson(fs::path(MOSAIQ_SOURCE_DIR) / "examples/simple.mosaiq"), "Mosaiq001");
    EXPECT_EQ(example.at("Pattern")["value"], "Pattern");
    EXPECT_EQ(example.at("Surface")["value"], "Surface");
}

// Failures: usage errors exit with 2, unreadable input with 3, unwritable
// output with 4. Each names what is wrong, and none writes or creates
// anything in the folder, where the commands run and default outputs land.
class CliFailures : public CliTest {
protected:
    void SetUp() override {
        workDir_ = dir_.path().string();
        const fs::path examples = fs::path(MOSAIQ_SOURCE_DIR) / "examples";
        for (const char* name : {"simple.mosaiq", "pattern.obj"})
            fs::copy_file(examples / name, path(name));
        newScene();
        writeObj("tile.obj", "Tile");
        dir_.write("garbage.obj", "not a mesh at all");
        dir_.write("broken.mosaiq", "{\"format\": \"mosaiq-scene\",");
        json dangling = json::parse(readText(path("scene.mosaiq")));
        dangling["nodes"][0]["object"]["paramBlocks"][0]["params"][2]["value"] = "Ghost";
        writeText(path("dangling.mosaiq"), dangling.dump());
        json slip = json::parse(readText(path("simple.mosaiq")));
        slip["nodes"][0]["renderabel"] = false;
        writeText(path("slip.mosaiq"), slip.dump());
        fs::create_directories(path("folder.mosaiq"));
        fs::create_directories(path("taken.png"));
        // The example with its pattern unset, itself, missing and unreadable.
        const std::pair<std::string, Args> variants[] = {
            {"unset", {"Pattern="}},
            {"self", {"Pattern=Mosaiq001"}},
            {"lost", {"Pattern_Source=1", "Pattern_File=" + path("missing.obj").string()}},
            {"garbage", {"Pattern_Source=1", "Pattern_File=" + path("garbage.obj").string()}}};
        for (const auto& [name, assignments] : variants) {
            Args args = {"set", "simple.mosaiq", "Mosaiq001", "-o", name + "-pattern.mosaiq"};
            args.insert(args.end(), assignments.begin(), assignments.end());
            ASSERT_EQ(mosaiq(args).code, 0) << name;
        }
        before_ = snapshot();
    }
    void TearDown() override {
        const auto after = snapshot();
        for (const auto& [name, contents] : after)
            EXPECT_TRUE(before_.contains(name) && before_[name] == contents) << name << " written";
        for (const auto& [name, contents] : before_)
            EXPECT_TRUE(after.contains(name)) << name << " removed";
    }

    // Every entry in the folder (folders as "/") with its contents.
    std::map<std::string, std::string> snapshot() const {
        std::map<std::string, std::string> all;
        for (const auto& e : fs::recursive_directory_iterator(dir_.path())) {
            const std::string name = fs::relative(e.path(), dir_.path()).string();
            if (name != ".stdout" && name != ".stderr")
                all[name] = e.is_directory() ? "/" : readText(e.path());
        }
        return all;
    }

    // Each command line exits with code and names every mention.
    void expectFailures(int code, const std::vector<std::pair<Args, Args>>& cases) {
        for (const auto& [args, mentions] : cases) {
            std::string line = "mosaiq";
            for (const auto& a : args) line += " " + a;
            SCOPED_TRACE(line);
            const Result r = mosaiq(args);
            EXPECT_EQ(r.code, code) << r.err;
            EXPECT_NE(r.err.find("mosaiq: error: "), std::string::npos) << r.err;
            for (const std::string& m : mentions)
                EXPECT_NE(r.err.find(m), std::string::npos) << r.err;
        }
    }

    // A quick render of the example to out, plus extra arguments.
    static Args render(const std::string& out, const Args& extra = {}) {
        Args args = {"render", "simple.mosaiq", "--resolution", "48x32", "--spp", "1", "-q", "-o",
                     out};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    const std::string scene = "scene.mosaiq", simple = "simple.mosaiq";
    std::map<std::string, std::string> before_;
};

TEST_F(CliFailures, UsageErrorsExitWithTwo) {
    expectFailures(
        2,
        {
            {{}, {}},
            {{"inspect"}, {"SCENE"}},
            {{"set", scene, "Mosaiq001"}, {}},
            {{"set", scene, "Mosaiq001", "Crop_Size"}, {"KEY=VALUE", "Crop_Size"}},
            {{"set", scene, "Mosaiq001", "Nope=1"},
             {"Mosaiq001", "Nope", "renderable", "Crop_Size", "Crop_Transfrom", "Poli_ID"}},
            {{"set", scene, "Mosaiq001", "Height=tall"}, {"Mosaiq001", "Height", "tall"}},
            {{"set", scene, "Mosaiq001", "Map_Channel=1.5"}, {"Map_Channel", "1.5"}},
            {{"set", scene, "Mosaiq001", "Crop_Size=1,2"}, {"Crop_Size", "3"}},
            {{"set", scene, "Mosaiq001", "Crop_Size[3]=1"}, {"Crop_Size", "0 to 2"}},
            {{"set", scene, "Mosaiq001", "Height[0]=1"}, {"Height", "not a table"}},
            {{"set", scene, "Mosaiq001", "material=Gold"}, {"Gold"}},
            {{"set", scene, "Mosaiq001", "transform=1,2,3"}, {"transform", "12"}},
            // A good assignment before a bad one is not written either.
            {{"set", scene, "Mosaiq001", "Height=50", "UV_Random_Seed=x"}, {"UV_Random_Seed"}},
            {{"crop", "fit", simple, "Surface"}, {"Surface", "not a Mosaiq object"}},
            {{"inspect", simple, "--tile", "Pattern"}, {"Pattern", "not a Mosaiq object"}},
            {{"crop", "twist", simple, "Mosaiq001"}, {"twist"}},
            {{"crop", "reset", simple}, {"NODE"}},
            {{"bake", simple, "Mosaiq001", "-o", "mesh.fbx"}, {"unsupported mesh format \".fbx\""}},
            {{"bake", simple, "Surface", "-o", "mesh.glb"}, {"is not a Mosaiq object"}},
            {{"preview", simple, "Mosaiq001", "--pattern", "pattern.obj"}, {}},
            {{"preview"}, {}},
            {{"preview", "--pattern", "pattern.obj", "--crop", "0,0,1,10,0,4"}, {}},
            {render("bad.png", {"--crop", "40,8,0,10"}), {"--crop"}},
            {render("bad.png", {"--crop", "0,49,0,10"}), {"--crop"}},
            {render("x.tiff"), {"unsupported image format"}},
            {render("seq.png", {"--frames", "3-1"}), {"--frames"}},
            {render("e.png", {"-D", "bogus=1"}), {"bogus"}},
            // Slips get the nearest name.
            {{"rendr", simple}, {"unknown command \"rendr\" (did you mean \"render\"?)"}},
            {{"--strict", "inspct", simple}, {"(did you mean \"inspect\"?)"}},
            {{"set", scene, "Mosaiq001", "Heigth=1"},
             {"no parameter or property \"Heigth\" (did you mean \"Height\"?)"}},
            {render("e.png", {"-D", "sp=4"}), {"\"sp\" (did you mean \"spp\"?)"}},
            {render("e.png", {"-D", "Mosaiq001.Tilling=2,2"}), {"(did you mean \"Tiling\"?)"}},
            {render("e.png", {"-D", "Mosaiq001.Tiling=a,b"}), {"Tiling"}},
            {{"material", scene, "M", "rougness=1"},
             {"\"rougness\"", "did you mean \"roughness\""}},
            {{"material", scene, "M", "roughness=1.5"}, {"roughness=1.5", "from 0 to 1"}},
            {{"material", scene, "M", "emission=1,-1,0"}, {"emission=1,-1,0", "0 or more"}},
            {{"material", scene, "M", "baseColor=1,2"}, {"baseColor=1,2", "r,g,b"}},
            {{"material", scene, "M", "channel=2"}, {"baseColor is not an image"}},
            {{"light", scene, "add", "spot"}, {"\"spot\"", "sun, dome, sphere, point"}},
            {{"light", scene, "add", "sun", "direction=0,0"}, {"direction=0,0", "x,y,z"}},
            {{"light", scene, "add", "point", "radius=1"}, {"\"radius\"", "position"}},
            {{"light", scene, "add", "dome", "sampling=fast"}, {"sampling=fast", "importance"}},
            {{"light", scene, "set", "x", "intensity=1"}, {"\"x\"", "light index"}},
            {{"light", scene, "shine"}, {"shine"}},
            {{"camera", scene, "fov=200"}, {"fov=200", "0.1 to 179"}},
            {{"camera", scene, "target=0,-10,0"}, {"give no view"}},
            {{"camera", scene, "fvo=20"}, {"did you mean \"fov\""}},
        });
}

TEST_F(CliFailures, InputErrorsExitWithThree) {
    expectFailures(
        3,
        {
            {{"inspect", "missing.mosaiq"}, {"missing.mosaiq"}},
            {{"inspect", "broken.mosaiq"}, {"broken.mosaiq", "JSON", "line 1"}},
            {{"inspect", "dangling.mosaiq"},
             {"dangling.mosaiq", "/nodes/0/object/paramBlocks/0/params/2/value", "Ghost"}},
            {{"set", "missing.mosaiq", "Mosaiq001", "Height=1"}, {"missing.mosaiq"}},
            {{"import", scene, "nothere.obj"}, {"nothere.obj"}},
            {{"import", scene, "garbage.obj"}, {"garbage.obj"}},
            {{"render", "missing.mosaiq", "-o", "o.png"}, {"missing.mosaiq"}},
            {{"render", "broken.mosaiq", "-o", "o.png"}, {"broken.mosaiq"}},
            {{"bake", "none.mosaiq", "Mosaiq001", "-o", "mesh.glb"}, {"no such scene file"}},
            // A pattern that cannot be captured, through each command that captures it.
            {{"crop", "reset", "lost-pattern.mosaiq", "Mosaiq001"}, {"Mosaiq001", "missing.obj"}},
            {{"crop", "fit", "garbage-pattern.mosaiq", "Mosaiq001"}, {"Mosaiq001", "garbage.obj"}},
            {{"inspect", "unset-pattern.mosaiq", "--tile", "Mosaiq001"},
             {"Mosaiq001", "\"Pattern\""}},
            {{"crop", "reset", "self-pattern.mosaiq", "Mosaiq001"}, {"\"Mosaiq001\" has no mesh"}},
            {{"bake", "lost-pattern.mosaiq", "Mosaiq001", "-o", "mesh.glb"},
             {"lost-pattern.mosaiq: Mosaiq001: pattern file \"missing.obj\" does not exist"}},
            {{"preview", "unset-pattern.mosaiq", "Mosaiq001", "-o", "out.png"}, {"Mosaiq001"}},
            {{"preview", "--pattern", "missing.obj"}, {"missing.obj"}},
            // A node the scene lacks, with the nearest name it has.
            {{"set", scene, "Mosaiq01", "Height=1"},
             {"no node named \"Mosaiq01\" in the scene (did you mean \"Mosaiq001\"?)"}},
            {{"set", scene, "Mosaiq001", "Pattern=Ghost"}, {"Pattern", "Ghost"}},
            {{"crop", "reset", simple, "Nobody"}, {"Nobody"}},
            {{"inspect", simple, "--tile", "Nobody"}, {"Nobody"}},
            {{"bake", simple, "Nobody", "-o", "mesh.glb"}, {"no node named \"Nobody\""}},
            {render("e.png", {"-D", "Nobody.Tiling=1,1"}), {"Nobody"}},
            // A lost pattern file renders nothing: no success.
            {{"render", "lost-pattern.mosaiq", "-q", "--resolution", "8x8", "-o", "o.png"},
             {"lost-pattern.mosaiq: Mosaiq001: pattern file \"missing.obj\" does not exist"}},
            {render("o.png", {"-D", "Mosaiq001.Pattern_Source=1", "-D",
                              "Mosaiq001.Pattern_File=missing.obj"}),
             {"Mosaiq001: pattern file \"missing.obj\" does not exist"}},
            // --strict: any warning fails before anything is written.
            {{"--strict", "set", scene, "Mosaiq001", "Texture_Size=3"},
             {"1 warning above; --strict made them errors and nothing was written"}},
            {{"render", "slip.mosaiq", "--strict", "-q", "--resolution", "8x8", "-o", "o.png"},
             {"--strict made them errors"}},
            {{"--strict", "inspect", "lost-pattern.mosaiq"}, {"--strict"}},
            // Warnings the render itself gives fail it before any frame is written.
            {render("seq.png", {"--strict", "--frames", "1-2", "-D", "Mosaiq001.Poli_ID=7,8"}),
             {"2 warnings above"}},
            {{"material", scene, "M", "baseColor=nosuch.png"}, {"baseColor=nosuch.png"}},
            {{"material", scene, "M", "baseColor=garbage.obj"}, {"garbage.obj"}},
            {{"material", scene, "M", "--remove"}, {"no material \"M\""}},
            {{"light", scene, "add", "dome", "image=nosuch.hdr"}, {"image=nosuch.hdr"}},
            {{"light", scene, "remove", "0"}, {"no light 0"}},
            {{"assign", simple, "Surfcae", "M"}, {"\"Surfcae\"", "did you mean \"Surface\""}},
            {{"assign", simple, "Surface", "M"}, {"no material named \"M\""}},
        });
}

TEST_F(CliFailures, OutputErrorsExitWithFourAndAreFoundBeforeAnyWork) {
    expectFailures(4, {
                          {{"new", "no/such/folder/s.mosaiq"}, {}},
                          {{"new", "folder.mosaiq"}, {}},
                          {{"set", scene, "Mosaiq001", "Height=5", "-o", "no/such/out.mosaiq"}, {}},
                          {{"import", "no/such/new.mosaiq", "tile.obj"}, {}},
                          {{"crop", "reset", simple, "Mosaiq001", "-o", "no/such/out.mosaiq"}, {}},
                          {{"bake", simple, "Mosaiq001", "-o", "no/mesh.glb"}, {"does not exist"}},
                          {{"bake", simple, "Mosaiq001", "-o", "mesh.glb", "--max-triangles", "10"},
                           {" triangles, more than --max-triangles 10"}},
                          {{"preview", "--pattern", "pattern.obj", "-o", "no/such/dir/p.png"}, {}},
                          {render("no-such-folder/out.png"), {"no-such-folder"}},
                          {render("taken.png"), {"taken.png"}},
                      });
}

TEST_F(CliTest, EveryCommandRefusesASceneRenderWouldRefuseWithOneMessage) {
    const fs::path scene = newScene();
    json doc = json::parse(readText(scene));
    doc["lights"] = json::array({{{"type", "sun"}, {"color", {1, 1, -2147483648LL}}}});
    writeText(scene, doc.dump());
    const std::string before = readText(scene), s = scene.string();
    const std::string obj = writeObj("tile.obj", "Tile").string();
    const std::string out = path("out").string();
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"inspect", s},
             {"set", s, "Mosaiq001", "Height=5"},
             {"crop", "reset", s, "Mosaiq001"},
             {"render", s, "-o", out + ".png"},
             {"preview", s, "Mosaiq001", "-o", out + ".png"},
             {"bake", s, "Mosaiq001", "-o", out + ".glb"},
             {"import", s, obj},
         }) {
        SCOPED_TRACE(args[0]);
        const Result r = mosaiq(args);
        EXPECT_EQ(r.code, 3);
        EXPECT_EQ(r.err, "mosaiq: error: " + s +
                             ": /lights/0/color/2: expected a finite number >= 0, found "
                             "-2147483648\n");
    }
    EXPECT_EQ(readText(scene), before);

    // A merged scene brings its materials along; they are checked as well.
    json other = json::parse(before);
    other["lights"] = json::array();
    other["materials"] = {{"m", {{"roughness", -0.5}}}};
    writeText(path("other.mosaiq"), other.dump());
    const Result merged =
        mosaiq({"import", path("merged.mosaiq").string(), path("other.mosaiq").string()});
    EXPECT_EQ(merged.code, 3);
    EXPECT_NE(merged.err.find("cannot merge " + path("other.mosaiq").string() +
                              ": /materials/m/roughness: expected a number in [0, 1], found -0.5"),
              std::string::npos)
        << merged.err;
    EXPECT_FALSE(fs::exists(path("merged.mosaiq")));
    EXPECT_FALSE(fs::exists(path("out.png")) || fs::exists(path("out.glb")));
}

}  // namespace
