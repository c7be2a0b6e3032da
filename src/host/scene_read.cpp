// Reading scene files: builds a complete new Scene or throws, naming the file,
// the JSON path (RFC 6901 pointer) and the reason.
#include "host/scene_layout.h"

#include "host/classdesc.h"
#include "host/hold.h"
#include "host/import.h"
#include "host/object.h"
#include "host/suggest.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace mq {

namespace fs = std::filesystem;
using json = nlohmann::json;
using namespace scenefile;

namespace {

// Byte offset where arrays and objects nest deeper than limit, or npos.
size_t tooDeepAt(const std::string& text, int limit) {
    int depth = 0;
    bool inString = false, escaped = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return i;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return std::string::npos;
}

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%X", v);
    return buf;
}

std::string describeClass(SClass_ID sid, ClassId cid) {
    return "super class " + hex(sid) + ", id [" + hex(cid.a) + ", " + hex(cid.b) + "]";
}

// "a string", "an integer"... for messages about the wrong kind of value.
std::string kindOf(const json& j) {
    switch (j.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return j.get<bool>() ? "true" : "false";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
            return "an integer";
        case json::value_t::number_float:
            return "a number";
        case json::value_t::string:
            return "a string";
        case json::value_t::array:
            return "an array";
        case json::value_t::object:
            return "an object";
        default:
            return "a binary value";
    }
}

std::string joinedUnitNames() {
    std::string out;
    for (const std::string& n : unitNames()) out += (out.empty() ? "" : ", ") + n;
    return out;
}

// Undo records made while loading would point into a scene that may never
// be used; loading is not an undoable step.
class HoldSuspension {
public:
    HoldSuspension() { theHold.Suspend(); }
    ~HoldSuspension() { theHold.Resume(); }
    HoldSuspension(const HoldSuspension&) = delete;
    HoldSuspension& operator=(const HoldSuspension&) = delete;
};

struct ObjectDeleter {
    void operator()(Object* obj) const {
        if (obj) obj->DeleteThis();
    }
};
using ObjectPtr = std::unique_ptr<Object, ObjectDeleter>;

// ---------------------------------------------------------------------------
// Reading

class SceneReader {
public:
    SceneReader(const fs::path& file, ILoad& iload, const WarningSink& warn)
        : file_(file),
          fileName_(file.string()),
          folder_(fs::absolute(file).parent_path()),
          iload_(iload),
          warn_(warn) {}

    std::unique_ptr<Scene> read() {
        const json doc = parse();
        HoldSuspension noUndo;
        expectObject(doc, "");
        checkHeader(doc);
        checkKeys(doc, "",
                  {key::kFormat, key::kVersion, key::kUnits, key::kNodes, key::kMaterials,
                   key::kCamera, key::kLights, key::kRender});

        auto scene = std::make_unique<Scene>();
        readSections(doc, *scene);
        scene_ = scene.get();
        if (const json* nodes = optional(doc, key::kNodes)) {
            expectArray(*nodes, "/nodes");
            for (size_t i = 0; i < nodes->size(); ++i) {
                readNode((*nodes)[i], at("/nodes", i), scene->root(), 1);
            }
        }
        resolveNodeRefs();

        // Only a complete scene lets its objects register post-load work.
        for (const auto& [obj, path] : loaded_) {
            if (obj->Load(&iload_) != IO_OK) fail(path, "the object failed to load");
        }
        return scene;
    }

private:
    struct PendingNodeRef {
        ParamBlock* pb;
        ParamID id;
        int tabIndex;
        std::optional<std::string> name;  // none: the parameter holds no node
        std::string path;
    };

    [[noreturn]] void fail(const std::string& path, const std::string& reason) const {
        throw SceneError(fileName_, path, reason);
    }
    void warn(const std::string& path, const std::string& text) const {
        if (warn_) warn_(describeError(fileName_, path, text));
    }
    // A misspelt member would otherwise be dropped without a word.
    void checkKeys(const json& record, const std::string& path,
                   const std::vector<std::string>& known) const {
        for (const auto& [name, value] : record.items()) {
            if (std::find(known.begin(), known.end(), name) == known.end())
                warn(at(path, name), "unknown key, ignored" + didYouMean(name, known));
        }
    }

