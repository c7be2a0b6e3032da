// Mesh export: what the importer reads back from written .obj and .glb
// files (world positions, normals, UVs, face for face), and the failures.
#include "host/export.h"

#include "host/import.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <vector>

namespace mq {
namespace {

namespace fs = std::filesystem;

using test::expectNear;

// Two triangles whose channels share one index per corner, as a baked mesh's do.
Mesh sharedIndexMesh() {
    Mesh mesh;
    mesh.verts = {{1, 2, 3}, {4, 2, 3.5f}, {1, 6, 5}, {-2, 7, 9}};
    mesh.faces = {Face{{0, 1, 2}}, Face{{0, 2, 3}}};
    mesh.setMapSupport(1);
    mesh.Map(1).verts = {{0.1f, 0.2f, 0}, {0.9f, 0.25f, 0}, {0.5f, 0.8f, 0}, {0.0f, 1.0f, 0}};
    mesh.Map(1).faces = {{{0, 1, 2}}, {{0, 2, 3}}};
    mesh.SpecifyNormals();
    mesh.GetSpecifiedNormals()->SetNormals(
        {Normalize(Point3(0, 0, 1)), Normalize(Point3(1, 0, 1)), Normalize(Point3(0, 1, 1)),
         Normalize(Point3(-1, -1, 2))},
        {{0, 1, 2}, {0, 2, 3}});
    return mesh;
}

// A box moved off the origin: UVs and normals indexed apart from the positions.
Mesh ownIndexMesh() {
    Mesh mesh = makeBoxMesh(2, 3, 4, 1, 1, 1);
    for (Point3& p : mesh.verts) p += Point3(5, -1, 2);
    mesh.SpecifyNormals();
    mesh.GetSpecifiedNormals()->SetParent(&mesh);
    mesh.GetSpecifiedNormals()->CheckNormals();
    return mesh;
}

Matrix3 worldOf(const ImportedScene& scene, int node) {
    Matrix3 tm;
    for (int n = node; n >= 0; n = scene.nodes[size_t(n)].parent)
        tm = tm * scene.nodes[size_t(n)].transform;
    return tm;
}

void expectSameMesh(const Mesh& written, const fs::path& file) {
    const ImportedScene scene = importMeshFile(file);
    int node = -1;
    for (size_t i = 0; i < scene.nodes.size(); ++i) {
        if (scene.nodes[i].mesh) {
            ASSERT_EQ(node, -1) << "more than one mesh node";
            node = int(i);
        }
    }
    ASSERT_GE(node, 0);
    EXPECT_EQ(scene.nodes[size_t(node)].name, file.stem().string());
    const Mesh& read = *scene.nodes[size_t(node)].mesh;
    const Matrix3 world = worldOf(scene, node);
    const Matrix3 normalTM = Transpose3(Inverse(world));
    ASSERT_EQ(read.getNumFaces(), written.getNumFaces());
    const MeshNormalSpec* wn = written.GetSpecifiedNormals();
    const MeshNormalSpec* rn = read.GetSpecifiedNormals();
    ASSERT_NE(rn, nullptr);
    ASSERT_TRUE(read.mapSupport(1));
    for (int f = 0; f < written.getNumFaces(); ++f) {
        for (int c = 0; c < 3; ++c) {
            SCOPED_TRACE(testing::Message() << "face " << f << " corner " << c);
            expectNear(read.verts[read.faces[f].v[c]] * world,
                       written.verts[written.faces[f].v[c]]);
            expectNear(Normalize(normalTM.VectorTransform(rn->Normal(rn->GetNormalIndex(f, c)))),
                       Normalize(wn->Normal(wn->GetNormalIndex(f, c))));
            const Point3 uvRead = read.Map(1).verts[read.Map(1).faces[f].t[c]];
            const Point3 uvWritten = written.Map(1).verts[written.Map(1).faces[f].t[c]];
            EXPECT_NEAR(uvRead.x, uvWritten.x, 1e-6f);
            EXPECT_NEAR(uvRead.y, uvWritten.y, 1e-6f);
        }
    }
}

TEST(ExportMesh, ImporterReadsBackTheWorldPositionsNormalsAndUvs) {
    test::TempDir dir;
    for (const char* ext : {".obj", ".glb", ".GLB"}) {
        for (const bool shared : {true, false}) {
            SCOPED_TRACE(testing::Message() << ext << (shared ? " shared" : " own") << " index");
            const Mesh mesh = shared ? sharedIndexMesh() : ownIndexMesh();
            const fs::path file = dir / (std::string("baked_") + (shared ? "s" : "o") + ext);
            exportMesh(mesh, file);
            expectSameMesh(mesh, file);
        }
    }
    // Nothing but the outputs: the temporaries were renamed.
    int files = 0;
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        EXPECT_EQ(entry.path().filename().string().rfind("baked_", 0), 0u) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 6);
}

TEST(ExportMesh, FailuresNameTheFileAndLeaveWhatWasThere) {
    test::TempDir dir;
    const fs::path kept = dir.write("kept.obj", "keep me");
    const Mesh mesh = sharedIndexMesh();
    Mesh broken = mesh;
    broken.faces[1].v[2] = 99;
    for (const auto& [written, file, part] :
         {std::tuple{mesh, dir / "mesh.fbx", "mesh.fbx: unsupported mesh format \".fbx\""},
          {mesh, dir / "missing" / "mesh.glb", "does not exist"},
          {Mesh(), kept, "kept.obj: the mesh has no triangles"},
          {broken, kept, "out of range"}}) {
        const std::string what = test::messageOf<ExportError>([&] { exportMesh(written, file); });
        EXPECT_NE(what.find(part), std::string::npos) << what;
    }
    EXPECT_EQ(test::readText(kept), "keep me");
    EXPECT_FALSE(fs::exists(dir / "mesh.fbx"));
}

}  // namespace
}  // namespace mq
