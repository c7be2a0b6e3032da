#include "host/scenefile.h"

#include "host/classdesc.h"
#include "host/hold.h"
#include "host/import.h"
#include "host/interface.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cfloat>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <sstream>

namespace mq {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

// ---------------------------------------------------------------------------
// A class with one parameter of every kind, two blocks (ids 0 and 7) and no
// parameter 2, registered with the class directory like a plug-in's class.

struct ProbeLog {
    int loads = 0;
    int callbacksRun = 0;
    int accessorSets = 0;
    bool sceneWasInPlace = false;
};
ProbeLog gLog;

enum ProbeParam : ParamID {
    kFlag = 0,
    kCount = 1,
    kSizes = 3,
    kFree = 4,
    kWhere = 5,
    kLabel = 6,
    kPath = 8,
    kTarget = 9,
    kTargets = 10,
    kFrame = 11,
    kExtra = 0,  // in block 7
};

class ProbeAccessor : public PBAccessor {
public:
    void Set(ParamValue& v, ReferenceMaker* owner, ParamID id, int tabIndex, TimeValue t) override {
        ++gLog.accessorSets;
    }
};
ProbeAccessor gProbeAccessor;

class ProbeClassDesc : public ClassDesc {
public:
    void* Create(bool loading) override;
    const char* ClassName() override { return "Probe"; }
    const char* InternalName() override { return "SceneFileProbe"; }
    SClass_ID SuperClassID() override { return GEOMOBJECT_CLASS_ID; }
    ClassId ClassID() override { return ClassId(0x5CE4E, 0x7E57); }
};
ProbeClassDesc gProbeDesc;
ParamBlockDesc gMainBlock(0, "parameters", 0, &gProbeDesc, P_AUTO_CONSTRUCT, 0);
ParamBlockDesc gExtraBlock(7, "extras", 0, &gProbeDesc, P_AUTO_CONSTRUCT, 1);

void registerProbe() {
    static const bool once = [] {
        auto def = [](ParamID id, const char* name, ParamType type, ParamValue value,
                      int table = 0) {
            ParamDef d;
            d.id = id;
            d.internalName = name;
            d.type = type;
            d.tableSize = table;
            d.defaultValue = std::move(value);
            return d;
        };
        gMainBlock.addParam(def(kFlag, "Flag", TYPE_BOOL, 1));
        ParamDef count = def(kCount, "Count", TYPE_INT, 5);
        count.rangeMin = 1;
        count.rangeMax = 10;
        gMainBlock.addParam(count);
        ParamDef sizes = def(kSizes, "Sizes", TYPE_WORLD, 100.0f, 3);
        sizes.rangeMin = 1e-7f;
        sizes.rangeMax = 100000.0f;
        gMainBlock.addParam(sizes);
        gMainBlock.addParam(def(kFree, "Free", TYPE_FLOAT, 0.0f));
        gMainBlock.addParam(def(kWhere, "Where", TYPE_POINT3, Point3()));
        gMainBlock.addParam(def(kLabel, "Label", TYPE_STRING, std::string()));
        gMainBlock.addParam(def(kPath, "Path", TYPE_FILENAME, std::string("/")));
        ParamDef target = def(kTarget, "Target", TYPE_INODE, NodeRef{});
        target.accessor = &gProbeAccessor;
        gMainBlock.addParam(target);
        gMainBlock.addParam(def(kTargets, "Targets", TYPE_INODE, NodeRef{}, 2));
        gMainBlock.addParam(def(kFrame, "Frame", TYPE_MATRIX3, Matrix3()));
        gExtraBlock.addParam(def(kExtra, "Extra", TYPE_INT, 0));
        classDirectory().add(&gProbeDesc);
        return true;
    }();
    (void)once;
}

class ProbeObject;

class ProbeCallback : public PostLoadCallback {
public:
    explicit ProbeCallback(ProbeObject* obj) : obj_(obj) {}
    void proc(ILoad* iload) override;

private:
    ProbeObject* obj_;
};

class ProbeObject : public GeomObject {
public:
    ProbeObject() { gProbeDesc.MakeAutoParamBlocks(this); }
    ~ProbeObject() override { DeleteAllRefs(); }

    int NumRefs() override { return 2; }
    ReferenceTarget* GetReference(int i) override { return i == 0 ? main_ : extra_; }
    void SetReference(int i, ReferenceTarget* t) override {
        (i == 0 ? main_ : extra_) = static_cast<ParamBlock*>(t);
    }
    int NumParamBlocks() override { return 2; }
    ParamBlock* GetParamBlock(int i) override { return i == 0 ? main_ : extra_; }
    ParamBlock* GetParamBlockByID(BlockID id) override {
        for (ParamBlock* pb : {main_, extra_})
            if (pb && pb->ID() == id) return pb;
        return nullptr;
    }
    IOResult Load(ILoad* iload) override {
        ++gLog.loads;
        iload->RegisterPostLoadCallback(new ProbeCallback(this));
        return IO_OK;
    }
    ReferenceTarget* Clone(RemapDir& remap) override { return new ProbeObject; }
    ClassId ClassID() const override { return gProbeDesc.ClassID(); }
    std::string GetClassName() const override { return "Probe"; }