    json parse() const {
        std::error_code ec;
        if (fs::is_directory(file_, ec)) fail("", "is a folder, not a scene file");
        std::ifstream in(file_, std::ios::binary);
        if (!in) fail("", std::string("cannot open: ") + std::strerror(errno));
        std::ostringstream text;
        text << in.rdbuf();
        if (in.bad()) fail("", std::string("cannot read: ") + std::strerror(errno));
        const std::string content = text.str();
        if (const size_t at = tooDeepAt(content, kMaxJsonDepth); at != std::string::npos) {
            fail("", "JSON nested more than " + std::to_string(kMaxJsonDepth) +
                         " levels deep (at byte " + std::to_string(at) + ")");
        }
        try {
            return json::parse(content);
        } catch (const json::exception& e) {
            // Keep the parser's "parse error at line L, column C: ..." without its prefix.
            std::string msg = e.what();
            if (const size_t p = msg.find("] ");
                msg.rfind("[json.exception", 0) == 0 && p != std::string::npos) {
                msg = msg.substr(p + 2);
            }
            // A number beyond a double's range (1e400) is no parse error and has no byte.
            const auto* parseError = dynamic_cast<const json::parse_error*>(&e);
            fail("", "not valid JSON" +
                         (parseError ? " (byte " + std::to_string(parseError->byte) + ")"
                                     : std::string()) +
                         ": " + msg);
        }
    }

    void checkHeader(const json& doc) const {
        const json& format = require(doc, key::kFormat, "");
        if (!format.is_string() || format.get<std::string>() != kFormatName) {
            fail("/format", "not a Mosaiq scene: expected \"" + std::string(kFormatName) +
                                "\", found " + format.dump());
        }
        const json& version = require(doc, key::kVersion, "");
        if (!version.is_number_integer()) {
            fail("/version", "expected an integer version, found " + kindOf(version));
        }
        // Non-negative numbers arrive as unsigned; the largest ones do not fit int64_t.
        const bool huge = version.is_number_unsigned() &&
                          version.get<uint64_t>() > uint64_t(std::numeric_limits<int64_t>::max());
        const int64_t v = huge ? std::numeric_limits<int64_t>::max() : version.get<int64_t>();
        if (v != kSceneFileVersion) {
            fail("/version",
                 "unsupported version " + version.dump() + ": this Mosaiq reads version " +
                     std::to_string(kSceneFileVersion) +
                     (v > kSceneFileVersion ? " (the file was written by a newer Mosaiq)" : ""));
        }
    }

    void readSections(const json& doc, Scene& scene) const {
        if (const json* u = optional(doc, key::kUnits)) {
            const std::string name = readString(*u, "/units");
            const std::optional<SceneUnit> unit = unitFromName(name);
            if (!unit) {
                fail("/units", "unknown unit " + inQuotes(name) + didYouMean(name, unitNames()) +
                                   "; units: " + joinedUnitNames());
            }
            scene.units = *unit;
        }
        if (const json* m = optional(doc, key::kMaterials)) {
            expectObject(*m, "/materials");
            for (const auto& [name, mtl] : m->items()) expectObject(mtl, at("/materials", name));
            scene.materials = *m;
        }
        if (const json* c = optional(doc, key::kCamera); c && !c->is_null()) {
            expectObject(*c, "/camera");
            scene.camera = *c;
        }
        if (const json* l = optional(doc, key::kLights)) {
            expectArray(*l, "/lights");
            for (size_t i = 0; i < l->size(); ++i) expectObject((*l)[i], at("/lights", i));
            scene.lights = *l;
        }
        if (const json* r = optional(doc, key::kRender)) {
            expectObject(*r, "/render");
            scene.render = *r;
        }
    }

