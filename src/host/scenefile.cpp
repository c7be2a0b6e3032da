// Scene files: reading builds a complete new Scene or throws, naming the file,
// the JSON path (RFC 6901 pointer) and the reason; writing goes through a
// temporary file and a rename.
#include "host/scenefile.h"

#include "host/classdesc.h"
#include "host/hold.h"
#include "host/import.h"
#include "host/object.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
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

namespace {

constexpr const char* kFormatName = "mosaiq-scene";
// Deeper trees than this are malformed or hostile; loading, saving, node
// transforms and the node destructor all recurse over the tree.
constexpr int kMaxNodeDepth = 256;
// The JSON parser recurses too; this leaves room for the deepest node tree.
constexpr int kMaxJsonDepth = 2 * kMaxNodeDepth + 16;

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

std::string describeError(const std::string& file, const std::string& jsonPath,
                          const std::string& reason) {
    std::string s = file;
    if (!jsonPath.empty()) s += ": " + jsonPath;
    return s + ": " + reason;
}

// JSON pointer of a member or element below path.
std::string at(const std::string& path, const std::string& key) {
    std::string escaped;
    for (char c : key) {
        if (c == '~') {
            escaped += "~0";
        } else if (c == '/') {
            escaped += "~1";
        } else {
            escaped += c;
        }
    }
    return path + "/" + escaped;
}
std::string at(const std::string& path, size_t index) { return path + "/" + std::to_string(index); }

std::string inQuotes(const std::string& s) { return "\"" + s + "\""; }

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

// Saved files keep their members in a fixed, readable order.
using ojson = nlohmann::ordered_json;

// Floats are stored as the double of the same value: the double's shortest
// round-trip text reads back to it exactly, and narrowing gives the float.
template <class J>
J number(float f) {
    return J(static_cast<double>(f));
}

template <class J>
J point3ToJson(const Point3& p) {
    return J::array({number<J>(p.x), number<J>(p.y), number<J>(p.z)});
}

template <class J>
J matrixTo(const Matrix3& m) {
    J rows = J::array();
    for (int r = 0; r < 4; ++r) rows.push_back(point3ToJson<J>(m.GetRow(r)));
    return rows;
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

// The value of one table element (or of a single value) as stored.
template <class J>
J elementToJson(const ParamValue& v, const std::function<J(const NodeRef&)>& nodeToJson) {
    return std::visit(
        [&](const auto& x) -> J {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, int>) {
                return J(x);
            } else if constexpr (std::is_same_v<T, float>) {
                return number<J>(x);
            } else if constexpr (std::is_same_v<T, Point3>) {
                return point3ToJson<J>(x);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return J(x);
            } else if constexpr (std::is_same_v<T, Matrix3>) {
                return matrixTo<J>(x);
            } else {
                return nodeToJson(x);
            }
        },
        v);
}

// A parameter's value: tables as arrays of their elements.
template <class J>
J paramToJson(const ParamBlock& pb, const ParamDef& def,
              const std::function<J(const NodeRef&)>& nodeToJson) {
    auto element = [&](int i) -> J {
        const ParamValue* v = pb.rawValue(def.id, i);
        return v ? elementToJson<J>(*v, nodeToJson) : J();
    };
    if (!def.isTable()) return element(0);
    J arr = J::array();
    for (int i = 0; i < def.count(); ++i) arr.push_back(element(i));
    return arr;
}

// Path of the first number that is not finite (NaN and infinity have no
// JSON form), or empty.
template <class J>
std::string firstNonFinite(const J& j, const std::string& path) {
    if (j.is_number_float()) return std::isfinite(j.template get<double>()) ? std::string() : path;
    if (j.is_array()) {
        for (size_t i = 0; i < j.size(); ++i) {
            std::string p = firstNonFinite(j[i], at(path, i));
            if (!p.empty()) return p;
        }
    } else if (j.is_object()) {
        for (const auto& [key, value] : j.items()) {
            std::string p = firstNonFinite(value, at(path, key));
            if (!p.empty()) return p;
        }
    }
    return {};
}

// True when any element or member (not j itself) is an object.
template <class J>
bool holdsObject(const J& j) {
    for (const auto& e : j) {
        if (e.is_object() || (e.is_array() && holdsObject(e))) return true;
    }
    return false;
}

template <class J>
void formatFlat(const J& j, std::string& out) {
    if (j.is_object()) {
        out += '{';
        bool first = true;
        for (const auto& [key, value] : j.items()) {
            out += first ? "" : ", ";
            first = false;
            out += J(key).dump() + ": ";
            formatFlat(value, out);
        }
        out += '}';
    } else if (j.is_array()) {
        out += '[';
        for (size_t i = 0; i < j.size(); ++i) {
            if (i) out += ", ";
            formatFlat(j[i], out);
        }
        out += ']';
    } else {
        out += j.dump();
    }
}

// Containers without objects inside stay on one line when it is short;
// the rest get one member or element per line.
template <class J>
void formatInto(const J& j, int indent, std::string& out) {
    constexpr size_t kLineWidth = 100;
    if (!j.is_structured() || j.empty()) {
        out += j.dump();
        return;
    }
    if (!holdsObject(j)) {
        std::string flat;
        formatFlat(j, flat);
        if (flat.size() + size_t(indent) <= kLineWidth) {
            out += flat;
            return;
        }
    }
    const std::string pad(size_t(indent) + 2, ' ');
    if (j.is_object()) {
        out += "{\n";
        size_t i = 0;
        for (const auto& [key, value] : j.items()) {
            out += pad + J(key).dump() + ": ";
            formatInto(value, indent + 2, out);
            out += ++i < j.size() ? ",\n" : "\n";
        }
        out += std::string(size_t(indent), ' ') + "}";
    } else {
        out += "[\n";
        for (size_t i = 0; i < j.size(); ++i) {
            out += pad;
            formatInto(j[i], indent + 2, out);
            out += i + 1 < j.size() ? ",\n" : "\n";
        }
        out += std::string(size_t(indent), ' ') + "]";
    }
}

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

