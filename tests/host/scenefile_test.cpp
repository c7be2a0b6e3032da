#include "host/scenefile.h"

#include "host/atomic_file.h"
#include "host/classdesc.h"
#include "host/hold.h"
#include "host/interface.h"
#include "support/test_util.h"

#include <sys/resource.h>

#include <cfloat>
#include <csignal>
#include <numbers>
#include <variant>

namespace mq {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using test::addNode;
using test::readText;
using test::writeText;

// ---------------------------------------------------------------------------
// A class with one parameter of every kind and no parameter 2, registered
// with the class directory like a plug-in's class.

struct ProbeLog {
    int loads = 0, callbacksRun = 0, accessorSets = 0;
    bool sceneWasInPlace = false;
} gLog;

constexpr ParamID kFlag = 0, kCount = 1, kSizes = 3, kFree = 4, kWhere = 5, kLabel = 6, kPath = 8,
                  kTarget = 9, kTargets = 10, kFrame = 11;

struct ProbeAccessor : PBAccessor {
    void Set(ParamValue&, ReferenceMaker*, ParamID, int, TimeValue) override {
        ++gLog.accessorSets;
    }
} gProbeAccessor;

struct ProbeClassDesc : ClassDesc {
    void* Create(bool loading) override;
    const char* ClassName() override { return "Probe"; }
    const char* InternalName() override { return "SceneFileProbe"; }
    SClass_ID SuperClassID() override { return GEOMOBJECT_CLASS_ID; }
    ClassId ClassID() override { return ClassId(0x5CE4E, 0x7E57); }
} gProbeDesc;
ParamBlockDesc gBlock(0, "parameters", 0, &gProbeDesc, P_AUTO_CONSTRUCT, 0);

void registerProbe() {
    static const bool once = [] {
        auto def = [](ParamID id, const char* name, ParamType type, ParamValue value, int table = 0,
                      std::optional<double> lo = {}, std::optional<double> hi = {}) {
            ParamDef d;
            d.id = id;
            d.internalName = name;
            d.type = type;
            d.tableSize = table;
            d.defaultValue = std::move(value);
            d.rangeMin = lo;
            d.rangeMax = hi;
            d.accessor = id == kTarget ? &gProbeAccessor : nullptr;
            gBlock.addParam(d);
        };
        def(kFlag, "Flag", TYPE_BOOL, 1);
        def(kCount, "Count", TYPE_INT, 5, 0, 1, 10);
        def(kSizes, "Sizes", TYPE_WORLD, 100.0f, 3, 1e-7f, 100000.0f);
        def(kFree, "Free", TYPE_FLOAT, 0.0f);
        def(kWhere, "Where", TYPE_POINT3, Point3());
        def(kLabel, "Label", TYPE_STRING, std::string());
        def(kPath, "Path", TYPE_FILENAME, std::string("/"));
        def(kTarget, "Target", TYPE_INODE, NodeRef{});
        def(kTargets, "Targets", TYPE_INODE, NodeRef{}, 2);
        def(kFrame, "Frame", TYPE_MATRIX3, Matrix3());
        classDirectory().add(&gProbeDesc);
        return true;
    }();
    (void)once;
}

struct ProbeObject : GeomObject {
    ProbeObject() { gProbeDesc.MakeAutoParamBlocks(this); }
    ~ProbeObject() override { DeleteAllRefs(); }
    int NumRefs() override { return 1; }
    ReferenceTarget* GetReference(int) override { return pb; }
    void SetReference(int, ReferenceTarget* t) override { pb = static_cast<ParamBlock*>(t); }
    int NumParamBlocks() override { return 1; }
    ParamBlock* GetParamBlock(int) override { return pb; }
    ParamBlock* GetParamBlockByID(BlockID id) override { return id == 0 ? pb : nullptr; }
    IOResult Load(ILoad* iload) override;
    ReferenceTarget* Clone(RemapDir&) override { return new ProbeObject; }
    ClassId ClassID() const override { return gProbeDesc.ClassID(); }
    std::string GetClassName() const override { return "Probe"; }
    ParamBlock* pb = nullptr;
};

void* ProbeClassDesc::Create(bool) { return new ProbeObject; }

struct ProbeCallback : PostLoadCallback {
    explicit ProbeCallback(ProbeObject* object) : obj(object) {}
    void proc(ILoad*) override {
        ++gLog.callbacksRun;
        // Callbacks run once the loaded scene is the host's scene.
        if (HostInterface* ip = GetCOREInterface())
            for (Node* n : ip->scene().allNodes()) gLog.sceneWasInPlace |= n->GetObjectRef() == obj;
        delete this;
    }
    ProbeObject* obj;
};

IOResult ProbeObject::Load(ILoad* iload) {
    ++gLog.loads;
    iload->RegisterPostLoadCallback(new ProbeCallback(this));
    return IO_OK;
}

// ---------------------------------------------------------------------------
// Helpers

std::vector<std::string> folderEntries(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

// Values as text, floats exact (hexfloat keeps -0 and denormals apart).
void put(std::ostream& s, int x) { s << x; }
void put(std::ostream& s, float x) { s << x; }
void put(std::ostream& s, const std::string& x) { s << '"' << x << '"'; }
void put(std::ostream& s, const Point3& p) { s << p.x << ',' << p.y << ',' << p.z << ';'; }
void put(std::ostream& s, const Matrix3& m) {
    for (int r = 0; r < 4; ++r) put(s, m[r]);
}
void put(std::ostream& s, const NodeRef& x) {
    Node* n = x.handle ? Node::fromHandle(x.handle) : nullptr;
    s << (n ? "node " + n->GetName() : "none");
}

// Every stored value of an object's block, to compare across a save and a load.
std::string paramBits(Object& obj) {
    std::ostringstream s;
    s << std::hexfloat;
    ParamBlock* pb = obj.GetParamBlock(0);
    for (const ParamDef& def : pb->GetDesc()->params())
        for (int i = 0; i < def.count(); ++i) {
            s << '\n' << def.internalName << '[' << i << "]=";
            std::visit([&](const auto& x) { put(s, x); }, *pb->rawValue(def.id, i));
        }
    return s.str();
}

// Everything a mesh holds, floats exact.
std::string meshText(const Mesh& m) {
    std::ostringstream s;
    s << std::hexfloat;
    for (const Point3& p : m.verts) put(s, p);
    for (const Face& f : m.faces)
        s << f.v[0] << ' ' << f.v[1] << ' ' << f.v[2] << ' ' << f.smGroup << ' ' << f.flags << ';';
    for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
        if (!m.mapSupport(ch)) continue;
        s << "\nmap " << ch << ": ";
        for (const Point3& p : m.Map(ch).verts) put(s, p);
        for (const TVFace& t : m.Map(ch).faces)
            s << t.t[0] << ' ' << t.t[1] << ' ' << t.t[2] << ';';
    }
    if (const MeshNormalSpec* n = m.GetSpecifiedNormals(); n && n->IsExplicit()) {
        s << "\nnormals: ";
        for (int i = 0; i < n->GetNumNormals(); ++i) put(s, n->Normal(i));
        for (int f = 0; f < n->GetNumFaces(); ++f)
            for (int c = 0; c < 3; ++c) s << n->GetNormalIndex(f, c) << ' ';
    }
    return s.str();
}

ProbeObject* newProbe() {
    registerProbe();
    return static_cast<ProbeObject*>(createObject(GEOMOBJECT_CLASS_ID, gProbeDesc.ClassID()));
}

ParamBlock& probeOf(const Scene& scene) {
    return *static_cast<ProbeObject*>(scene.findNode("Probe001")->GetObjectRef())->pb;
}

// A triangle with odd flags, three map channels and explicit normals.
Mesh oddMesh() {
    Mesh m;
    m.verts = {{0, 0, 0}, {0.1f, -1e-7f, 3.4e38f}, {1.0f / 3.0f, 2, -0.0f}, {5, 5, 5}};
    Face f0{{0, 1, 2}, 0x80000001u, 0x0007u}, f1{{0, 2, 3}, 0, 0};
    f0.setMatID(65535);
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

// The SceneError that f throws; fails the test when it throws none.
template <class F>
SceneError errorOf(F&& f) {
    try {
        f();
    } catch (const SceneError& e) {
        return e;
    }
    ADD_FAILURE() << "no SceneError";
    return SceneError("", "", "");
}
SceneError readError(const fs::path& file) {
    return errorOf([&] { read(file); });
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class SceneFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        registerProbe();
        gLog = {};
    }

    // A valid document with a probe whose Target is a box below it, and an
    // inline triangle object; written to good.mosaiq.
    json goodDocument() {
        Scene scene;
        ProbeObject* probe = newProbe();
        Node* p = addNode(scene.root(), "Probe001", probe);
        Node* target = addNode(p, "Target", createObject(GEOMOBJECT_CLASS_ID, BOXOBJ_CLASS_ID));
        probe->pb->setRawValue(kTarget, 0, NodeRef{target->GetHandle()});
        addNode(scene.root(), "Tri", new TriObject(oddMesh()));
        saveScene(scene, dir / "good.mosaiq");
        return json::parse(readText(dir / "good.mosaiq"));
    }

    test::TempDir dir;
};

// ---------------------------------------------------------------------------
// Round trips

TEST_F(SceneFileTest, RoundTripKeepsEveryParameterBitForBit) {
    Scene scene;
    ProbeObject* probe = newProbe();
    Node* probeNode = addNode(scene.root(), "Probe001", probe);
    Node* other = addNode(scene.root(), "Other");
    ParamBlock& pb = *probe->pb;
    const float above1 = std::nextafter(1.0f, 2.0f), pi = std::numbers::pi_v<float>;
    const float tricky[] = {1e-7f, 0.1f, 100000.0f, -0.0f, 1e-45f, FLT_MAX, above1, pi};
    for (int i = 0; i < 3; ++i) pb.SetValue(kSizes, 0, tricky[i], i);
    pb.SetValue(kCount, 0, 7);
    pb.SetValue(kFlag, 0, 0);
    pb.SetValue(kLabel, 0, "quote \" backslash \\ tab\t ünïcode ☃");
    pb.SetValue(kPath, 0, "../pattern files/tile.glb");
    pb.setRawValue(kTarget, 0, NodeRef{other->GetHandle()});
    pb.setRawValue(kTargets, 1, NodeRef{probeNode->GetHandle()});  // element 0 stays none
    const fs::path file = dir / "roundtrip.mosaiq";
    for (float f : tricky) {
        SCOPED_TRACE(f);
        pb.SetValue(kFree, 0, f);
        pb.SetValue(kWhere, 0, Point3(f, -f, f * 0.5f));
        Matrix3 m = RotateZMatrix(f);
        m.SetTrans({f, 1e-30f, -123456.789f});
        pb.SetValue(kFrame, 0, m);

        saveScene(scene, file);
        std::unique_ptr<Scene> loaded = read(file);
        Node* again = loaded->findNode("Probe001");
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(paramBits(*again->GetObjectRef()), paramBits(*probe));
        // The reference lands on the loaded node, not the original.
        EXPECT_EQ(probeOf(*loaded).GetINode(kTarget), loaded->findNode("Other"));
        EXPECT_EQ(probeOf(*loaded).GetINode(kTargets, 0, 1), again);
        // Saving what was loaded writes the same text.
        saveScene(*loaded, dir / "again.mosaiq");
        EXPECT_EQ(readText(dir / "again.mosaiq"), readText(file));
    }
}

TEST_F(SceneFileTest, RoundTripKeepsNodesSectionsAndInlineMeshes) {
    Scene scene;
    const Matrix3 tm = RotateXMatrix(0.3f) * TransMatrix({1, 2, 3});
    Node* a = addNode(scene.root(), "A", nullptr, tm);
    a->setObjectOffsetTM(TransMatrix({0, 0, -0.5f}));
    a->SetRenderable(false);
    scene.materials["Red"] = {{"baseColor", {1, 0, 0}}};
    a->setMaterial("Red");
    Node* b = addNode(a, "B", nullptr, ScaleMatrix({2, 2, 2}));
    addNode(b, "C", new TriObject(oddMesh()));
    addNode(scene.root(), "D");
    scene.camera = {{"fov", 40}};
    scene.lights = json::array({{{"type", "sun"}}});
    scene.render = {{"spp", 16}};
    scene.units = SceneUnit::Inches;

    saveScene(scene, dir / "nodes.mosaiq");
    std::unique_ptr<Scene> loaded = read(dir / "nodes.mosaiq");
    EXPECT_EQ(loaded->units, SceneUnit::Inches);
    std::vector<std::string> names;
    for (Node* n : loaded->allNodes()) names.push_back(n->GetName());
    EXPECT_EQ(names, (std::vector<std::string>{"A", "B", "C", "D"}));
    Node* la = loaded->findNode("A");
    EXPECT_TRUE(la->localTM() == tm && la->objectOffsetTM() == TransMatrix({0, 0, -0.5f}));
    EXPECT_FALSE(la->Renderable());
    EXPECT_EQ(la->material(), "Red");
    Node* c = loaded->findNode("C");
    EXPECT_EQ(c->GetParentNode(), loaded->findNode("B"));
    EXPECT_EQ(c->GetNodeTM(0), b->GetNodeTM(0));
    EXPECT_TRUE(loaded->findNode("D")->Renderable());
    EXPECT_EQ(loaded->findNode("D")->GetObjectRef(), nullptr);
    EXPECT_TRUE(loaded->materials == scene.materials && loaded->camera == scene.camera &&
                loaded->lights == scene.lights && loaded->render == scene.render);
    auto* tri = dynamic_cast<TriObject*>(c->GetObjectRef());
    ASSERT_NE(tri, nullptr);
    EXPECT_FALSE(tri->source.valid());
    EXPECT_EQ(meshText(tri->mesh), meshText(oddMesh()));
}

// ---------------------------------------------------------------------------
// Bad input: every error names the file, the JSON path and the reason.

TEST_F(SceneFileTest, BadDocumentsNameFilePathAndReason) {
    const json good = goodDocument();
    dir.write("garbage.obj", "this is not a mesh \x01\x02\x03");
    // Parameters in declaration order: Flag Count Sizes Free Where Label Path Target Targets Frame.
    const std::string P = "/nodes/0/object/paramBlocks/0/params", M = "/nodes/1/object/mesh";
    const json erase(json::value_t::discarded);
    const struct {
        std::string pointer;              // where the good document is changed
        json value;                       // the new value there; discarded: erase it
        std::optional<std::string> path;  // of the error; none: the pointer's
        std::string reason;
    } cases[] = {
        {"/version", 2, {}, "unsupported version 2"},
        {"/format", "gltf", {}, "not a Mosaiq scene"},
        {"/format", erase, "", "missing \"format\""},
        {"/nodes/0/object/class/id", {1, 2}, "/nodes/0/object/class", "unknown class"},
        {"/nodes/0/object/paramBlocks/0/id", 2, {}, "no parameter block with id 2"},
        {P + "/1/id", 2, {}, "unknown parameter id 2"},
        {P + "/1/value", "five", {}, "expected an integer, found a string"},
        {P + "/1/value", 2.5, {}, "expected an integer"},
        {P + "/2/value", {1, 2}, {}, "table of 3 values"},
        {P + "/3/value", 1e39, {}, "beyond single precision"},
        {P + "/7/value", "Nobody", {}, "node \"Nobody\" is not in this file"},
        {"/nodes/1/name", "Target", P + "/7/value", "used by 2 nodes"},
        {"/nodes/1/name", erase, "/nodes/1", "missing \"name\""},
        {"/nodes/0/renderable", "yes", {}, "expected true or false"},
        {"/nodes/0/material", "Gold", {}, "material \"Gold\" is not in /materials"},
        {M + "/inline/faces/1/2", 4, {}, "out of range"},
        {M + "/inline/maps/100",
         good[json::json_pointer(M + "/inline/maps/1")],
         {},
         "numbered 0 to 99"},
        {M,
         {{"file", "nowhere/tile.obj"}, {"node", 0}},
         M + "/file",
         "mesh asset \"nowhere/tile.obj\" not found"},
        {M,
         {{"file", "garbage.obj"}, {"node", 0}},
         M + "/file",
         "cannot read mesh asset \"garbage.obj\""},
        {"/nodes/0/children/0/object/mesh",
         {{"inline", json::object()}},
         {},
         "only triangle objects"},
        {"/nodes", json::object(), {}, "expected an array"},
        {"/units", "cms", {}, "unknown unit \"cms\" (did you mean \"cm\"?)"},
        {"/units", 1, {}, "expected a string"},
    };
    // Generic is not written, so files from before units read and save the same.
    EXPECT_FALSE(good.contains("units"));
    const fs::path file = dir / "bad.mosaiq";
    for (const auto& c : cases) {
        const std::string path = c.path.value_or(c.pointer);
        SCOPED_TRACE(c.pointer + ": " + c.reason);
        json doc = good;
        const json::json_pointer at(c.pointer);
        if (c.value.is_discarded())
            doc[at.parent_pointer()].erase(at.back());
        else
            doc[at] = c.value;
        writeText(file, doc.dump(2));
        const SceneError e = readError(file);
        EXPECT_EQ(e.file(), file.string());
        EXPECT_EQ(e.jsonPath(), path);
        EXPECT_TRUE(contains(e.reason(), c.reason)) << e.reason();
        for (const std::string& part : {file.string(), path, c.reason})
            EXPECT_TRUE(contains(e.what(), part)) << e.what();
    }
}

TEST_F(SceneFileTest, UnreadableTruncatedAndTooDeepFilesNameTheFileAndWhy) {
    auto chain = [](int depth) {
        std::string text = "{\"format\": \"mosaiq-scene\", \"version\": 1, \"nodes\": [";
        for (int i = 1; i < depth; ++i) text += "{\"name\": \"n\", \"children\": [";
        text += "{\"name\": \"leaf\"}";
        for (int i = 1; i < depth; ++i) text += "]}";
        return text + "]}";
    };
    const std::string brackets = std::string(200000, '[') + std::string(200000, ']');
    const std::pair<fs::path, const char*> cases[] = {
        {dir / "missing.mosaiq", "cannot open: No such file"},
        {dir.path(), "folder"},
        {dir.write("broken.mosaiq", "{\n  \"format\": \"mosaiq-scene\",\n  \"version\": 1,,\n}"),
         "not valid JSON"},
        {dir.write("empty.mosaiq", ""), "not valid JSON"},
        {dir.write("overflow.mosaiq", "{\"format\": \"mosaiq-scene\", \"version\": 1e400}"),
         "not valid JSON: number overflow"},
        {dir.write("array.mosaiq", "[1, 2]"), "expected an object"},
        // Too deep for the node tree, for the JSON parser, and deep JSON in a
        // section whose contents are the renderer's.
        {dir.write("deeper.mosaiq", chain(257)), "nested more than"},
        {dir.write("deepest.mosaiq", chain(100000)), "nested more than"},
        {dir.write("brackets.mosaiq",
                   "{\"format\": \"mosaiq-scene\", \"version\": 1, "
                   "\"materials\": {\"m\": {\"x\": " +
                       brackets + "}}}"),
         "nested more than"},
    };
    for (const auto& [file, reason] : cases) {
        SCOPED_TRACE(file);
        const SceneError e = readError(file);
        EXPECT_EQ(e.file(), file.string());
        EXPECT_TRUE(contains(e.reason(), reason)) << e.reason();
    }
    // The parser's position, in words, without the library's own wording.
    const std::string broken = readError(dir / "broken.mosaiq").reason();
    EXPECT_TRUE(contains(broken, "line 3") && !contains(broken, "[json.exception")) << broken;
    // At the limit the tree loads and saves.
    writeText(dir / "deep.mosaiq", chain(256));
    saveScene(*read(dir / "deep.mosaiq"), dir / "again.mosaiq");
    EXPECT_EQ(read(dir / "again.mosaiq")->allNodes().size(), 256u);

    // Every prefix of a good file short of the closing brace.
    goodDocument();
    const std::string text = readText(dir / "good.mosaiq");
    for (size_t n = 0; n + 2 < text.size(); n += 13) {
        writeText(dir / "cut.mosaiq", text.substr(0, n));
        EXPECT_THROW(read(dir / "cut.mosaiq"), SceneError) << "first " << n << " bytes";
    }
}

// ---------------------------------------------------------------------------
// Warnings, references and loading order

TEST_F(SceneFileTest, OutOfRangeValuesAreClampedWithAWarning) {
    json doc = goodDocument();
    const std::string params = "/nodes/0/object/paramBlocks/0/params";
    doc[json::json_pointer(params + "/1/value")] = 99;        // Count, 1..10
    doc[json::json_pointer(params + "/2/value/2")] = 0;       // Sizes, from 1e-7
    doc[json::json_pointer(params + "/0/value")] = true;      // Flag as a JSON boolean
    doc[json::json_pointer(params + "/3/name")] = "Freedom";  // the id wins
    doc[json::json_pointer("/nodes/0/object/class/name")] = "OldName";
    writeText(dir / "clamp.mosaiq", doc.dump());

    std::vector<std::string> warnings;
    std::unique_ptr<Scene> loaded = read(dir / "clamp.mosaiq", &warnings);
    EXPECT_EQ(probeOf(*loaded).GetInt(kCount), 10);
    EXPECT_EQ(probeOf(*loaded).GetFloat(kSizes, 0, 2), 1e-7f);
    EXPECT_EQ(probeOf(*loaded).GetInt(kFlag), 1);
    ASSERT_EQ(warnings.size(), 4u);
    const std::string file = (dir / "clamp.mosaiq").string();
    for (const auto& [path, part] : {std::pair{params + "/1/value", "Count"},
                                     {params + "/2/value/2", "Sizes[2]"},
                                     {params + "/3/name", "\"Freedom\""},
                                     {"/nodes/0/object/class/name", "\"OldName\""}}) {
        EXPECT_TRUE(std::any_of(warnings.begin(), warnings.end(),
                                [&](const std::string& w) {
                                    return contains(w, file + ": " + path + ":") &&
                                           contains(w, part);
                                }))
            << "no warning at " << path << " with \"" << part << "\"";
    }
}

TEST_F(SceneFileTest, UnknownKeysInEveryRecordWarnWithTheNearestKnownName) {
    json doc = goodDocument();
    const std::string obj = "/nodes/0/object", params = obj + "/paramBlocks/0/params";
    const std::pair<std::string, std::string> slips[] = {
        {"/versoin", "version"},
        {"/nodes/0/renderabel", "renderable"},
        {obj + "/paramBlock", "paramBlocks"},
        {obj + "/class/superclass", "superClass"},
        {obj + "/paramBlocks/0/parms", "params"},
        {params + "/1/typ", "type"},
        {"/nodes/1/object/mesh/inlin", "inline"},
        {"/nodes/1/object/mesh/inline/normal", "normals"},
    };
    for (const auto& [pointer, meant] : slips) doc[json::json_pointer(pointer)] = 1;
    doc[json::json_pointer(params + "/1/name")] = "Cuont";
    writeText(dir / "slips.mosaiq", doc.dump());

    std::vector<std::string> warnings;
    std::unique_ptr<Scene> loaded = read(dir / "slips.mosaiq", &warnings);
    EXPECT_TRUE(loaded->root()->GetChildNode(0)->Renderable());
    const std::string file = (dir / "slips.mosaiq").string();
    std::vector<std::string> expected;
    for (const auto& [pointer, meant] : slips)
        expected.push_back(file + ": " + pointer + ": unknown key, ignored (did you mean \"" +
                           meant + "\"?)");
    expected.push_back(file + ": " + params + "/1/name: parameter 1 is \"Count\"; the file calls " +
                       "it \"Cuont\" (loaded by id) (did you mean \"Count\"?)");
    std::sort(expected.begin(), expected.end());
    std::sort(warnings.begin(), warnings.end());
    EXPECT_EQ(warnings, expected);
}

TEST_F(SceneFileTest, AmbiguousReferencesAndNonFiniteValuesAreRefusedOnSave) {
    Scene scene;
    addNode(scene.root(), "Twin");
    addNode(scene.root(), "Twin");
    ProbeObject* probe = newProbe();
    addNode(scene.root(), "Probe001", probe);
    const fs::path file = dir / "twins.mosaiq";
    saveScene(scene, file);  // duplicate names are fine until referenced
    EXPECT_EQ(read(file)->allNodes().size(), 3u);
    const std::string before = readText(file);

    probe->pb->setRawValue(kTarget, 0, NodeRef{scene.findNode("Twin")->GetHandle()});
    SceneError e = errorOf([&] { saveScene(scene, file); });
    EXPECT_EQ(e.jsonPath(), "/nodes/2/object/paramBlocks/0/params/7");
    EXPECT_TRUE(contains(e.reason(), "2 nodes have that name")) << e.what();
    probe->pb->setRawValue(kTarget, 0, NodeRef{});
    probe->pb->setRawValue(kFree, 0, std::numeric_limits<float>::quiet_NaN());
    e = errorOf([&] { saveScene(scene, file); });
    EXPECT_EQ(e.jsonPath(), "/nodes/2/object/paramBlocks/0/params/3/value");
    // The earlier file stays, and no temporary file is left beside it.
    EXPECT_EQ(readText(file), before);
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"twins.mosaiq"});
}