    // Recursion holds only what the walk needs; the node's own fields are
    // read in makeNode, so deep trees cost little stack.
    void readNode(const json& j, const std::string& path, Node* parent, int depth) {
        Node* added = parent->attachChild(makeNode(j, path));
        byName_[added->GetName()].push_back(added);
        const json* children = optional(j, key::kChildren);
        if (!children) return;
        const std::string cpath = at(path, key::kChildren);
        expectArray(*children, cpath);
        if (!children->empty() && depth >= kMaxNodeDepth) {
            fail(cpath, "nodes are nested more than " + std::to_string(kMaxNodeDepth) + " deep");
        }
        for (size_t i = 0; i < children->size(); ++i) {
            readNode((*children)[i], at(cpath, i), added, depth + 1);
        }
    }

    std::unique_ptr<Node> makeNode(const json& j, const std::string& path) {
        expectObject(j, path);
        checkKeys(j, path,
                  {key::kName, key::kTransform, key::kObjectOffset, key::kRenderable,
                   key::kMaterial, key::kObject, key::kChildren});
        auto node =
            std::make_unique<Node>(readString(require(j, key::kName, path), at(path, key::kName)));
        if (const json* t = optional(j, key::kTransform)) {
            node->setLocalTM(readMatrix(*t, at(path, key::kTransform)));
        }
        if (const json* t = optional(j, key::kObjectOffset)) {
            node->setObjectOffsetTM(readMatrix(*t, at(path, key::kObjectOffset)));
        }
        if (const json* r = optional(j, key::kRenderable)) {
            if (!r->is_boolean()) {
                fail(at(path, key::kRenderable), "expected true or false, found " + kindOf(*r));
            }
            node->SetRenderable(r->get<bool>());
        }
        if (const json* m = optional(j, key::kMaterial); m && !m->is_null()) {
            std::string name = readString(*m, at(path, key::kMaterial));
            if (!name.empty() && !scene_->materials.contains(name)) {
                fail(at(path, key::kMaterial),
                     "material " + inQuotes(name) + " is not in /materials");
            }
            node->setMaterial(std::move(name));
        }
        if (const json* o = optional(j, key::kObject); o && !o->is_null()) {
            const std::string opath = at(path, key::kObject);
            ObjectPtr obj = readObject(*o, opath);
            loaded_.emplace_back(obj.get(), opath);
            node->SetObjectRef(obj.release());
        }
        return node;
    }

    ObjectPtr readObject(const json& j, const std::string& path) {
        expectObject(j, path);
        checkKeys(j, path, {key::kClass, key::kMesh, key::kParamBlocks});
        const std::string cpath = at(path, key::kClass);
        const json& cls = require(j, key::kClass, path);
        expectObject(cls, cpath);
        checkKeys(cls, cpath, {key::kSuperClass, key::kId, key::kName});
        const auto sid = static_cast<SClass_ID>(readInt(
            require(cls, key::kSuperClass, cpath), at(cpath, key::kSuperClass), 0, UINT32_MAX));
        const std::string idPath = at(cpath, key::kId);
        const json& id = require(cls, key::kId, cpath);
        expectArray(id, idPath, 2);
        const ClassId cid(static_cast<uint32_t>(readInt(id[0], at(idPath, 0), 0, UINT32_MAX)),
                          static_cast<uint32_t>(readInt(id[1], at(idPath, 1), 0, UINT32_MAX)));
        std::string fileName;
        if (const json* n = optional(cls, key::kName))
            fileName = readString(*n, at(cpath, key::kName));

        ClassDesc* cd = classDirectory().find(sid, cid);
        const bool isTriObject = sid == GEOMOBJECT_CLASS_ID && cid == TRIOBJ_CLASS_ID;
        ObjectPtr obj;
        if (isTriObject) {
            obj.reset(new TriObject());
        } else {
            if (!cd) {
                fail(cpath, "unknown class " + (fileName.empty() ? "" : inQuotes(fileName) + " ") +
                                "(" + describeClass(sid, cid) +
                                "): no built-in class or loaded plug-in provides it");
            }
            obj.reset(createObject(sid, cid, true));
            if (!obj)
                fail(cpath, "could not create an object of class " + inQuotes(cd->InternalName()));
        }
        const std::string className = cd ? cd->InternalName() : obj->GetClassName();
        if (cd && !fileName.empty() && fileName != className) {
            warn(at(cpath, key::kName), "class " + describeClass(sid, cid) + " is " +
                                            inQuotes(className) + "; the file calls it " +
                                            inQuotes(fileName) + " (loaded by id)");
        }

        if (isTriObject) {
            readTriMesh(static_cast<TriObject&>(*obj), require(j, key::kMesh, path),
                        at(path, key::kMesh));
        } else if (j.contains(key::kMesh)) {
            fail(at(path, key::kMesh),
                 "only triangle objects (super class 16, id [9, 0]) carry a mesh");
        }
        if (const json* blocks = optional(j, key::kParamBlocks)) {
            readParamBlocks(*obj, *blocks, at(path, key::kParamBlocks), className);
        }
        return obj;
    }