        auto scene = std::make_unique<Scene>();
        readSections(doc, *scene);
        scene_ = scene.get();
        if (const json* nodes = optional(doc, "nodes")) {
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
        } catch (const json::parse_error& e) {
            // Keep the parser's "parse error at line L, column C: ..." without its prefix.
            std::string msg = e.what();
            if (const size_t p = msg.find("] ");
                msg.rfind("[json.exception", 0) == 0 && p != std::string::npos) {
                msg = msg.substr(p + 2);
            }
            fail("", "not valid JSON (byte " + std::to_string(e.byte) + "): " + msg);
        }
    }

    void checkHeader(const json& doc) const {
        const json& format = require(doc, "format", "");
        if (!format.is_string() || format.get<std::string>() != kFormatName) {
            fail("/format", "not a Mosaiq scene: expected \"" + std::string(kFormatName) +
                                "\", found " + format.dump());
        }
        const json& version = require(doc, "version", "");
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
        if (const json* m = optional(doc, "materials")) {
            expectObject(*m, "/materials");
            for (const auto& [name, mtl] : m->items()) expectObject(mtl, at("/materials", name));
            scene.materials = *m;
        }
        if (const json* c = optional(doc, "camera"); c && !c->is_null()) {
            expectObject(*c, "/camera");
            scene.camera = *c;
        }
        if (const json* l = optional(doc, "lights")) {
            expectArray(*l, "/lights");
            for (size_t i = 0; i < l->size(); ++i) expectObject((*l)[i], at("/lights", i));
            scene.lights = *l;
        }
        if (const json* r = optional(doc, "render")) {
            expectObject(*r, "/render");
            scene.render = *r;
        }
    }

    // Recursion holds only what the walk needs; the node's own fields are
    // read in makeNode, so deep trees cost little stack.
    void readNode(const json& j, const std::string& path, Node* parent, int depth) {
        Node* added = parent->attachChild(makeNode(j, path));
        byName_[added->GetName()].push_back(added);
        const json* children = optional(j, "children");
        if (!children) return;
        const std::string cpath = at(path, "children");
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
        auto node = std::make_unique<Node>(readString(require(j, "name", path), at(path, "name")));
        if (const json* t = optional(j, "transform")) {
            node->setLocalTM(readMatrix(*t, at(path, "transform")));
        }
        if (const json* t = optional(j, "objectOffset")) {
            node->setObjectOffsetTM(readMatrix(*t, at(path, "objectOffset")));
        }
        if (const json* r = optional(j, "renderable")) {
            if (!r->is_boolean()) {
                fail(at(path, "renderable"), "expected true or false, found " + kindOf(*r));
            }
            node->SetRenderable(r->get<bool>());
        }
        if (const json* m = optional(j, "material"); m && !m->is_null()) {
            std::string name = readString(*m, at(path, "material"));
            if (!name.empty() && !scene_->materials.contains(name)) {
                fail(at(path, "material"), "material " + inQuotes(name) + " is not in /materials");
            }
            node->setMaterial(std::move(name));
        }
        if (const json* o = optional(j, "object"); o && !o->is_null()) {
            const std::string opath = at(path, "object");
            ObjectPtr obj = readObject(*o, opath);
            loaded_.emplace_back(obj.get(), opath);
            node->SetObjectRef(obj.release());
        }
        return node;
    }

    ObjectPtr readObject(const json& j, const std::string& path) {
        expectObject(j, path);
        const std::string cpath = at(path, "class");
        const json& cls = require(j, "class", path);
        expectObject(cls, cpath);
        const auto sid = static_cast<SClass_ID>(
            readInt(require(cls, "superClass", cpath), at(cpath, "superClass"), 0, UINT32_MAX));
        const std::string idPath = at(cpath, "id");
        const json& id = require(cls, "id", cpath);
        expectArray(id, idPath, 2);
        const ClassId cid(static_cast<uint32_t>(readInt(id[0], at(idPath, 0), 0, UINT32_MAX)),
                          static_cast<uint32_t>(readInt(id[1], at(idPath, 1), 0, UINT32_MAX)));
        std::string fileName;
        if (const json* n = optional(cls, "name")) fileName = readString(*n, at(cpath, "name"));

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
            warn(at(cpath, "name"), "class " + describeClass(sid, cid) + " is " +
                                        inQuotes(className) + "; the file calls it " +
                                        inQuotes(fileName) + " (loaded by id)");
        }

        if (isTriObject) {
            readTriMesh(static_cast<TriObject&>(*obj), require(j, "mesh", path), at(path, "mesh"));
        } else if (j.contains("mesh")) {
            fail(at(path, "mesh"),
                 "only triangle objects (super class 16, id [9, 0]) carry a mesh");
        }
        if (const json* blocks = optional(j, "paramBlocks")) {
            readParamBlocks(*obj, *blocks, at(path, "paramBlocks"), className);
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
            const auto blockId = static_cast<BlockID>(
                readInt(require(block, "id", bpath), at(bpath, "id"), INT16_MIN, INT16_MAX));
            ParamBlock* pb = obj.GetParamBlockByID(blockId);
            if (!pb) {
                fail(at(bpath, "id"), "class " + inQuotes(className) +
                                          " has no parameter block with id " +
                                          std::to_string(blockId));
            }
            if (!seenBlocks.insert(blockId).second) {
                fail(at(bpath, "id"),
                     "parameter block " + std::to_string(blockId) + " is given twice");
            }
            const ParamBlockDesc& desc = *pb->GetDesc();
            if (const json* n = optional(block, "name")) {
                const std::string name = readString(*n, at(bpath, "name"));
                if (name != desc.int_name) {
                    warn(at(bpath, "name"), "parameter block " + std::to_string(blockId) + " of " +
                                                inQuotes(className) + " is " +
                                                inQuotes(desc.int_name) + "; the file calls it " +
                                                inQuotes(name) + " (loaded by id)");
                }
            }
            const std::string ppath = at(bpath, "params");
            const json& params = require(block, "params", bpath);
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
        const ParamBlockDesc& desc = *pb.GetDesc();
        const auto id = static_cast<ParamID>(
            readInt(require(j, "id", path), at(path, "id"), INT16_MIN, INT16_MAX));
        const ParamDef* def = desc.GetParamDef(id);
        if (!def) {
            fail(at(path, "id"), "unknown parameter id " + std::to_string(id) + " in block " +
                                     std::to_string(desc.ID) + " (" + inQuotes(desc.int_name) +
                                     ") of class " + inQuotes(className));
        }
        if (!seen.insert(id).second) {
            fail(at(path, "id"), "parameter " + std::to_string(id) + " (" +
                                     inQuotes(def->internalName) + ") is given twice");
        }
        const std::string label =
            "parameter " + std::to_string(id) + " (" + inQuotes(def->internalName) + ")";
        if (const json* n = optional(j, "name")) {
            const std::string name = readString(*n, at(path, "name"));
            if (name != def->internalName) {
                warn(at(path, "name"), "parameter " + std::to_string(id) + " is " +
                                           inQuotes(def->internalName) + "; the file calls it " +
                                           inQuotes(name) + " (loaded by id)");
            }
        }
        if (const json* t = optional(j, "type")) {
            const std::string typeText = readString(*t, at(path, "type"));
            const std::optional<ParamType> type = typeFromName(typeText);
            if (!type) fail(at(path, "type"), "unknown parameter type " + inQuotes(typeText));
            if (*type != def->type) {
                fail(at(path, "type"), label + " is of type " + inQuotes(typeName(def->type)) +
                                           ", not " + inQuotes(typeText));
            }
        }

        const std::string vpath = at(path, "value");
        const json& value = require(j, "value", path);
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
        const json* file = optional(j, "file");
        const json* inl = optional(j, "inline");
        if ((file != nullptr) == (inl != nullptr)) {
            fail(path, "a mesh is either \"file\" (with \"node\") or \"inline\"");
        }
        if (inl) {
            obj.mesh = readInlineMesh(*inl, at(path, "inline"));
            return;
        }
        const std::string fpath = at(path, "file");
        const std::string rel = readString(*file, fpath);
        const int nodeIndex =
            static_cast<int>(readInt(require(j, "node", path), at(path, "node"), 0, INT_MAX));
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
            fail(at(path, "node"), "mesh asset " + inQuotes(rel) + " has " +
                                       std::to_string(imported.nodes.size()) + " nodes; node " +
                                       std::to_string(nodeIndex) + " does not exist");
        }
        const ImportedNode& node = imported.nodes[size_t(nodeIndex)];
        if (!node.mesh) {
            fail(at(path, "node"), "node " + std::to_string(nodeIndex) + " (" +
                                       inQuotes(node.name) + ") of mesh asset " + inQuotes(rel) +
                                       " has no mesh");
        }
        obj.mesh = *node.mesh;
        obj.source = MeshSource{asset, nodeIndex};
    }

    Mesh readInlineMesh(const json& j, const std::string& path) const {
        expectObject(j, path);
        Mesh mesh;
        const std::string vpath = at(path, "verts");
        const json& verts = require(j, "verts", path);
        expectArray(verts, vpath);
        mesh.verts.reserve(verts.size());
        for (size_t i = 0; i < verts.size(); ++i)
            mesh.verts.push_back(readPoint3(verts[i], at(vpath, i)));

        const std::string fpath = at(path, "faces");
        const json& faces = require(j, "faces", path);
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

        if (const json* maps = optional(j, "maps")) {
            const std::string mpath = at(path, "maps");
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
        if (const json* normals = optional(j, "normals")) {
            readNormals(mesh, *normals, at(path, "normals"));
        }
        if (const std::vector<std::string> problems = mesh.validate(); !problems.empty()) {
            fail(path, "broken mesh: " + problems.front());
        }
        return mesh;
    }

    void readMap(Mesh& mesh, int channel, const json& j, const std::string& path) const {
        expectObject(j, path);
        MeshMap& map = mesh.Map(channel);
        mesh.setMapSupport(channel);
        const std::string vpath = at(path, "verts");
        const json& verts = require(j, "verts", path);
        expectArray(verts, vpath);
        map.verts.clear();
        map.verts.reserve(verts.size());
        for (size_t i = 0; i < verts.size(); ++i)
            map.verts.push_back(readPoint3(verts[i], at(vpath, i)));
        const std::string fpath = at(path, "faces");
        const json& faces = require(j, "faces", path);
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
        const std::string npath = at(path, "normals");
        const json& normals = require(j, "normals", path);
        expectArray(normals, npath);
        std::vector<Point3> pool;
        pool.reserve(normals.size());
        for (size_t i = 0; i < normals.size(); ++i)
            pool.push_back(readPoint3(normals[i], at(npath, i)));
        const std::string fpath = at(path, "faces");
        const json& faces = require(j, "faces", path);
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

// ---------------------------------------------------------------------------
// Writing

class SceneWriter {
public:
    SceneWriter(const Scene& scene, const fs::path& file)
        : scene_(scene),
          fileName_(file.string()),
          folder_(fs::absolute(file).parent_path().lexically_normal()) {
        for (Node* n : scene.allNodes()) {
            inScene_.insert(n);
            ++nameCount_[n->GetName()];
        }
    }

    ojson write() {
        ojson doc = ojson::object();
        doc["format"] = kFormatName;
        doc["version"] = kSceneFileVersion;
        ojson nodes = ojson::array();
        const Node* root = scene_.root();
        for (int i = 0; i < root->NumberOfChildren(); ++i) {
            nodes.push_back(nodeJson(*root->GetChildNode(i), at("/nodes", size_t(i))));
        }
        doc["nodes"] = std::move(nodes);
        doc["materials"] = scene_.materials.is_null() ? ojson::object() : ojson(scene_.materials);
        if (!scene_.camera.is_null()) doc["camera"] = ojson(scene_.camera);
        doc["lights"] = scene_.lights.is_null() ? ojson::array() : ojson(scene_.lights);
        doc["render"] = scene_.render.is_null() ? ojson::object() : ojson(scene_.render);
        if (const std::string bad = firstNonFinite(doc, ""); !bad.empty()) {
            fail(bad, "not a finite number (NaN and infinity cannot be saved)");
        }
        return doc;
    }

private:
    [[noreturn]] void fail(const std::string& path, const std::string& reason) const {
        throw SceneError(fileName_, path, reason);
    }

    ojson nodeJson(const Node& node, const std::string& path) {
        ojson j = ojson::object();
        j["name"] = node.GetName();
        j["transform"] = matrixTo<ojson>(node.localTM());
        if (!node.objectOffsetTM().IsIdentity())
            j["objectOffset"] = matrixTo<ojson>(node.objectOffsetTM());
        j["renderable"] = node.Renderable();
        if (!node.material().empty()) j["material"] = node.material();
        if (Object* obj = node.GetObjectRef()) j["object"] = objectJson(*obj, at(path, "object"));
        if (node.NumberOfChildren() > 0) {
            ojson children = ojson::array();
            for (int i = 0; i < node.NumberOfChildren(); ++i) {
                children.push_back(
                    nodeJson(*node.GetChildNode(i), at(at(path, "children"), size_t(i))));
            }
            j["children"] = std::move(children);
        }
        return j;
    }

    ojson objectJson(Object& obj, const std::string& path) {
        ojson cls = ojson::object();
        cls["superClass"] = obj.SuperClassID();
        cls["id"] = ojson::array({obj.ClassID().a, obj.ClassID().b});
        ClassDesc* cd = classDirectory().find(obj.SuperClassID(), obj.ClassID());
        cls["name"] = cd ? std::string(cd->InternalName()) : obj.GetClassName();
        ojson j = ojson::object();
        j["class"] = std::move(cls);

        if (obj.SuperClassID() == GEOMOBJECT_CLASS_ID && obj.ClassID() == TRIOBJ_CLASS_ID) {
            auto& tri = static_cast<TriObject&>(obj);
            j["mesh"] = tri.source.valid() ? meshRefJson(tri.source)
                                           : ojson{{"inline", inlineMeshJson(tri.mesh)}};
        }
        ojson blocks = ojson::array();
        for (int b = 0; b < obj.NumParamBlocks(); ++b) {
            const ParamBlock* pb = obj.GetParamBlock(b);
            if (!pb) continue;
            blocks.push_back(blockJson(*pb, at(at(path, "paramBlocks"), blocks.size())));
        }
        if (!blocks.empty() || obj.ClassID() != TRIOBJ_CLASS_ID)
            j["paramBlocks"] = std::move(blocks);
        return j;
    }

    ojson blockJson(const ParamBlock& pb, const std::string& path) {
        const ParamBlockDesc& desc = *pb.GetDesc();
        ojson params = ojson::array();
        for (const ParamDef& def : desc.params()) {
            const std::string ppath = at(at(path, "params"), params.size());
            ojson p = ojson::object();
            p["id"] = def.id;
            p["name"] = def.internalName;
            p["type"] = typeName(def.type);
            p["value"] = paramToJson<ojson>(
                pb, def, [&](const NodeRef& ref) { return nodeRefJson(ref, def, ppath); });
            params.push_back(std::move(p));
        }
        return ojson{{"id", desc.ID}, {"name", desc.int_name}, {"params", std::move(params)}};
    }

    // Node parameters are saved by name, so the name must find the node again.
    ojson nodeRefJson(const NodeRef& ref, const ParamDef& def, const std::string& path) const {
        Node* n = ref.handle ? Node::fromHandle(ref.handle) : nullptr;
        if (!n) return ojson();
        if (!inScene_.count(n)) {
            fail(path, "parameter " + inQuotes(def.internalName) + " refers to node " +
                           inQuotes(n->GetName()) + ", which is not in this scene");
        }
        const int count = nameCount_.at(n->GetName());
        if (count > 1) {
            fail(path, "parameter " + inQuotes(def.internalName) + " refers to node " +
                           inQuotes(n->GetName()) + ", but " + std::to_string(count) +
                           " nodes have that name; rename them apart before saving");
        }
        return ojson(n->GetName());
    }

    ojson meshRefJson(const MeshSource& source) const {
        const fs::path abs = fs::absolute(source.file).lexically_normal();
        fs::path rel = abs.lexically_relative(folder_);
        if (rel.empty()) rel = abs;
        return ojson{{"file", rel.generic_string()}, {"node", source.nodeIndex}};
    }

    static ojson inlineMeshJson(const Mesh& mesh) {
        ojson verts = ojson::array();
        for (const Point3& p : mesh.verts) verts.push_back(point3ToJson<ojson>(p));
        ojson faces = ojson::array();
        for (const Face& f : mesh.faces) {
            ojson jf = ojson::array({f.v[0], f.v[1], f.v[2], f.smGroup, f.getMatID()});
            if (const uint32_t low = f.flags & 0xffffu) jf.push_back(low);
            faces.push_back(std::move(jf));
        }
        ojson j = ojson::object();
        j["verts"] = std::move(verts);
        j["faces"] = std::move(faces);

        ojson maps = ojson::object();
        for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
            if (!mesh.mapSupport(ch)) continue;
            const MeshMap& map = mesh.Map(ch);
            ojson mv = ojson::array();
            for (const Point3& p : map.verts) mv.push_back(point3ToJson<ojson>(p));
            ojson mf = ojson::array();
            for (const TVFace& f : map.faces) mf.push_back(ojson::array({f.t[0], f.t[1], f.t[2]}));
            maps[std::to_string(ch)] = ojson{{"verts", std::move(mv)}, {"faces", std::move(mf)}};
        }
        if (!maps.empty()) j["maps"] = std::move(maps);

        // Computed normals are rebuilt on load; only explicit ones are data.
        if (const MeshNormalSpec* given = mesh.GetSpecifiedNormals();
            given && given->IsExplicit()) {
            ojson pool = ojson::array();
            for (int i = 0; i < given->GetNumNormals(); ++i)
                pool.push_back(point3ToJson<ojson>(given->Normal(i)));
            ojson nf = ojson::array();
            for (int f = 0; f < given->GetNumFaces(); ++f) {
                nf.push_back(ojson::array({given->GetNormalIndex(f, 0), given->GetNormalIndex(f, 1),
                                           given->GetNormalIndex(f, 2)}));
            }
            j["normals"] = ojson{{"normals", std::move(pool)}, {"faces", std::move(nf)}};
        }
        return j;
    }

    const Scene& scene_;
    std::string fileName_;
    fs::path folder_;
    std::unordered_set<const Node*> inScene_;
    std::unordered_map<std::string, int> nameCount_;
};

// Six characters unlikely to repeat across processes and calls; O_EXCL
// settles any clash. Needs no file descriptor, unlike std::random_device.
std::string randomSuffix() {
    static constexpr char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    static std::atomic<uint64_t> counter{0};
    uint64_t x = uint64_t(::getpid()) << 32 ^
                 uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                 (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    // splitmix64 finaliser
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    x ^= x >> 31;
    std::string s;
    for (int i = 0; i < 6; ++i, x /= 36) s += kChars[x % 36];
    return s;
}

// Write text to a fresh file beside target, then rename it over target.
void writeAtomically(const fs::path& target, const std::string& text) {
    const std::string name = target.string();
    auto fail = [&](const std::string& reason) { throw SceneError(name, "", reason); };
    std::error_code ec;
    if (fs::is_directory(target, ec)) fail("is a folder");
    const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    if (!fs::is_directory(folder, ec)) fail("folder " + folder.string() + " does not exist");

    std::string tmp;
    int fd = -1;
    // A name near the length limit gets a short temporary name in the same folder.
    bool shortName = false;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        tmp = (shortName ? (folder / ".mosaiq").string() : name) + ".tmp-" + randomSuffix();
        fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0 && errno == ENAMETOOLONG && !shortName) {
            shortName = true;
        } else if (fd < 0 && errno != EEXIST) {
            fail("cannot create temporary file " + tmp + ": " + std::strerror(errno));
        }
    }
    if (fd < 0) fail("cannot create a temporary file beside it");

    auto abandon = [&](const std::string& what) {
        const int err = errno;
        if (fd >= 0) ::close(fd);
        ::unlink(tmp.c_str());
        fail(what + " " + tmp + ": " + std::strerror(err));
    };
    // A replaced file keeps its permissions.
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode)) ::fchmod(fd, st.st_mode & 07777);

    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            abandon("cannot write");
        }
        done += size_t(n);
    }
    if (::fsync(fd) != 0) abandon("cannot flush");
    const int closed = ::close(fd);
    fd = -1;
    if (closed != 0) abandon("cannot close");
    if (::rename(tmp.c_str(), name.c_str()) != 0) {
        const int err = errno;
        ::unlink(tmp.c_str());
        fail("cannot replace it with " + tmp + ": " + std::strerror(err));
    }
}

}  // namespace

