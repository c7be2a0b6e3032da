#include "host/import.h"

#include "host/interface.h"

#include "support/test_util.h"

#include <map>
#include <set>

namespace mq {
namespace {

namespace fs = std::filesystem;

const fs::path kModels = "/usr/share/assimp/models";

using test::expectNear;

class ImportFiles : public ::testing::Test {
protected:
    fs::path write(const std::string& name, const std::string& text) {
        return dir_.write(name, text);
    }
    test::TempDir dir_;
};

const ImportedNode& nodeNamed(const ImportedScene& s, const std::string& name) {
    for (const ImportedNode& n : s.nodes) {
        if (n.name == name) return n;
    }
    throw std::runtime_error("no node " + name);
}

// Depth first, parents first: each node's parent is the node before it or one
// of that node's ancestors.
void expectDepthFirst(const ImportedScene& s) {
    for (int i = 0; i < static_cast<int>(s.nodes.size()); ++i) {
        ASSERT_LT(s.nodes[i].parent, i);
        int a = i - 1;
        while (a != -1 && a != s.nodes[i].parent) a = s.nodes[a].parent;
        EXPECT_EQ(a, s.nodes[i].parent) << "node " << i;
    }
}

TEST_F(ImportFiles, SeamWeldsPositionsButKeepsUvAndColourCorners) {
    // A unit quad in the file's XY plane whose second triangle uses its own UVs.
    const ImportedScene scene =
        importMeshFile(write("quad.obj",
                             "v 0 0 0 1 0 0\nv 1 0 0 0 1 0\nv 1 1 0 0 0 1\nv 0 1 0 1 1 1\n"
                             "vt 0 0\nvt 0.5 0\nvt 0.5 1\nvt 0.5 0.5\nvt 1 0.5\nvt 1 1\n"
                             "f 1/1 2/2 3/3\nf 1/4 3/5 4/6\n"));
    ASSERT_EQ(scene.nodes.size(), 1u);
    ASSERT_TRUE(scene.nodes[0].mesh);
    const Mesh& mesh = *scene.nodes[0].mesh;
    EXPECT_EQ(mesh.verts.size(), 4u);
    ASSERT_EQ(mesh.faces.size(), 2u);
    ASSERT_TRUE(mesh.validate().empty());
    ASSERT_TRUE(mesh.Map(1).supported && mesh.Map(0).supported);
    EXPECT_EQ(mesh.Map(1).verts.size(), 6u);
    EXPECT_TRUE(!mesh.GetSpecifiedNormals() || !mesh.GetSpecifiedNormals()->IsExplicit());

    // OBJ is Y-up: the file's (x, y, z) is (x, -z, y) here, turned in the
    // vertices, not the node. Every corner keeps the file's UV and colour.
    EXPECT_TRUE(scene.nodes[0].transform.IsIdentity());
    const std::map<std::pair<float, float>, std::set<std::pair<float, float>>> expected = {
        {{0, 0}, {{0, 0}, {0.5f, 0.5f}}},
        {{1, 0}, {{0.5f, 0}}},
        {{1, 1}, {{0.5f, 1}, {1, 0.5f}}},
        {{0, 1}, {{1, 1}}}};
    const std::map<std::pair<float, float>, Point3> colour = {
        {{0, 0}, {1, 0, 0}}, {{1, 0}, {0, 1, 0}}, {{1, 1}, {0, 0, 1}}, {{0, 1}, {1, 1, 1}}};
    std::map<std::pair<float, float>, std::set<std::pair<float, float>>> seen;
    for (size_t f = 0; f < mesh.faces.size(); ++f) {
        EXPECT_EQ(mesh.faces[f].smGroup, 1u);
        for (int k = 0; k < 3; ++k) {
            const Point3 p = mesh.verts[mesh.faces[f].v[k]];
            const Point3 uv = mesh.Map(1).verts[mesh.Map(1).faces[f].t[k]];
            EXPECT_EQ(p.y, 0.0f);
            EXPECT_EQ(mesh.Map(0).verts[mesh.Map(0).faces[f].t[k]], colour.at({p.x, p.z}));
            seen[{p.x, p.z}].insert({uv.x, uv.y});
        }
    }
    EXPECT_EQ(seen, expected);
}

TEST_F(ImportFiles, ObjectsBecomeNodesAndMaterialsBecomeIds) {
    write("m.mtl", "newmtl red\nnewmtl green\nnewmtl blue\n");
    // B: three triangles in the file's XY plane, one per material; UVs equal
    // the file's positions, the blue one has no normals. Here, Z-up, the
    // file's (x, y, z) is (x, -z, y).
    const fs::path obj = write("two.obj",
                               "mtllib m.mtl\n"
                               "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 0 2 0\n"
                               "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 0 2\nvn 0 0 1\nvn 0.6 0 0.8\n"
                               "o A\nusemtl red\nf 1//1 2//1 3//1\n"
                               "o B\nusemtl red\nf 1/1/1 2/2/1 3/3/1\n"
                               "usemtl green\nf 1/1/2 3/3/2 4/4/2\nusemtl blue\nf 3/3 5/5 4/4\n");
    const ImportedScene scene = importMeshFile(obj);
    ASSERT_EQ(scene.nodes.size(), 2u);
    const ImportedNode& a = nodeNamed(scene, "A");
    const ImportedNode& b = nodeNamed(scene, "B");
    ASSERT_TRUE(a.mesh && b.mesh && a.parent == -1 && b.parent == -1);
    EXPECT_EQ(a.mesh->faces.size(), 1u);

    // B's materials arrive as three Assimp meshes; they merge and weld.
    const Mesh& mesh = *b.mesh;
    EXPECT_EQ(mesh.verts.size(), 5u);
    ASSERT_EQ(mesh.faces.size(), 3u);
    ASSERT_TRUE(mesh.validate().empty());
    const MeshNormalSpec* nspec = mesh.GetSpecifiedNormals();
    ASSERT_TRUE(nspec && nspec->IsExplicit());
    ASSERT_EQ(nspec->GetNumFaces(), 3);
    // File normals are explicit per-corner normals; the blue face gets smooth
    // ones from the geometry, here the plane's.
    const std::map<std::string, Point3> normalOf = {
        {"red", {0, -1, 0}}, {"green", {0.6f, -0.8f, 0}}, {"blue", {0, -1, 0}}};
    std::set<std::string> names;
    for (int f = 0; f < 3; ++f) {
        ASSERT_LT(mesh.faces[f].getMatID(), scene.materials.size());
        const std::string& name = scene.materials[mesh.faces[f].getMatID()].name;
        ASSERT_TRUE(normalOf.contains(name)) << name;
        names.insert(name);
        // Each part's UVs and normals stay with its own corners.
        for (int k = 0; k < 3; ++k) {
            const Point3 p = mesh.verts[mesh.faces[f].v[k]];
            EXPECT_EQ(mesh.Map(1).verts[mesh.Map(1).faces[f].t[k]], Point3(p.x, p.z, 0));
            expectNear(nspec->Normal(nspec->GetNormalIndex(f, k)), normalOf.at(name));
        }
    }
    EXPECT_EQ(names.size(), 3u);
}

TEST_F(ImportFiles, BadFilesThrowNamingTheFileAndNonFinitePositionsDropTheirFaces) {
    const std::vector<fs::path> bad = {
        dir_ / "missing.obj",
        dir_.path(),
        write("empty.obj", ""),
        write("garbage.obj", std::string("\x7f\x01\xff garbage\0\n f 9 9 9\n", 22)),
        write("garbage.glb", std::string("glTF\x02\0\0\0 not really", 19)),
        write("lines.obj", "v 0 0 0\nv 1 0 0\nl 1 2\n"),
        write("allnan.obj", "v nan 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"),
    };
    for (const fs::path& p : bad) {
        const std::string what = test::messageOf<ImportError>([&] { importMeshFile(p); });
        EXPECT_NE(what.find(p.string()), std::string::npos) << what;
    }
    // Non-finite positions drop only their own faces.
    const ImportedScene scene =
        importMeshFile(write("nan.obj",
                             "v 0 0 0\nv 1 0 0\nv 1 1 0\nv nan 1 0\nv 0 inf 0\n"
                             "f 1 2 3\nf 1 3 4\nf 1 5 2\n"));
    ASSERT_EQ(scene.nodes.size(), 1u);
    ASSERT_TRUE(scene.nodes[0].mesh);
    EXPECT_EQ(scene.nodes[0].mesh->faces.size(), 1u);
    EXPECT_EQ(scene.nodes[0].mesh->verts.size(), 3u);
    EXPECT_TRUE(scene.nodes[0].mesh->validate().empty());
}

TEST(ImportGltf, SecondUvSetHierarchyAndRootTransform) {
    const fs::path box = kModels / "glTF2/BoxTexcoords-glTF/boxTexcoords.gltf";
    const fs::path rooted = kModels / "glTF2/BoxTextured-glTF/BoxTextured.gltf";
    const fs::path skin = kModels / "glTF2/simple_skin/simple_skin.gltf";
    const fs::path nested = kModels / "glTF2/textureTransform/TextureTransformTest.gltf";
    for (const fs::path& f : {box, rooted, skin, nested})
        if (!fs::exists(f)) GTEST_SKIP() << f << " not installed";

    const ImportedScene scene = importMeshFile(box);
    const Mesh* cube = nodeNamed(scene, "Cube").mesh.get();
    ASSERT_TRUE(cube && cube->validate().empty());
    EXPECT_TRUE(cube->Map(1).supported && cube->Map(2).supported && !cube->Map(3).supported);
    // Lights stay as empty nodes; the Y-up translation turns Z-up.
    const ImportedNode& light = nodeNamed(scene, "Light");
    EXPECT_TRUE(!light.mesh && light.parent == -1);
    expectNear(light.transform.GetTrans(), Point3(4.076245f, 1.005454f, 5.903862f), 1e-4f);

    // This root node turns Z-up to Y-up; conjugated by our turn, the box
    // stays where its author put it.
    const ImportedScene one = importMeshFile(rooted);
    ASSERT_TRUE(one.nodes.size() == 1u && one.nodes[0].mesh);
    expectNear(Point3(0, 0, 1) * one.nodes[0].transform, Point3(0, 1, 0));
    expectNear(Point3(0, 1, 0) * one.nodes[0].transform, Point3(0, 0, -1));
    EXPECT_EQ(one.materials[one.nodes[0].mesh->faces[0].getMatID()].name, "Texture");

    // A child's Y-up offset reads as a Z-up one.
    const ImportedScene chain = importMeshFile(skin);
    ASSERT_EQ(chain.nodes.size(), 3u);
    EXPECT_TRUE(chain.nodes[1].parent == 0 && chain.nodes[2].parent == 1);
    EXPECT_TRUE(chain.nodes[0].mesh && !chain.nodes[1].mesh);
    expectNear(chain.nodes[1].transform.GetTrans(), Point3(0, 0, 1));
    expectDepthFirst(chain);
    expectDepthFirst(importMeshFile(nested));
}

TEST(ImportInvalid, NeverCrashes) {
    std::vector<fs::path> files;
    for (const char* dir :
         {"invalid", "glTF2/IndexOutOfRange", "glTF2/BoxWithInfinites-glTF-Binary",
          "glTF2/RecursiveNodes", "glTF2/MissingBin", "glTF2/wrongTypes", "glTF2/SchemaFailures",
          "OFF/invalid.off"}) {
        const fs::path p = kModels / dir;
        if (fs::is_regular_file(p)) files.push_back(p);
        if (!fs::is_directory(p)) continue;
        for (const auto& e : fs::recursive_directory_iterator(p)) {
            if (e.is_regular_file()) files.push_back(e.path());
        }
    }
    if (files.empty()) GTEST_SKIP() << "assimp test models not installed";
    for (const fs::path& p : files) {
        try {
            const ImportedScene scene = importMeshFile(p);
            expectDepthFirst(scene);
            for (const ImportedNode& n : scene.nodes) {
                if (n.mesh) {
                    EXPECT_TRUE(n.mesh->validate().empty()) << p;
                }
            }
        } catch (const ImportError& e) {
            EXPECT_NE(std::string(e.what()).find(p.string()), std::string::npos) << e.what();
        }
    }
}

// Materials come along with the meshes, embedded images are written out once,
// and names stay unique when the same file is imported again.
TEST(ImportMaterials, GltfMaterialsTexturesAndMergedNames) {
    const fs::path fixtures = fs::path(MOSAIQ_SOURCE_DIR) / "tests/fixtures/textured";
    test::TempDir dir;
    fs::create_directories(dir / "models");
    for (const char* f : {"quad.gltf", "checker.png"})
        fs::copy_file(fixtures / f, dir / "models" / f);
    HostInterface ip;
    ip.scene().folder = dir.path();
    const fs::path textures = dir / "s-textures";
    ASSERT_EQ(ip.ImportFromFile((fixtures / "quad.glb").string(), textures), 1) << ip.lastError();
    ASSERT_EQ(ip.ImportFromFile((fixtures / "quad.glb").string(), textures), 1) << ip.lastError();
    ASSERT_EQ(ip.ImportFromFile((dir / "models/quad.gltf").string(), textures), 1);
    ip.scene().materials["Glow"]["roughness"] = 0.1;
    ASSERT_EQ(ip.ImportFromFile((dir / "models/quad.gltf").string(), textures), 1);

    // Identical materials are shared; the changed Glow and the external
    // texture's Checker are numbered apart.
    EXPECT_EQ(ip.scene().materials, nlohmann::json::parse(R"({
        "Checker": {"baseColor": {"texture": "s-textures/quad_0.png", "channel": 1},
                    "roughness": 0.3, "metallic": 0.0},
        "Checker001": {"baseColor": {"texture": "models/checker.png", "channel": 1},
                       "roughness": 0.3, "metallic": 0.0},
        "Glow": {"baseColor": [0.2, 0.3, 0.4], "roughness": 0.1, "metallic": 1.0,
                 "emission": [4.0, 2.0, 1.0]},
        "Glow001": {"baseColor": [0.2, 0.3, 0.4], "roughness": 0.8, "metallic": 1.0,
                    "emission": [4.0, 2.0, 1.0]}})"));
    std::map<std::string, std::string> assigned;
    for (const Node* n : ip.scene().allNodes()) assigned[n->GetName()] = n->material();
    EXPECT_EQ(assigned, (std::map<std::string, std::string>{{"Wall", "Checker"},
                                                            {"Lamp", "Glow"},
                                                            {"Wall001", "Checker"},
                                                            {"Lamp001", "Glow"},
                                                            {"Wall002", "Checker001"},
                                                            {"Lamp002", "Glow"},
                                                            {"Wall003", "Checker001"},
                                                            {"Lamp003", "Glow001"}}));
    // A file without materials adds none: Assimp's stand-in is left out.
    const nlohmann::json before = ip.scene().materials;
    ASSERT_EQ(
        ip.ImportFromFile(dir.write("bare.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n").string()),
        1);
    EXPECT_EQ(ip.scene().materials, before);
    EXPECT_EQ(test::readText(textures / "quad_0.png"), test::readText(fixtures / "checker.png"));
    EXPECT_EQ(std::distance(fs::directory_iterator(textures), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace mq