    void readParamBlocks(Object& obj, const json& blocks, const std::string& path,
                         const std::string& className) {
        expectArray(blocks, path);
        std::unordered_set<int> seenBlocks;
        for (size_t b = 0; b < blocks.size(); ++b) {
            const std::string bpath = at(path, b);
            const json& block = blocks[b];
            expectObject(block, bpath);
            checkKeys(block, bpath, {key::kId, key::kName, key::kParams});
            const auto blockId = static_cast<BlockID>(readInt(
                require(block, key::kId, bpath), at(bpath, key::kId), INT16_MIN, INT16_MAX));
            ParamBlock* pb = obj.GetParamBlockByID(blockId);
            if (!pb) {
                fail(at(bpath, key::kId), "class " + inQuotes(className) +
                                              " has no parameter block with id " +
                                              std::to_string(blockId));
            }
            if (!seenBlocks.insert(blockId).second) {
                fail(at(bpath, key::kId),
                     "parameter block " + std::to_string(blockId) + " is given twice");
            }
            const ParamBlockDesc& desc = *pb->GetDesc();
            if (const json* n = optional(block, key::kName)) {
                const std::string name = readString(*n, at(bpath, key::kName));
                if (name != desc.int_name) {
                    warn(at(bpath, key::kName),
                         "parameter block " + std::to_string(blockId) + " of " +
                             inQuotes(className) + " is " + inQuotes(desc.int_name) +
                             "; the file calls it " + inQuotes(name) + " (loaded by id)");
                }
            }
            const std::string ppath = at(bpath, key::kParams);
            const json& params = require(block, key::kParams, bpath);
            expectArray(params, ppath);
            std::unordered_set<int> seenParams;
            for (size_t i = 0; i < params.size(); ++i) {
                readParam(*pb, params[i], at(ppath, i), className, seenParams);
            }
        }
    }