    ParamBlock* main_ = nullptr;
    ParamBlock* extra_ = nullptr;
};

void* ProbeClassDesc::Create(bool) { return new ProbeObject; }

void ProbeCallback::proc(ILoad*) {
    ++gLog.callbacksRun;
    // Callbacks run once the loaded scene is the host's scene.
    HostInterface* ip = GetCOREInterface();
    if (ip) {
        for (Node* n : ip->scene().allNodes())
            if (n->GetObjectRef() == obj_) gLog.sceneWasInPlace = true;
    }
    delete this;
}

// ---------------------------------------------------------------------------
// Helpers

class TempDir {
public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "mosaiq-scenefile-XXXXXX").string();
        path_ = ::mkdtemp(tmpl.data());
    }
    ~TempDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

void writeText(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
}

std::string readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::string> folderEntries(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string floatBits(float f) {
    std::ostringstream s;
    s << std::hex << std::bit_cast<uint32_t>(f);
    return s.str();
}

// Every stored value of every block of obj, floats as their bits and nodes
// by name, for comparing objects across a save and a load.
std::vector<std::string> paramBits(Object& obj) {
    std::vector<std::string> out;
    for (int b = 0; b < obj.NumParamBlocks(); ++b) {
        ParamBlock* pb = obj.GetParamBlock(b);
        for (const ParamDef& def : pb->GetDesc()->params()) {
            for (int i = 0; i < def.count(); ++i) {
                const ParamValue& v = *pb->rawValue(def.id, i);
                std::string s = std::to_string(pb->ID()) + "/" + def.internalName + "[" +
                                std::to_string(i) + "]=";
                if (auto* x = std::get_if<int>(&v)) s += std::to_string(*x);
                if (auto* x = std::get_if<float>(&v)) s += floatBits(*x);
                if (auto* x = std::get_if<std::string>(&v)) s += "\"" + *x + "\"";
                if (auto* x = std::get_if<Point3>(&v))
                    for (int c = 0; c < 3; ++c) s += floatBits((*x)[c]) + ",";
                if (auto* x = std::get_if<Matrix3>(&v))
                    for (int r = 0; r < 4; ++r)
                        for (int c = 0; c < 3; ++c) s += floatBits((*x)[r][c]) + ",";
                if (auto* x = std::get_if<NodeRef>(&v)) {
                    Node* n = x->handle ? Node::fromHandle(x->handle) : nullptr;
                    s += n ? "node " + n->GetName() : "none";
                }
                out.push_back(s);
            }
        }
    }
    return out;
}

void expectSameMesh(const Mesh& a, const Mesh& b) {
    ASSERT_EQ(a.verts.size(), b.verts.size());
    for (size_t i = 0; i < a.verts.size(); ++i) EXPECT_EQ(a.verts[i], b.verts[i]) << "vertex " << i;
    ASSERT_EQ(a.faces.size(), b.faces.size());
    for (size_t f = 0; f < a.faces.size(); ++f) {
        for (int c = 0; c < 3; ++c) EXPECT_EQ(a.faces[f].v[c], b.faces[f].v[c]);
        EXPECT_EQ(a.faces[f].smGroup, b.faces[f].smGroup);
        EXPECT_EQ(a.faces[f].flags, b.faces[f].flags);
    }
    for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
        ASSERT_EQ(a.mapSupport(ch), b.mapSupport(ch)) << "channel " << ch;
        if (!a.mapSupport(ch)) continue;
        EXPECT_EQ(a.Map(ch).verts, b.Map(ch).verts) << "channel " << ch;
        ASSERT_EQ(a.Map(ch).faces.size(), b.Map(ch).faces.size());
        for (size_t f = 0; f < a.Map(ch).faces.size(); ++f)
            for (int c = 0; c < 3; ++c) EXPECT_EQ(a.Map(ch).faces[f].t[c], b.Map(ch).faces[f].t[c]);
    }
    const MeshNormalSpec* na = a.GetSpecifiedNormals();
    const MeshNormalSpec* nb = b.GetSpecifiedNormals();
    const bool explicitA = na && na->IsExplicit(), explicitB = nb && nb->IsExplicit();
    ASSERT_EQ(explicitA, explicitB);
    if (!explicitA) return;
    ASSERT_EQ(na->GetNumNormals(), nb->GetNumNormals());
    for (int i = 0; i < na->GetNumNormals(); ++i) EXPECT_EQ(na->Normal(i), nb->Normal(i));
    ASSERT_EQ(na->GetNumFaces(), nb->GetNumFaces());
    for (int f = 0; f < na->GetNumFaces(); ++f)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(na->GetNormalIndex(f, c), nb->GetNormalIndex(f, c));
}

Node* addNode(Node* parent, const std::string& name, Object* obj = nullptr) {
    Node* n = parent->attachChild(std::make_unique<Node>(name));
    if (obj) n->SetObjectRef(obj);
    return n;
}

ProbeObject* newProbe() {
    registerProbe();
    return static_cast<ProbeObject*>(createObject(GEOMOBJECT_CLASS_ID, gProbeDesc.ClassID()));
}