SceneError::SceneError(const std::string& file, const std::string& jsonPath,
                       const std::string& reason)
    : std::runtime_error(describeError(file, jsonPath, reason)),
      file_(file),
      jsonPath_(jsonPath),
      reason_(reason) {}

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

void saveScene(const Scene& scene, const fs::path& file) {
    std::string text;
    {
        const ojson doc = SceneWriter(scene, file).write();
        try {
            text = formatSceneJson(doc);
        } catch (const json::exception& e) {
            // Names and strings must be UTF-8 to be saved.
            throw SceneError(file.string(), "",
                             std::string("cannot encode the scene: ") + e.what());
        }
    }
    writeAtomically(file, text);
}

json paramValueToJson(const ParamBlock& pb, const ParamDef& def) {
    return paramToJson<json>(pb, def, [](const NodeRef& ref) {
        const Node* n = ref.handle ? Node::fromHandle(ref.handle) : nullptr;
        return n ? json(n->GetName()) : json();
    });
}

json matrixToJson(const Matrix3& m) { return matrixTo<json>(m); }

std::string formatSceneJson(const json& j) {
    std::string out;
    formatInto(j, 0, out);
    return out + "\n";
}

std::string formatSceneJson(const ojson& j) {
    std::string out;
    formatInto(j, 0, out);
    return out + "\n";
}

}  // namespace mq