    void readParam(ParamBlock& pb, const json& j, const std::string& path,
                   const std::string& className, std::unordered_set<int>& seen) {
        expectObject(j, path);
        checkKeys(j, path, {key::kId, key::kName, key::kType, key::kValue});
        const ParamBlockDesc& desc = *pb.GetDesc();
        const auto id = static_cast<ParamID>(
            readInt(require(j, key::kId, path), at(path, key::kId), INT16_MIN, INT16_MAX));
        const ParamDef* def = desc.GetParamDef(id);
        if (!def) {
            fail(at(path, key::kId), "unknown parameter id " + std::to_string(id) + " in block " +
                                         std::to_string(desc.ID) + " (" + inQuotes(desc.int_name) +
                                         ") of class " + inQuotes(className));
        }
        if (!seen.insert(id).second) {
            fail(at(path, key::kId), "parameter " + std::to_string(id) + " (" +
                                         inQuotes(def->internalName) + ") is given twice");
        }
        const std::string label =
            "parameter " + std::to_string(id) + " (" + inQuotes(def->internalName) + ")";
        if (const json* n = optional(j, key::kName)) {
            const std::string name = readString(*n, at(path, key::kName));
            if (name != def->internalName) {
                // A name no parameter of the block has is likely a slip for another one.
                std::string hint;
                if (!desc.findByName(name)) {
                    std::vector<std::string> names;
                    for (const ParamDef& p : desc.params()) names.push_back(p.internalName);
                    hint = didYouMean(name, names);
                }
                warn(at(path, key::kName),
                     "parameter " + std::to_string(id) + " is " + inQuotes(def->internalName) +
                         "; the file calls it " + inQuotes(name) + " (loaded by id)" + hint);
            }
        }
        if (const json* t = optional(j, key::kType)) {
            const std::string typeText = readString(*t, at(path, key::kType));
            const std::optional<ParamType> type = typeFromName(typeText);
            if (!type) fail(at(path, key::kType), "unknown parameter type " + inQuotes(typeText));
            if (*type != def->type) {
                fail(at(path, key::kType), label + " is of type " + inQuotes(typeName(def->type)) +
                                               ", not " + inQuotes(typeText));
            }
        }

        const std::string vpath = at(path, key::kValue);
        const json& value = require(j, key::kValue, path);
        if (!def->isTable()) {
            readParamElement(pb, *def, 0, value, vpath, label);
            return;
        }
        if (!value.is_array() || value.size() != size_t(def->count())) {
            fail(vpath, label + " is a table of " + std::to_string(def->count()) +
                            " values; expected an array of " + std::to_string(def->count()) +
                            ", found " + kindOf(value) +
                            (value.is_array() ? " of " + std::to_string(value.size()) : ""));
        }
        for (int i = 0; i < def->count(); ++i) {
            readParamElement(pb, *def, i, value[size_t(i)], at(vpath, size_t(i)), label);
        }
    }

    void readParamElement(ParamBlock& pb, const ParamDef& def, int tabIndex, const json& j,
                          const std::string& path, const std::string& label) {
        if (def.type == TYPE_INODE) {
            // Node names are resolved once every node of the file exists.
            if (j.is_null()) {
                pending_.push_back({&pb, def.id, tabIndex, std::nullopt, path});
            } else if (j.is_string()) {
                pending_.push_back({&pb, def.id, tabIndex, j.get<std::string>(), path});
            } else {
                fail(path,
                     label + " names a node: expected a node name or null, found " + kindOf(j));
            }
            return;
        }
        ParamValue v;
        switch (def.type) {
            case TYPE_INT:
                v = static_cast<int>(readInt(j, path, INT_MIN, INT_MAX));
                break;
            case TYPE_BOOL:
                v = j.is_boolean() ? (j.get<bool>() ? 1 : 0)
                                   : static_cast<int>(readInt(j, path, INT_MIN, INT_MAX));
                break;
            case TYPE_FLOAT:
            case TYPE_WORLD:
                v = readFloat(j, path);
                break;
            case TYPE_POINT3:
                v = readPoint3(j, path);
                break;
            case TYPE_STRING:
            case TYPE_FILENAME:
                v = readString(j, path);
                break;
            case TYPE_MATRIX3:
                v = readMatrix(j, path);
                break;
            default:
                fail(path, label + " has a type (" + std::to_string(int(def.type)) +
                               ") that scene files cannot hold");
        }
        const ParamBlock::ScriptResult r = pb.assignFromScript(def.id, tabIndex, v);
        if (!r.ok) fail(path, r.message.empty() ? label + " cannot take this value" : r.message);
        if (!r.message.empty()) warn(path, r.message);
    }

    void resolveNodeRefs() {
        for (const PendingNodeRef& ref : pending_) {
            NodeRef value;
            if (ref.name) {
                const auto it = byName_.find(*ref.name);
                if (it == byName_.end()) {
                    fail(ref.path, "node " + inQuotes(*ref.name) + " is not in this file");
                }
                if (it->second.size() > 1) {
                    fail(ref.path, "node name " + inQuotes(*ref.name) + " is used by " +
                                       std::to_string(it->second.size()) +
                                       " nodes in this file, so the reference is ambiguous");
                }
                value.handle = it->second.front()->GetHandle();
            }
            // Stored as saved: the parameter's accessor must not redo user
            // actions (a pattern pick resets the crop box) while loading.
            if (!ref.pb->setRawValue(ref.id, ref.tabIndex, value)) {
                fail(ref.path, "the node reference could not be stored");
            }
        }
    }