// A triangle with odd flags, three map channels and explicit normals.
Mesh oddMesh() {
    Mesh m;
    m.verts = {{0, 0, 0}, {0.1f, -1e-7f, 3.4e38f}, {1.0f / 3.0f, 2, -0.0f}, {5, 5, 5}};
    Face f0, f1;
    f0.v[0] = 0, f0.v[1] = 1, f0.v[2] = 2;
    f0.smGroup = 0x80000001u;
    f0.flags = 0x0007u;
    f0.setMatID(65535);
    f1.v[0] = 0, f1.v[1] = 2, f1.v[2] = 3;
    f1.smGroup = 0;
    f1.setMatID(2);
    m.faces = {f0, f1};
    for (int ch : {0, 1, 99}) {
        m.setMapSupport(ch);
        m.Map(ch).verts = {{0, 0, 0}, {1, 0, 0}, {0.25f, 0.75f, float(ch)}};
        m.Map(ch).faces = {TVFace{{0, 1, 2}}, TVFace{{2, 1, 0}}};
    }
    m.SpecifyNormals();
    m.GetSpecifiedNormals()->SetNormals({{0, 0, 1}, {0, 0.6f, 0.8f}}, {{{0, 1, 0}}, {{1, 1, 1}}});
    return m;
}

// Load through a throwaway ILoad, collecting warnings.
std::unique_ptr<Scene> read(const fs::path& file, std::vector<std::string>* warnings = nullptr) {
    ILoad iload;
    return readSceneFile(file, iload, [&](const std::string& w) {
        if (warnings) warnings->push_back(w);
    });
}

class SceneFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        registerProbe();
        gLog = {};
    }
    TempDir dir;
};

// ---------------------------------------------------------------------------
// Round trips

TEST_F(SceneFileTest, RoundTripKeepsEveryParameterBitForBit) {
    Scene scene;
    ProbeObject* probe = newProbe();
    Node* probeNode = addNode(scene.root(), "Probe001", probe);
    Node* group = addNode(scene.root(), "Group");
    Node* deep = addNode(addNode(group, "Inner"), "Deep");
    auto* box = createObject(GEOMOBJECT_CLASS_ID, BOXOBJ_CLASS_ID);
    ASSERT_NE(box, nullptr);
    box->GetParamBlock(0)->SetValue(0, 0, 12.625f);
    box->GetParamBlock(0)->SetValue(3, 0, 7);
    deep->SetObjectRef(box);

    ParamBlock& pb = *probe->main_;
    const float tricky[] = {1e-7f,
                            0.1f,
                            100000.0f,
                            -0.0f,
                            1e-45f,
                            FLT_MAX,
                            std::nextafter(1.0f, 2.0f),
                            std::numbers::pi_v<float>};
    for (int i = 0; i < 3; ++i) pb.SetValue(kSizes, 0, tricky[i], i);
    for (float f : tricky) {
        pb.SetValue(kFree, 0, f);
        pb.SetValue(kWhere, 0, Point3(f, -f, f * 0.5f));
        Matrix3 m = RotateZMatrix(f);
        m.SetTrans({f, 1e-30f, -123456.789f});
        pb.SetValue(kFrame, 0, m);
        pb.SetValue(kCount, 0, 7);
        pb.SetValue(kFlag, 0, 0);
        pb.SetValue(kLabel, 0, "quote \" backslash \\ tab\t ünïcode ☃");
        pb.SetValue(kPath, 0, "../pattern files/tile.glb");
        pb.setRawValue(kTarget, 0, NodeRef{deep->GetHandle()});
        pb.setRawValue(kTargets, 1, NodeRef{probeNode->GetHandle()});  // element 0 stays none
        probe->extra_->SetValue(kExtra, 0, -2147483647 - 1);

        const fs::path file = dir / "roundtrip.mosaiq";
        saveScene(scene, file);
        std::unique_ptr<Scene> loaded = read(file);
        Node* again = loaded->findNode("Probe001");
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(paramBits(*again->GetObjectRef()), paramBits(*probe)) << "float " << f;
        EXPECT_EQ(paramBits(*loaded->findNode("Deep")->GetObjectRef()), paramBits(*box));
        // The reference lands on the loaded node, not the original.
        auto* p2 = static_cast<ProbeObject*>(again->GetObjectRef());
        EXPECT_EQ(p2->main_->GetINode(kTarget), loaded->findNode("Deep"));
        EXPECT_EQ(p2->main_->GetINode(kTargets, 0, 1), again);

        // Saving what was loaded writes the same text.
        saveScene(*loaded, dir / "again.mosaiq");
        EXPECT_EQ(readText(dir / "again.mosaiq"), readText(file));
    }
}

