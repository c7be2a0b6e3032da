// Writing scene files: the scene as ordered JSON, laid out one member per
// line, written through a temporary file and a rename.
#include "host/scene_layout.h"

#include "host/atomic_file.h"
#include "host/classdesc.h"
#include "host/object.h"

#include <cmath>
#include <cstdint>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

namespace mq {

namespace fs = std::filesystem;
using json = nlohmann::json;
using namespace scenefile;

namespace {

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
        doc[key::kFormat] = kFormatName;
        doc[key::kVersion] = kSceneFileVersion;
        // Generic is left out, so files from before units stay as they were.
        if (scene_.units != SceneUnit::Generic) doc[key::kUnits] = unitName(scene_.units);
        ojson nodes = ojson::array();
        const Node* root = scene_.root();
        for (int i = 0; i < root->NumberOfChildren(); ++i) {
            nodes.push_back(nodeJson(*root->GetChildNode(i), at("/nodes", size_t(i))));
        }
        doc[key::kNodes] = std::move(nodes);
        doc[key::kMaterials] =
            scene_.materials.is_null() ? ojson::object() : ojson(scene_.materials);
        if (!scene_.camera.is_null()) doc[key::kCamera] = ojson(scene_.camera);
        doc[key::kLights] = scene_.lights.is_null() ? ojson::array() : ojson(scene_.lights);
        doc[key::kRender] = scene_.render.is_null() ? ojson::object() : ojson(scene_.render);
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
        j[key::kName] = node.GetName();
        j[key::kTransform] = matrixTo<ojson>(node.localTM());
        if (!node.objectOffsetTM().IsIdentity())
            j[key::kObjectOffset] = matrixTo<ojson>(node.objectOffsetTM());
        j[key::kRenderable] = node.Renderable();
        if (!node.material().empty()) j[key::kMaterial] = node.material();
        if (Object* obj = node.GetObjectRef())
            j[key::kObject] = objectJson(*obj, at(path, key::kObject));
        if (node.NumberOfChildren() > 0) {
            ojson children = ojson::array();
            for (int i = 0; i < node.NumberOfChildren(); ++i) {
                children.push_back(
                    nodeJson(*node.GetChildNode(i), at(at(path, key::kChildren), size_t(i))));
            }
            j[key::kChildren] = std::move(children);
        }
        return j;
    }

    ojson objectJson(Object& obj, const std::string& path) {
        ojson cls = ojson::object();
        cls[key::kSuperClass] = obj.SuperClassID();
        cls[key::kId] = ojson::array({obj.ClassID().a, obj.ClassID().b});
        ClassDesc* cd = classDirectory().find(obj.SuperClassID(), obj.ClassID());
        cls[key::kName] = cd ? std::string(cd->InternalName()) : obj.GetClassName();
        ojson j = ojson::object();
        j[key::kClass] = std::move(cls);

        if (obj.SuperClassID() == GEOMOBJECT_CLASS_ID && obj.ClassID() == TRIOBJ_CLASS_ID) {
            auto& tri = static_cast<TriObject&>(obj);
            j[key::kMesh] = tri.source.valid() ? meshRefJson(tri.source)
                                               : ojson{{key::kInline, inlineMeshJson(tri.mesh)}};
        }
        ojson blocks = ojson::array();
        for (int b = 0; b < obj.NumParamBlocks(); ++b) {
            const ParamBlock* pb = obj.GetParamBlock(b);
            if (!pb) continue;
            blocks.push_back(blockJson(*pb, at(at(path, key::kParamBlocks), blocks.size())));
        }
        if (!blocks.empty() || obj.ClassID() != TRIOBJ_CLASS_ID)
            j[key::kParamBlocks] = std::move(blocks);
        return j;
    }

    ojson blockJson(const ParamBlock& pb, const std::string& path) {
        const ParamBlockDesc& desc = *pb.GetDesc();
        ojson params = ojson::array();
        for (const ParamDef& def : desc.params()) {
            const std::string ppath = at(at(path, key::kParams), params.size());
            ojson p = ojson::object();
            p[key::kId] = def.id;
            p[key::kName] = def.internalName;
            p[key::kType] = typeName(def.type);
            p[key::kValue] = paramToJson<ojson>(
                pb, def, [&](const NodeRef& ref) { return nodeRefJson(ref, def, ppath); });
            params.push_back(std::move(p));
        }
        return ojson{
            {key::kId, desc.ID}, {key::kName, desc.int_name}, {key::kParams, std::move(params)}};
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
        return ojson{{key::kFile, rel.generic_string()}, {key::kNode, source.nodeIndex}};
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
        j[key::kVerts] = std::move(verts);
        j[key::kFaces] = std::move(faces);

        ojson maps = ojson::object();
        for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
            if (!mesh.mapSupport(ch)) continue;
            const MeshMap& map = mesh.Map(ch);
            ojson mv = ojson::array();
            for (const Point3& p : map.verts) mv.push_back(point3ToJson<ojson>(p));
            ojson mf = ojson::array();
            for (const TVFace& f : map.faces) mf.push_back(ojson::array({f.t[0], f.t[1], f.t[2]}));
            maps[std::to_string(ch)] =
                ojson{{key::kVerts, std::move(mv)}, {key::kFaces, std::move(mf)}};
        }
        if (!maps.empty()) j[key::kMaps] = std::move(maps);

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
            j[key::kNormals] =
                ojson{{key::kNormals, std::move(pool)}, {key::kFaces, std::move(nf)}};
        }
        return j;
    }

    const Scene& scene_;
    std::string fileName_;
    fs::path folder_;
    std::unordered_set<const Node*> inScene_;
    std::unordered_map<std::string, int> nameCount_;
};

}  // namespace

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
    try {
        writeFileAtomically(file, text);
    } catch (const FileWriteError& e) {
        throw SceneError(file.string(), "", e.reason());
    }
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