    void readTriMesh(TriObject& obj, const json& j, const std::string& path) {
        expectObject(j, path);
        checkKeys(j, path, {key::kFile, key::kNode, key::kInline});
        const json* file = optional(j, key::kFile);
        const json* inl = optional(j, key::kInline);
        if ((file != nullptr) == (inl != nullptr)) {
            fail(path, "a mesh is either \"file\" (with \"node\") or \"inline\"");
        }
        if (inl) {
            obj.mesh = readInlineMesh(*inl, at(path, key::kInline));
            return;
        }
        const std::string fpath = at(path, key::kFile);
        const std::string rel = readString(*file, fpath);
        const int nodeIndex = static_cast<int>(
            readInt(require(j, key::kNode, path), at(path, key::kNode), 0, INT_MAX));
        if (rel.empty()) fail(fpath, "empty mesh asset path");
        const fs::path asset = (folder_ / fs::path(rel)).lexically_normal();

        auto it = assets_.find(asset);
        if (it == assets_.end()) {
            std::error_code ec;
            if (!fs::exists(asset, ec)) {
                fail(fpath, "mesh asset " + inQuotes(rel) + " not found (looked for " +
                                asset.string() + ")");
            }
            try {
                it = assets_.emplace(asset, importMeshFile(asset)).first;
            } catch (const std::exception& e) {
                fail(fpath, "cannot read mesh asset " + inQuotes(rel) + ": " + e.what());
            }
        }
        const ImportedScene& imported = it->second;
        if (size_t(nodeIndex) >= imported.nodes.size()) {
            fail(at(path, key::kNode), "mesh asset " + inQuotes(rel) + " has " +
                                           std::to_string(imported.nodes.size()) + " nodes; node " +
                                           std::to_string(nodeIndex) + " does not exist");
        }
        const ImportedNode& node = imported.nodes[size_t(nodeIndex)];
        if (!node.mesh) {
            fail(at(path, key::kNode), "node " + std::to_string(nodeIndex) + " (" +
                                           inQuotes(node.name) + ") of mesh asset " +
                                           inQuotes(rel) + " has no mesh");
        }
        obj.mesh = *node.mesh;
        obj.source = MeshSource{asset, nodeIndex};
    }

    Mesh readInlineMesh(const json& j, const std::string& path) const {
        expectObject(j, path);
        checkKeys(j, path, {key::kVerts, key::kFaces, key::kMaps, key::kNormals});
        Mesh mesh;
        const std::string vpath = at(path, key::kVerts);
        const json& verts = require(j, key::kVerts, path);
        expectArray(verts, vpath);
        mesh.verts.reserve(verts.size());
        for (size_t i = 0; i < verts.size(); ++i)
            mesh.verts.push_back(readPoint3(verts[i], at(vpath, i)));

        const std::string fpath = at(path, key::kFaces);
        const json& faces = require(j, key::kFaces, path);
        expectArray(faces, fpath);
        mesh.faces.reserve(faces.size());
        for (size_t f = 0; f < faces.size(); ++f) {
            const std::string p = at(fpath, f);
            const json& jf = faces[f];
            if (!jf.is_array() || (jf.size() != 5 && jf.size() != 6)) {
                fail(p,
                     "expected [a, b, c, smoothing group, material id] (and optionally edge "
                     "flags), found " +
                         kindOf(jf));
            }
            Face face;
            for (int c = 0; c < 3; ++c) {
                face.v[c] = static_cast<uint32_t>(
                    readInt(jf[size_t(c)], at(p, size_t(c)), 0, int64_t(mesh.verts.size()) - 1));
            }
            face.smGroup = static_cast<uint32_t>(readInt(jf[3], at(p, 3), 0, UINT32_MAX));
            const auto matId = static_cast<uint32_t>(readInt(jf[4], at(p, 4), 0, 0xffff));
            const auto low =
                jf.size() == 6 ? static_cast<uint32_t>(readInt(jf[5], at(p, 5), 0, 0xffff)) : 0u;
            face.flags = (matId << 16) | low;
            mesh.faces.push_back(face);
        }

        if (const json* maps = optional(j, key::kMaps)) {
            const std::string mpath = at(path, key::kMaps);
            expectObject(*maps, mpath);
            for (const auto& [key, map] : maps->items()) {
                const std::string chPath = at(mpath, key);
                int channel = -1;
                if (key.empty() || key.size() > 2 ||
                    key.find_first_not_of("0123456789") != std::string::npos ||
                    (channel = std::stoi(key)) >= MAX_MESHMAPS) {
                    fail(chPath, "map channels are numbered 0 to " +
                                     std::to_string(MAX_MESHMAPS - 1) + ", found " + inQuotes(key));
                }
                readMap(mesh, channel, map, chPath);
            }
        }
        if (const json* normals = optional(j, key::kNormals)) {
            readNormals(mesh, *normals, at(path, key::kNormals));
        }
        if (const std::vector<std::string> problems = mesh.validate(); !problems.empty()) {
            fail(path, "broken mesh: " + problems.front());
        }
        return mesh;
    }