TEST_F(SceneFileTest, RoundTripKeepsNodesAndSections) {
    Scene scene;
    Node* a = addNode(scene.root(), "A");
    Matrix3 tm = RotateXMatrix(0.3f) * TransMatrix({1, 2, 3});
    a->setLocalTM(tm);
    a->setObjectOffsetTM(TransMatrix({0, 0, -0.5f}));
    a->SetRenderable(false);
    scene.materials["Red"] = {{"baseColor", {1, 0, 0}}};
    a->setMaterial("Red");
    Node* b = addNode(a, "B");
    b->setLocalTM(ScaleMatrix({2, 2, 2}));
    addNode(b, "C");
    addNode(scene.root(), "D");
    scene.camera = {{"fov", 40}};
    scene.lights = json::array({{{"type", "sun"}}});
    scene.render = {{"spp", 16}};

    saveScene(scene, dir / "nodes.mosaiq");
    std::unique_ptr<Scene> loaded = read(dir / "nodes.mosaiq");

    std::vector<std::string> names;
    for (Node* n : loaded->allNodes()) names.push_back(n->GetName());
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C", "D"}));
    Node* la = loaded->findNode("A");
    EXPECT_EQ(la->localTM(), tm);
    EXPECT_EQ(la->objectOffsetTM(), TransMatrix({0, 0, -0.5f}));
    EXPECT_FALSE(la->Renderable());
    EXPECT_EQ(la->material(), "Red");
    EXPECT_EQ(loaded->findNode("C")->GetParentNode(), loaded->findNode("B"));
    EXPECT_EQ(loaded->findNode("C")->GetNodeTM(0), b->GetNodeTM(0));
    EXPECT_TRUE(loaded->findNode("D")->Renderable());
    EXPECT_EQ(loaded->findNode("D")->GetObjectRef(), nullptr);
    EXPECT_EQ(loaded->materials, scene.materials);
    EXPECT_EQ(loaded->camera, scene.camera);
    EXPECT_EQ(loaded->lights, scene.lights);
    EXPECT_EQ(loaded->render, scene.render);
}

// ---------------------------------------------------------------------------
// Meshes

TEST_F(SceneFileTest, InlineMeshKeepsFlagsMapsAndNormals) {
    Scene scene;
    addNode(scene.root(), "Tri", new TriObject(oddMesh()));
    saveScene(scene, dir / "inline.mosaiq");
    std::unique_ptr<Scene> loaded = read(dir / "inline.mosaiq");
    auto* tri = dynamic_cast<TriObject*>(loaded->findNode("Tri")->GetObjectRef());
    ASSERT_NE(tri, nullptr);
    EXPECT_FALSE(tri->source.valid());
    expectSameMesh(tri->mesh, oddMesh());
}

TEST_F(SceneFileTest, FileMeshIsReferencedRelativelyAndReimported) {
    fs::create_directories(dir / "assets");
    fs::create_directories(dir / "scenes");
    const fs::path obj = dir / "assets" / "tile.obj";
    writeText(obj,
              "o Tile\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
              "f 1/1 2/2 3/3 4/4\n"
              "o Other\nv 0 0 1\nv 1 0 1\nv 0 1 1\nf 5 6 7\n");
    ImportedScene imported = importMeshFile(obj);
    int tileIndex = -1;
    for (size_t i = 0; i < imported.nodes.size(); ++i)
        if (imported.nodes[i].mesh && imported.nodes[i].name == "Tile") tileIndex = int(i);
    ASSERT_GE(tileIndex, 0);

    Scene scene;
    for (const char* name : {"First", "Second"}) {
        auto* tri = new TriObject(*imported.nodes[size_t(tileIndex)].mesh);
        tri->source = MeshSource{fs::absolute(obj), tileIndex};
        addNode(scene.root(), name, tri);
    }
    const fs::path file = dir / "scenes" / "ref.mosaiq";
    saveScene(scene, file);

    const json doc = json::parse(readText(file));
    const json& mesh = doc["nodes"][0]["object"]["mesh"];
    EXPECT_EQ(mesh["file"], "../assets/tile.obj");
    EXPECT_EQ(mesh["node"], tileIndex);
    EXPECT_FALSE(mesh.contains("inline"));

    // The scene and its assets move together.
    fs::create_directories(dir / "moved");
    fs::rename(dir / "assets", dir / "moved" / "assets");
    fs::rename(dir / "scenes", dir / "moved" / "scenes");
    std::unique_ptr<Scene> loaded = read(dir / "moved" / "scenes" / "ref.mosaiq");
    for (const char* name : {"First", "Second"}) {
        auto* tri = dynamic_cast<TriObject*>(loaded->findNode(name)->GetObjectRef());
        ASSERT_NE(tri, nullptr);
        expectSameMesh(tri->mesh, *imported.nodes[size_t(tileIndex)].mesh);
        EXPECT_EQ(tri->source.file, dir / "moved" / "assets" / "tile.obj");
        EXPECT_EQ(tri->source.nodeIndex, tileIndex);
    }
}

// ---------------------------------------------------------------------------
// Bad input: every error names the file, the JSON path and the reason.

// A valid document with a probe, a box and an inline triangle object.
json goodDocument(const fs::path& dir) {
    Scene scene;
    ProbeObject* probe = newProbe();
    Node* p = addNode(scene.root(), "Probe001", probe);
    Node* target = addNode(p, "Target", createObject(GEOMOBJECT_CLASS_ID, BOXOBJ_CLASS_ID));
    probe->main_->setRawValue(kTarget, 0, NodeRef{target->GetHandle()});
    addNode(scene.root(), "Tri", new TriObject(oddMesh()));
    saveScene(scene, dir / "good.mosaiq");
    return json::parse(readText(dir / "good.mosaiq"));
}