TEST_F(SceneFileTest, LoadSceneReplacesTheSceneOnlyWhenTheWholeFileReads) {
    json doc = goodDocument();
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
    EXPECT_TRUE(gLog.loads == 0 && gLog.callbacksRun == 0 && ip.warnings().empty());

    theHold.Begin();
    loadScene(ip, dir / "good.mosaiq");
    theHold.Accept("load");
    EXPECT_EQ(theHold.undoName(), "") << "loading records no undo step";
    theHold.Reset();
    EXPECT_EQ(ip.scene().findNode("Keep"), nullptr);
    EXPECT_TRUE(gLog.loads == 1 && gLog.callbacksRun == 1);
    EXPECT_TRUE(gLog.sceneWasInPlace) << "callbacks run once the scene is in place";
    // Node parameters are stored without running their accessors.
    EXPECT_EQ(probeOf(ip.scene()).GetINode(kTarget), ip.scene().findNode("Target"));
    EXPECT_EQ(gLog.accessorSets, 0);
}

// ---------------------------------------------------------------------------
// Atomic saving

TEST_F(SceneFileTest, FailedOrInterruptedWritesLeaveTheOldFileWholeAndLongNamesSave) {
    const fs::path file = dir / "scene.mosaiq";
    Scene scene;
    for (int i = 0; i < 20; ++i)
        addNode(scene.root(), "Tri" + std::to_string(i), new TriObject(oddMesh()));
    // Writes past 100 bytes fail with EFBIG (not SIGXFSZ); without free file
    // descriptors no temporary file can be made.
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    for (const auto& [resource, limit, reason] :
         {std::tuple{RLIMIT_FSIZE, rlim_t(100), "cannot write"},
          std::tuple{RLIMIT_NOFILE, rlim_t(0), "cannot create temporary file"}}) {
        SCOPED_TRACE(reason);
        writeText(file, "old contents");
        rlimit saved{};
        getrlimit(resource, &saved);
        rlimit small = saved;
        small.rlim_cur = limit;
        setrlimit(resource, &small);
        const SceneError e = errorOf([&] { saveScene(scene, file); });
        setrlimit(resource, &saved);
        EXPECT_EQ(e.file(), file.string());
        EXPECT_TRUE(contains(e.reason(), reason)) << e.what();
        EXPECT_EQ(readText(file), "old contents");
        EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"scene.mosaiq"});
    }
    std::signal(SIGXFSZ, oldHandler);

    // Any writer gets a temporary beside the file under its extension. One
    // that throws, or a signal that removes the temporary midway (even if the
    // writer makes it again), leaves the old file and nothing else.
    struct WriterFailed {};
    EXPECT_THROW(writeFileAtomically(file,
                                     [&](const fs::path& tmp) {
                                         EXPECT_EQ(tmp.parent_path(), file.parent_path());
                                         EXPECT_EQ(tmp.extension(), ".mosaiq");
                                         writeText(tmp, "half");
                                         throw WriterFailed{};
                                     }),
                 WriterFailed);
    auto oldUsr1 = std::signal(SIGUSR1, [](int) { removeTemporaryFiles(); });
    EXPECT_THROW(writeFileAtomically(file,
                                     [&](const fs::path& tmp) {
                                         std::raise(SIGUSR1);
                                         writeText(tmp, "new contents");
                                     }),
                 FileWriteError);
    std::signal(SIGUSR1, oldUsr1);
    EXPECT_EQ(readText(file), "old contents");
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{"scene.mosaiq"});

    // Once writing works again the file is replaced whole, keeping its permissions.
    const fs::perms perms = fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
    fs::permissions(file, perms);
    saveScene(scene, file);
    EXPECT_EQ(read(file)->allNodes().size(), 20u);
    EXPECT_EQ(fs::status(file).permissions(), perms);
    // A name near the limit leaves room for no temporary suffix of its own.
    fs::remove(file);
    const fs::path longName = dir / (std::string(248, 'n') + ".mosaiq");
    saveScene(scene, longName);
    EXPECT_EQ(read(longName)->allNodes().size(), 20u);
    EXPECT_EQ(folderEntries(dir.path()), std::vector<std::string>{longName.filename().string()});
}

}  // namespace
}  // namespace mq