    void readMap(Mesh& mesh, int channel, const json& j, const std::string& path) const {
        expectObject(j, path);
        checkKeys(j, path, {key::kVerts, key::kFaces});
        MeshMap& map = mesh.Map(channel);
        mesh.setMapSupport(channel);
        const std::string vpath = at(path, key::kVerts);
        const json& verts = require(j, key::kVerts, path);
        expectArray(verts, vpath);
        map.verts.clear();
        map.verts.reserve(verts.size());
        for (size_t i = 0; i < verts.size(); ++i)
            map.verts.push_back(readPoint3(verts[i], at(vpath, i)));
        const std::string fpath = at(path, key::kFaces);
        const json& faces = require(j, key::kFaces, path);
        expectArray(faces, fpath, mesh.faces.size());
        map.faces.assign(faces.size(), TVFace{});
        for (size_t f = 0; f < faces.size(); ++f) {
            const std::string p = at(fpath, f);
            expectArray(faces[f], p, 3);
            for (int c = 0; c < 3; ++c) {
                map.faces[f].t[c] = static_cast<uint32_t>(readInt(
                    faces[f][size_t(c)], at(p, size_t(c)), 0, int64_t(map.verts.size()) - 1));
            }
        }
    }

    void readNormals(Mesh& mesh, const json& j, const std::string& path) const {
        expectObject(j, path);
        checkKeys(j, path, {key::kNormals, key::kFaces});
        const std::string npath = at(path, key::kNormals);
        const json& normals = require(j, key::kNormals, path);
        expectArray(normals, npath);
        std::vector<Point3> pool;
        pool.reserve(normals.size());
        for (size_t i = 0; i < normals.size(); ++i)
            pool.push_back(readPoint3(normals[i], at(npath, i)));
        const std::string fpath = at(path, key::kFaces);
        const json& faces = require(j, key::kFaces, path);
        expectArray(faces, fpath, mesh.faces.size());
        std::vector<std::array<int, 3>> indices(faces.size());
        for (size_t f = 0; f < faces.size(); ++f) {
            const std::string p = at(fpath, f);
            expectArray(faces[f], p, 3);
            for (int c = 0; c < 3; ++c) {
                indices[f][size_t(c)] = static_cast<int>(
                    readInt(faces[f][size_t(c)], at(p, size_t(c)), 0, int64_t(pool.size()) - 1));
            }
        }
        mesh.SpecifyNormals();
        mesh.GetSpecifiedNormals()->SetNormals(std::move(pool), std::move(indices));
    }