struct BadCase {
    const char* what;
    std::function<void(json&)> edit;
    std::string path;
    std::string reason;  // a part of the reason
};

TEST_F(SceneFileTest, BadDocumentsNameFilePathAndReason) {
    const json good = goodDocument(dir.path());
    // Parameters in declaration order: Flag Count Sizes Free Where Label Path Target Targets Frame.
    const std::string params = "/nodes/0/object/paramBlocks/0/params";
    auto set = [](const std::string& ptr, json v) {
        return [ptr, v](json& d) { d[json::json_pointer(ptr)] = v; };
    };
    const std::vector<BadCase> cases = {
        {"unknown version", set("/version", 2), "/version", "unsupported version 2"},
        {"not a scene", set("/format", "gltf"), "/format", "not a Mosaiq scene"},
        {"no format", [](json& d) { d.erase("format"); }, "", "missing \"format\""},
        {"unknown class", set("/nodes/0/object/class/id", {1, 2}), "/nodes/0/object/class",
         "unknown class"},
        {"unknown block", set("/nodes/0/object/paramBlocks/1/id", 2),
         "/nodes/0/object/paramBlocks/1/id", "no parameter block with id 2"},
        {"unknown parameter id 2", set(params + "/1/id", 2), params + "/1/id",
         "unknown parameter id 2"},
        {"wrong value type", set(params + "/1/value", "five"), params + "/1/value",
         "expected an integer, found a string"},
        {"fraction for an integer", set(params + "/1/value", 2.5), params + "/1/value",
         "expected an integer"},
        {"wrong type name", set(params + "/1/type", "float"), params + "/1/type",
         "is of type \"int\", not \"float\""},
        {"short table", set(params + "/2/value", {1, 2}), params + "/2/value", "table of 3 values"},
        {"string in a table", set(params + "/2/value/1", "x"), params + "/2/value/1",
         "expected a number"},
        {"beyond single precision", set(params + "/3/value", 1e39), params + "/3/value",
         "beyond single precision"},
        {"matrix row short", set(params + "/9/value/3", {1, 2}), params + "/9/value/3",
         "expected an array of 3"},
        {"dangling node reference", set(params + "/7/value", "Nobody"), params + "/7/value",
         "node \"Nobody\" is not in this file"},
        {"node reference not a name", set(params + "/7/value", 5), params + "/7/value",
         "expected a node name or null"},
        {"ambiguous node reference", set("/nodes/1/name", "Target"), params + "/7/value",
         "used by 2 nodes"},
        {"renderable not a boolean", set("/nodes/0/renderable", "yes"), "/nodes/0/renderable",
         "expected true or false"},
        {"unknown material", set("/nodes/0/material", "Gold"), "/nodes/0/material",
         "material \"Gold\" is not in /materials"},
        {"nameless node", [](json& d) { d["nodes"][1].erase("name"); }, "/nodes/1",
         "missing \"name\""},
        {"transform of 3 rows", set("/nodes/0/transform", {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}),
         "/nodes/0/transform", "4 rows of 3"},
        {"face index out of range", set("/nodes/1/object/mesh/inline/faces/1/2", 4),
         "/nodes/1/object/mesh/inline/faces/1/2", "out of range"},
        {"map faces missing", set("/nodes/1/object/mesh/inline/maps/1/faces", json::array()),
         "/nodes/1/object/mesh/inline/maps/1/faces", "expected an array of 2"},
        {"map channel 100",
         [](json& d) {
             auto& maps = d["nodes"][1]["object"]["mesh"]["inline"]["maps"];
             maps["100"] = maps["1"];
         },
         "/nodes/1/object/mesh/inline/maps/100", "numbered 0 to 99"},
        {"missing mesh asset",
         set("/nodes/1/object/mesh", {{"file", "nowhere/tile.obj"}, {"node", 0}}),
         "/nodes/1/object/mesh/file", "mesh asset \"nowhere/tile.obj\" not found"},
        {"unreadable mesh asset",
         set("/nodes/1/object/mesh", {{"file", "garbage.obj"}, {"node", 0}}),
         "/nodes/1/object/mesh/file", "cannot read mesh asset \"garbage.obj\""},
        {"mesh on a box", set("/nodes/0/children/0/object/mesh", {{"inline", json::object()}}),
         "/nodes/0/children/0/object/mesh", "only triangle objects"},
        {"nodes not an array", set("/nodes", json::object()), "/nodes", "expected an array"},
        {"lights not an array", set("/lights", 3), "/lights", "expected an array"},
    };
    writeText(dir / "garbage.obj", "this is not a mesh \x01\x02\x03");

    const fs::path file = dir / "bad.mosaiq";
    for (const BadCase& c : cases) {
        SCOPED_TRACE(c.what);
        json doc = good;
        c.edit(doc);
        writeText(file, doc.dump(2));
        try {
            read(file);
            ADD_FAILURE() << "loaded without error";
        } catch (const SceneError& e) {
            EXPECT_EQ(e.file(), file.string());
            EXPECT_EQ(e.jsonPath(), c.path);
            EXPECT_NE(e.reason().find(c.reason), std::string::npos) << e.reason();
            const std::string what = e.what();
            EXPECT_NE(what.find(file.string()), std::string::npos) << what;
            EXPECT_NE(what.find(c.path), std::string::npos) << what;
            EXPECT_NE(what.find(c.reason), std::string::npos) << what;
        }
    }
}

TEST_F(SceneFileTest, UnreadableFilesNameTheFileAndWhy) {
    auto reasonFor = [&](const fs::path& file) -> std::string {
        try {
            read(file);
        } catch (const SceneError& e) {
            EXPECT_EQ(e.file(), file.string());
            EXPECT_EQ(e.jsonPath(), "");
            return e.reason();
        }
        return "(loaded)";
    };
    EXPECT_NE(reasonFor(dir / "missing.mosaiq").find("cannot open: No such file"),
              std::string::npos);
    EXPECT_NE(reasonFor(dir.path()).find("folder"), std::string::npos);

    writeText(dir / "broken.mosaiq", "{\n  \"format\": \"mosaiq-scene\",\n  \"version\": 1,,\n}");
    const std::string broken = reasonFor(dir / "broken.mosaiq");
    EXPECT_NE(broken.find("not valid JSON"), std::string::npos) << broken;
    EXPECT_NE(broken.find("line 3"), std::string::npos) << broken;
    EXPECT_EQ(broken.find("[json.exception"), std::string::npos) << broken;

    writeText(dir / "empty.mosaiq", "");
    EXPECT_NE(reasonFor(dir / "empty.mosaiq").find("not valid JSON"), std::string::npos);
    writeText(dir / "array.mosaiq", "[1, 2]");
    EXPECT_NE(reasonFor(dir / "array.mosaiq").find("expected an object"), std::string::npos);
}

TEST_F(SceneFileTest, TruncatedFilesFailCleanly) {
    goodDocument(dir.path());
    const std::string text = readText(dir / "good.mosaiq");
    const fs::path file = dir / "cut.mosaiq";
    // Every prefix short of the closing brace.
    for (size_t n = 0; n + 2 < text.size(); n += 13) {
        writeText(file, text.substr(0, n));
        EXPECT_THROW(read(file), SceneError) << "first " << n << " bytes";
    }
}

TEST_F(SceneFileTest, DeepTreesLoadUpToTheLimitAndNoFurther) {
    auto chain = [](int depth) {
        std::string text = "{\"format\": \"mosaiq-scene\", \"version\": 1, \"nodes\": [";
        for (int i = 1; i < depth; ++i) text += "{\"name\": \"n\", \"children\": [";
        text += "{\"name\": \"leaf\"}";
        for (int i = 1; i < depth; ++i) text += "]}";
        return text + "]}";
    };
    writeText(dir / "deep.mosaiq", chain(256));
    std::unique_ptr<Scene> loaded = read(dir / "deep.mosaiq");
    EXPECT_EQ(loaded->allNodes().size(), 256u);
    saveScene(*loaded, dir / "again.mosaiq");
    EXPECT_EQ(read(dir / "again.mosaiq")->allNodes().size(), 256u);

    // Too deep for the node tree, for the JSON parser, and deep JSON in a
    // section whose contents are the renderer's.
    const std::string brackets = std::string(200000, '[') + std::string(200000, ']');
    writeText(dir / "brackets.mosaiq",
              "{\"format\": \"mosaiq-scene\", \"version\": 1, "
              "\"materials\": {\"m\": {\"x\": " +
                  brackets + "}}}");
    for (const auto& [name, text] :
         {std::pair{"deeper.mosaiq", chain(257)}, std::pair{"deepest.mosaiq", chain(100000)},
          std::pair{"brackets.mosaiq", std::string()}}) {
        SCOPED_TRACE(name);
        if (!text.empty()) writeText(dir / name, text);
        try {
            read(dir / name);
            ADD_FAILURE() << "loaded";
        } catch (const SceneError& e) {
            EXPECT_NE(e.reason().find("nested more than"), std::string::npos) << e.what();
        }
    }
}

// ---------------------------------------------------------------------------
// Warnings, references and loading order

TEST_F(SceneFileTest, OutOfRangeValuesAreClampedWithAWarning) {
    json doc = goodDocument(dir.path());
    const std::string params = "/nodes/0/object/paramBlocks/0/params";
    doc[json::json_pointer(params + "/1/value")] = 99;        // Count, 1..10
    doc[json::json_pointer(params + "/2/value/2")] = 0;       // Sizes, from 1e-7
    doc[json::json_pointer(params + "/0/value")] = true;      // Flag as a JSON boolean
    doc[json::json_pointer(params + "/3/name")] = "Freedom";  // the id wins
    doc[json::json_pointer("/nodes/0/object/class/name")] = "OldName";
    writeText(dir / "clamp.mosaiq", doc.dump());

    std::vector<std::string> warnings;
    std::unique_ptr<Scene> loaded = read(dir / "clamp.mosaiq", &warnings);
    auto* probe = static_cast<ProbeObject*>(loaded->findNode("Probe001")->GetObjectRef());
    EXPECT_EQ(probe->main_->GetInt(kCount), 10);
    EXPECT_EQ(probe->main_->GetFloat(kSizes, 0, 2), 1e-7f);
    EXPECT_EQ(probe->main_->GetInt(kFlag), 1);

    ASSERT_EQ(warnings.size(), 4u);
    const std::string file = (dir / "clamp.mosaiq").string();
    auto expectWarning = [&](const std::string& path, const std::string& part) {
        for (const std::string& w : warnings) {
            if (w.find(file + ": " + path + ":") != std::string::npos &&
                w.find(part) != std::string::npos)
                return;
        }
        ADD_FAILURE() << "no warning at " << path << " with \"" << part << "\"";
    };
    expectWarning(params + "/1/value", "Count");
    expectWarning(params + "/2/value/2", "Sizes[2]");
    expectWarning(params + "/3/name", "\"Freedom\"");
    expectWarning("/nodes/0/object/class/name", "\"OldName\"");
}