    // Typed access; each failure names the path and what was found.
    const json* optional(const json& obj, const char* key) const {
        const auto it = obj.find(key);
        return it == obj.end() ? nullptr : &*it;
    }
    const json& require(const json& obj, const char* key, const std::string& path) const {
        const json* j = optional(obj, key);
        if (!j) fail(path, std::string("missing \"") + key + "\"");
        return *j;
    }
    void expectObject(const json& j, const std::string& path) const {
        if (!j.is_object()) fail(path, "expected an object, found " + kindOf(j));
    }
    void expectArray(const json& j, const std::string& path) const {
        if (!j.is_array()) fail(path, "expected an array, found " + kindOf(j));
    }
    void expectArray(const json& j, const std::string& path, size_t size) const {
        if (!j.is_array() || j.size() != size) {
            fail(path, "expected an array of " + std::to_string(size) + ", found " + kindOf(j) +
                           (j.is_array() ? " of " + std::to_string(j.size()) : ""));
        }
    }
    std::string readString(const json& j, const std::string& path) const {
        if (!j.is_string()) fail(path, "expected a string, found " + kindOf(j));
        return j.get<std::string>();
    }
    int64_t readInt(const json& j, const std::string& path, int64_t lo, int64_t hi) const {
        int64_t v = 0;
        const std::string range = " (" + std::to_string(lo) + " to " + std::to_string(hi) + ")";
        if (j.is_number_unsigned()) {
            if (j.get<uint64_t>() > uint64_t(hi)) fail(path, j.dump() + " is out of range" + range);
            v = static_cast<int64_t>(j.get<uint64_t>());
        } else if (j.is_number_integer()) {
            v = j.get<int64_t>();
        } else if (j.is_number_float() && std::floor(j.get<double>()) == j.get<double>() &&
                   std::fabs(j.get<double>()) < 9.0e18) {
            v = static_cast<int64_t>(j.get<double>());
        } else {
            fail(path, "expected an integer, found " + (j.is_number() ? j.dump() : kindOf(j)));
        }
        if (v < lo || v > hi) fail(path, std::to_string(v) + " is out of range" + range);
        return v;
    }
    float readFloat(const json& j, const std::string& path) const {
        if (!j.is_number()) fail(path, "expected a number, found " + kindOf(j));
        const double d = j.get<double>();
        if (std::fabs(d) > double(std::numeric_limits<float>::max())) {
            fail(path, j.dump() + " is beyond single precision");
        }
        return static_cast<float>(d);
    }
    Point3 readPoint3(const json& j, const std::string& path) const {
        expectArray(j, path, 3);
        return {readFloat(j[0], at(path, 0)), readFloat(j[1], at(path, 1)),
                readFloat(j[2], at(path, 2))};
    }
    Matrix3 readMatrix(const json& j, const std::string& path) const {
        if (!j.is_array() || j.size() != 4) {
            fail(path, "expected a matrix of 4 rows of 3 numbers, found " + kindOf(j) +
                           (j.is_array() ? " of " + std::to_string(j.size()) : ""));
        }
        Matrix3 m;
        for (int r = 0; r < 4; ++r) m.SetRow(r, readPoint3(j[size_t(r)], at(path, size_t(r))));
        return m;
    }

    fs::path file_;
    std::string fileName_;
    fs::path folder_;
    ILoad& iload_;
    const WarningSink& warn_;
    Scene* scene_ = nullptr;
    std::vector<std::pair<Object*, std::string>> loaded_;
    std::vector<PendingNodeRef> pending_;
    std::unordered_map<std::string, std::vector<Node*>> byName_;
    std::map<fs::path, ImportedScene> assets_;
};

}  // namespace

std::unique_ptr<Scene> readSceneFile(const fs::path& file, ILoad& iload, const WarningSink& warn) {
    return SceneReader(file, iload, warn).read();
}

void loadScene(HostInterface& ip, const fs::path& file) {
    // Warnings of a load that fails are moot; the rest reach the user once the scene is in.
    std::vector<std::string> warnings;
    ILoad iload;
    std::unique_ptr<Scene> scene =
        readSceneFile(file, iload, [&](const std::string& w) { warnings.push_back(w); });
    std::error_code ec;
    scene->folder = fs::absolute(file, ec).parent_path();
    ip.setScene(std::move(scene));
    for (const std::string& w : warnings) ip.warning(w);
    iload.runPostLoadCallbacks();
}

bool isSceneFile(const std::filesystem::path& file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return ext == ".mosaiq";
}

}  // namespace mq