TEST_F(SceneFileTest, NodeParametersAreStoredWithoutRunningAccessors) {
    goodDocument(dir.path());
    gLog.accessorSets = 0;
    std::unique_ptr<Scene> loaded = read(dir / "good.mosaiq");
    auto* probe = static_cast<ProbeObject*>(loaded->findNode("Probe001")->GetObjectRef());
    EXPECT_EQ(probe->main_->GetINode(kTarget), loaded->findNode("Target"));
    EXPECT_EQ(gLog.accessorSets, 0);
}

TEST_F(SceneFileTest, DuplicateNamesAreFineUntilReferenced) {
    Scene scene;
    addNode(scene.root(), "Twin");
    addNode(scene.root(), "Twin");
    ProbeObject* probe = newProbe();
    addNode(scene.root(), "Probe001", probe);
    saveScene(scene, dir / "twins.mosaiq");
    EXPECT_EQ(read(dir / "twins.mosaiq")->allNodes().size(), 3u);

    // A reference to one of them cannot be saved by name: the save fails and
    // the earlier file stays.
    const std::string before = readText(dir / "twins.mosaiq");
    probe->main_->setRawValue(kTarget, 0, NodeRef{scene.findNode("Twin")->GetHandle()});
    try {
        saveScene(scene, dir / "twins.mosaiq");
        ADD_FAILURE() << "saved an ambiguous reference";
    } catch (const SceneError& e) {
        EXPECT_NE(e.jsonPath().find("/nodes/2/object/paramBlocks/0/params/"), std::string::npos);
        EXPECT_NE(e.reason().find("2 nodes have that name"), std::string::npos) << e.what();
    }
    EXPECT_EQ(readText(dir / "twins.mosaiq"), before);
}

TEST_F(SceneFileTest, NonFiniteValuesAreRefusedOnSave) {
    Scene scene;
    ProbeObject* probe = newProbe();
    addNode(scene.root(), "Probe001", probe);
    probe->main_->setRawValue(kFree, 0, std::numeric_limits<float>::quiet_NaN());
    try {
        saveScene(scene, dir / "nan.mosaiq");
        ADD_FAILURE() << "saved NaN";
    } catch (const SceneError& e) {
        EXPECT_EQ(e.jsonPath(), "/nodes/0/object/paramBlocks/0/params/3/value");
    }
    EXPECT_FALSE(fs::exists(dir / "nan.mosaiq"));
    EXPECT_TRUE(folderEntries(dir.path()).empty());
}

TEST_F(SceneFileTest, LoadSceneReplacesTheSceneAndRunsCallbacksAfterwards) {
    goodDocument(dir.path());
    HostInterface ip;
    gLog = {};
    loadScene(ip, dir / "good.mosaiq");
    EXPECT_NE(ip.scene().findNode("Probe001"), nullptr);
    EXPECT_EQ(gLog.loads, 1);
    EXPECT_EQ(gLog.callbacksRun, 1);
    EXPECT_TRUE(gLog.sceneWasInPlace);
}

TEST_F(SceneFileTest, FailedLoadLeavesTheHostSceneUntouched) {
    json doc = goodDocument(dir.path());
    doc["nodes"][0]["object"]["paramBlocks"][0]["params"][7]["value"] = "Nobody";
    writeText(dir / "bad.mosaiq", doc.dump());

    HostInterface ip;
    addNode(ip.GetRootNode(), "Keep");
    Scene* before = &ip.scene();
    gLog = {};
    EXPECT_THROW(loadScene(ip, dir / "bad.mosaiq"), SceneError);
    EXPECT_THROW(loadScene(ip, dir / "missing.mosaiq"), SceneError);
    EXPECT_EQ(&ip.scene(), before);
    ASSERT_EQ(ip.scene().allNodes().size(), 1u);
    EXPECT_EQ(ip.scene().allNodes()[0]->GetName(), "Keep");
    // The half-read objects never registered post-load work.
    EXPECT_EQ(gLog.loads, 0);
    EXPECT_EQ(gLog.callbacksRun, 0);
    EXPECT_TRUE(ip.warnings().empty());
}

TEST_F(SceneFileTest, LoadingRecordsNoUndoSteps) {
    goodDocument(dir.path());
    theHold.Begin();
    std::unique_ptr<Scene> loaded = read(dir / "good.mosaiq");
    theHold.Accept("load");
    EXPECT_EQ(theHold.undoName(), "");
    theHold.Reset();
}

// ---------------------------------------------------------------------------
// Atomic saving

// Restores a resource limit when the test ends.
class LimitGuard {
public:
    LimitGuard(int resource, rlim_t soft) : resource_(resource) {
        getrlimit(resource_, &saved_);
        rlimit lim = saved_;
        lim.rlim_cur = soft;
        setrlimit(resource_, &lim);
    }
    ~LimitGuard() { setrlimit(resource_, &saved_); }

private:
    int resource_;
    rlimit saved_{};
};

Scene& sceneWithMeshes(Scene& scene) {
    for (int i = 0; i < 20; ++i)
        addNode(scene.root(), "Tri" + std::to_string(i), new TriObject(oddMesh()));
    return scene;
}

TEST_F(SceneFileTest, FailedWriteLeavesTheOldFileWhole) {
    const fs::path file = dir / "scene.mosaiq";
    writeText(file, "old contents");
    Scene scene;
    sceneWithMeshes(scene);
    {
        // Writes past 100 bytes fail with EFBIG instead of killing the process.
        auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        LimitGuard small(RLIMIT_FSIZE, 100);
        try {
            saveScene(scene, file);
            ADD_FAILURE() << "saved despite the size limit";
        } catch (const SceneError& e) {
            EXPECT_EQ(e.file(), file.string());
            EXPECT_NE(e.reason().find("cannot write"), std::string::npos) << e.what();
        }
        std::signal(SIGXFSZ, oldHandler);
    }
    EXPECT_EQ(readText(file), "old contents");
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"scene.mosaiq"});

    // Once writing works again the file is replaced whole, keeping its permissions.
    fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    saveScene(scene, file);
    EXPECT_EQ(read(file)->allNodes().size(), 20u);
    EXPECT_EQ(fs::status(file).permissions(),
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"scene.mosaiq"});
}

// Makes a folder refuse new entries for the test's life: by permissions, or,
// for a user they do not stop (root), by the immutable attribute.
class LockedFolder {
public:
    explicit LockedFolder(const fs::path& dir) : dir_(dir) {
        fs::permissions(dir_, fs::perms::owner_read | fs::perms::owner_exec);
        if (::access(dir_.c_str(), W_OK) != 0) {
            locked_ = true;
            return;
        }
        fd_ = ::open(dir_.c_str(), O_RDONLY | O_DIRECTORY);
        int flags = 0;
        if (fd_ >= 0 && ::ioctl(fd_, FS_IOC_GETFLAGS, &flags) == 0) {
            flags |= FS_IMMUTABLE_FL;
            immutable_ = locked_ = ::ioctl(fd_, FS_IOC_SETFLAGS, &flags) == 0;
        }
    }
    ~LockedFolder() {
        if (immutable_) {
            int flags = 0;
            ::ioctl(fd_, FS_IOC_GETFLAGS, &flags);
            flags &= ~FS_IMMUTABLE_FL;
            ::ioctl(fd_, FS_IOC_SETFLAGS, &flags);
        }
        if (fd_ >= 0) ::close(fd_);
        fs::permissions(dir_, fs::perms::owner_all);
    }
    bool locked() const { return locked_; }

private:
    fs::path dir_;
    int fd_ = -1;
    bool locked_ = false, immutable_ = false;
};

TEST_F(SceneFileTest, UnwritableFolderLeavesTheOldFileWhole) {
    const fs::path folder = dir / "locked";
    fs::create_directories(folder);
    const fs::path file = folder / "scene.mosaiq";
    writeText(file, "old contents");
    Scene scene;
    addNode(scene.root(), "A");
    {
        LockedFolder lock(folder);
        if (!lock.locked()) GTEST_SKIP() << "cannot make a folder unwritable for this user";
        try {
            saveScene(scene, file);
            ADD_FAILURE() << "saved into a locked folder";
        } catch (const SceneError& e) {
            EXPECT_EQ(e.file(), file.string());
            EXPECT_NE(e.reason().find("cannot create temporary file"), std::string::npos)
                << e.what();
        }
    }
    EXPECT_EQ(readText(file), "old contents");
    EXPECT_EQ(folderEntries(folder), std::vector<std::string>{"scene.mosaiq"});
}

TEST_F(SceneFileTest, NamesNearTheLengthLimitSaveToo) {
    const fs::path file = dir / (std::string(248, 'n') + ".mosaiq");
    Scene scene;
    addNode(scene.root(), "A");
    saveScene(scene, file);
    EXPECT_EQ(read(file)->allNodes().size(), 1u);
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{file.filename().string()});
}

TEST_F(SceneFileTest, SavingOverAFolderOrIntoAMissingFolderFails) {
    Scene scene;
    addNode(scene.root(), "A");
    fs::create_directories(dir / "taken.mosaiq");
    EXPECT_THROW(saveScene(scene, dir / "taken.mosaiq"), SceneError);
    EXPECT_TRUE(fs::is_directory(dir / "taken.mosaiq"));
    EXPECT_THROW(saveScene(scene, dir / "no" / "such" / "folder.mosaiq"), SceneError);
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"taken.mosaiq"});
}

}  // namespace
}  // namespace mq
