// mosaiq inspect: every node with its transforms and object, and every
// parameter of every block, for people or (with --json) for scripts. With
// --tile, the captured tile of one Mosaiq node instead.
#include "cli.h"

#include "host/classdesc.h"
#include "host/scenefile.h"
#include "tracer/renderer.h"

#include <charconv>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace mosaiq::cli {

namespace {

using mq::Matrix3;
using mq::Node;
using mq::Object;
using mq::ParamBlock;
using mq::ParamDef;
using ojson = nlohmann::ordered_json;

bool isTriObject(const Object& obj) {
    return obj.SuperClassID() == mq::GEOMOBJECT_CLASS_ID && obj.ClassID() == mq::TRIOBJ_CLASS_ID;
}

std::string internalClassName(Object& obj) {
    mq::ClassDesc* cd = mq::classDirectory().find(obj.SuperClassID(), obj.ClassID());
    return cd ? cd->InternalName() : obj.GetClassName();
}

std::string hex(uint32_t v, int digits) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%0*X", digits, v);
    return buf;
}

// Shortest text that reads back as the same float; plain digits unless
// they would be long (100000 rather than 1e+05).
std::string num(float f) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, f, std::chars_format::fixed);
    if (res.ec != std::errc() || res.ptr - buf > 12) res = std::to_chars(buf, buf + sizeof buf, f);
    return std::string(buf, res.ptr);
}

std::string point(const mq::Point3& p) {
    std::string s = "[";
    s += num(p.x);
    s += ' ';
    s += num(p.y);
    s += ' ';
    s += num(p.z);
    return s + "]";
}

std::string matrix(const Matrix3& m) {
    return point(m[0]) + " " + point(m[1]) + " " + point(m[2]) + " " + point(m[3]);
}

std::string element(const mq::ParamValue& v) {
    if (auto* i = std::get_if<int>(&v)) return std::to_string(*i);
    if (auto* f = std::get_if<float>(&v)) return num(*f);
    if (auto* p = std::get_if<mq::Point3>(&v)) return point(*p);
    if (auto* m = std::get_if<Matrix3>(&v)) return matrix(*m);
    if (auto* s = std::get_if<std::string>(&v)) return nlohmann::json(*s).dump();
    const auto& ref = std::get<mq::NodeRef>(v);
    const Node* n = ref.handle ? Node::fromHandle(ref.handle) : nullptr;
    return n ? n->GetName() : (ref.handle ? "(deleted node)" : "none");
}

std::string paramText(const ParamBlock& pb, const ParamDef& def) {
    std::string out;
    for (int i = 0; i < def.count(); ++i) {
        const mq::ParamValue* v = pb.rawValue(def.id, i);
        out += (i ? ", " : "") + (v ? element(*v) : std::string("?"));
    }
    return out;
}

std::string typeText(const ParamDef& def) {
    std::string t = mq::typeName(def.type);
    return def.isTable() ? t + "[" + std::to_string(def.count()) + "]" : t;
}

std::string meshSummary(mq::TriObject& tri) {
    const mq::Mesh& m = tri.mesh;
    std::string maps;
    for (int ch = 0; ch < mq::MAX_MESHMAPS; ++ch) {
        if (!m.mapSupport(ch)) continue;
        if (!maps.empty()) maps += ' ';
        maps += std::to_string(ch);
    }
    std::string s = std::to_string(m.getNumVerts()) + " vertices, " +
                    std::to_string(m.getNumFaces()) + " faces, map channels " +
                    (maps.empty() ? "none" : maps);
    if (tri.source.valid()) {
        s += "; from " + tri.source.file.string() + " node " + std::to_string(tri.source.nodeIndex);
    }
    return s;
}

void printNode(Node& node, int depth, std::ostream& out) {
    const std::string pad(size_t(depth) * 2, ' ');
    const std::string in = pad + "  ";
    auto row = [&](const char* label, const std::string& text) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%-12s", label);
        out << in << buf << text << "\n";
    };
    out << pad << node.GetName() << "\n";
    row("renderable", node.Renderable() ? "yes" : "no");
    row("material", node.material().empty() ? "none" : node.material());
    row("local", matrix(node.localTM()));
    row("world", matrix(node.GetNodeTM(0)));
    if (!node.objectOffsetTM().IsIdentity()) row("offset", matrix(node.objectOffsetTM()));

    Object* obj = node.GetObjectRef();
    if (!obj) {
        row("object", "none");
    } else {
        row("object", internalClassName(*obj) + " (\"" + obj->GetClassName() + "\"), super class " +
                          hex(obj->SuperClassID(), 2) + ", class id " + hex(obj->ClassID().a, 8) +
                          " " + hex(obj->ClassID().b, 8));
        if (isTriObject(*obj)) row("mesh", meshSummary(static_cast<mq::TriObject&>(*obj)));
        for (int b = 0; b < obj->NumParamBlocks(); ++b) {
            const ParamBlock* pb = obj->GetParamBlock(b);
            if (!pb) continue;
            out << in << "block " << pb->ID() << " \"" << pb->GetDesc()->int_name << "\"\n";
            for (const ParamDef& def : pb->GetDesc()->params()) {
                char buf[96];
                std::snprintf(buf, sizeof buf, "%6d  %-22s %-10s ", int(def.id),
                              def.internalName.c_str(), typeText(def).c_str());
                out << in << buf << paramText(*pb, def) << "\n";
            }
        }
    }
    for (int i = 0; i < node.NumberOfChildren(); ++i)
        printNode(*node.GetChildNode(i), depth + 1, out);
}

ojson objectJson(Object& obj) {
    ojson cls = ojson::object();
    cls["name"] = internalClassName(obj);
    cls["className"] = obj.GetClassName();
    cls["superClass"] = obj.SuperClassID();
    cls["id"] = ojson::array({obj.ClassID().a, obj.ClassID().b});
    ojson j = ojson::object();
    j["class"] = std::move(cls);
    if (isTriObject(obj)) {
        auto& tri = static_cast<mq::TriObject&>(obj);
        ojson mesh = ojson::object();
        mesh["verts"] = tri.mesh.getNumVerts();
        mesh["faces"] = tri.mesh.getNumFaces();
        ojson maps = ojson::array();
        for (int ch = 0; ch < mq::MAX_MESHMAPS; ++ch) {
            if (tri.mesh.mapSupport(ch)) maps.push_back(ch);
        }
        mesh["maps"] = std::move(maps);
        if (tri.source.valid()) {
            mesh["source"] = {{"file", tri.source.file.string()}, {"node", tri.source.nodeIndex}};
        }
        j["mesh"] = std::move(mesh);
    }
    ojson blocks = ojson::array();
    for (int b = 0; b < obj.NumParamBlocks(); ++b) {
        const ParamBlock* pb = obj.GetParamBlock(b);
        if (!pb) continue;
        ojson params = ojson::array();
        for (const ParamDef& def : pb->GetDesc()->params()) {
            ojson p = ojson::object();
            p["id"] = def.id;
            p["name"] = def.internalName;
            p["type"] = mq::typeName(def.type);
            if (def.isTable()) p["tableSize"] = def.count();
            p["value"] = ojson(mq::paramValueToJson(*pb, def));
            params.push_back(std::move(p));
        }
        blocks.push_back(
            {{"id", pb->ID()}, {"name", pb->GetDesc()->int_name}, {"params", std::move(params)}});
    }
    j["paramBlocks"] = std::move(blocks);
    return j;
}

void nodeJson(Node& node, ojson& nodes) {
    ojson j = ojson::object();
    j["name"] = node.GetName();
    Node* parent = node.GetParentNode();
    j["parent"] = parent && !parent->IsRootNode() ? ojson(parent->GetName()) : ojson();
    j["renderable"] = node.Renderable();
    j["material"] = node.material().empty() ? ojson() : ojson(node.material());
    j["transform"] = {{"local", ojson(mq::matrixToJson(node.localTM()))},
                      {"world", ojson(mq::matrixToJson(node.GetNodeTM(0)))}};
    j["objectOffset"] = ojson(mq::matrixToJson(node.objectOffsetTM()));
    Object* obj = node.GetObjectRef();
    j["object"] = obj ? objectJson(*obj) : ojson();
    nodes.push_back(std::move(j));
    for (int i = 0; i < node.NumberOfChildren(); ++i) nodeJson(*node.GetChildNode(i), nodes);
}

ojson pointJson(const mq::Point3& p) {
    // Doubles of the floats, as scene files store them.
    return ojson::array({double(p.x), double(p.y), double(p.z)});
}

ojson tileJson(const std::filesystem::path& scene, const Node& node, const mq::TileStats& s) {
    ojson j = ojson::object();
    j["file"] = scene.string();
    j["node"] = node.GetName();
    j["faces"] = s.faceCount;
    j["vertices"] = s.vertexCount;
    j["segments"] = {
        {"u", s.segmentCountU}, {"v", s.segmentCountV}, {"size", pointJson(s.segmentSize)}};
    j["cropSize"] = pointJson(s.cropSize);
    j["octree"] = {{"min", pointJson(s.octreeMin)}, {"max", pointJson(s.octreeMax)},
                   {"depth", s.octreeDepth},        {"nodes", s.octreeNodes},
                   {"leaves", s.octreeLeaves},      {"largestLeaf", s.largestLeaf},
                   {"bytes", s.octreeBytes},        {"budgetBytes", s.octreeBudget}};
    j["facesOnCropFaces"] = s.facesOnCropFaces;
    ojson cloud = ojson::object();
    cloud["valid"] = s.pointCloudValid;
    cloud["min"] = s.pointCloudValid ? pointJson(s.pointCloudBox.pmin) : ojson();
    cloud["max"] = s.pointCloudValid ? pointJson(s.pointCloudBox.pmax) : ojson();
    j["pointCloud"] = std::move(cloud);
    return j;
}

std::string tileText(const std::filesystem::path& scene, const Node& node, const mq::TileStats& s) {
    std::ostringstream out;
    auto row = [&](const char* label, const std::string& text) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%-13s", label);
        out << "  " << buf << text << "\n";
    };
    out << scene.string() << ": tile of " << node.GetName() << " at time 0\n";
    row("faces", std::to_string(s.faceCount));
    row("vertices", std::to_string(s.vertexCount));
    row("segments", std::to_string(s.segmentCountU) + " x " + std::to_string(s.segmentCountV) +
                        ", each " + point(s.segmentSize));
    row("crop size", point(s.cropSize));
    row("octree", "depth " + std::to_string(s.octreeDepth) + ", " + std::to_string(s.octreeNodes) +
                      " nodes, " + std::to_string(s.octreeLeaves) + " leaves, largest leaf " +
                      std::to_string(s.largestLeaf) + (s.largestLeaf == 1 ? " face" : " faces"));
    row("octree box", point(s.octreeMin) + " to " + point(s.octreeMax));
    char memory[96];
    std::snprintf(memory, sizeof memory, "%.1f MB of a %.0f MB budget (%s)",
                  double(s.octreeBytes) / double(1 << 20), double(s.octreeBudget) / double(1 << 20),
                  s.octreeBudgetVariable.c_str());
    row("octree size", memory);
    row("point cloud", s.pointCloudValid
                           ? point(s.pointCloudBox.pmin) + " to " + point(s.pointCloudBox.pmax)
                           : std::string("not sampled"));
    return out.str();
}

// The warning about pattern faces in a face of node's crop box, with the
// command that cures it.
void warnOfCropFaces(const InspectOptions& opt, const Node& node, const mq::TileStats& stats) {
    if (stats.cropFaceWarning.empty()) return;
    printWarning(opt.scene.string() + ": " + node.GetName() + ": " + stats.cropFaceWarning +
                 ". Make its crop box a little taller: mosaiq crop fit " + opt.scene.string() +
                 " " + node.GetName() + " --margin 1");
}

// Every Mosaiq node's tile captured as a render captures it, so the
// problems a render would meet are told here too.
void checkTiles(mq::HostInterface& ip, const InspectOptions& opt) {
    for (Node* node : ip.scene().allNodes()) {
        mq::Object* obj = node->GetObjectRef();
        auto* tools =
            obj ? static_cast<mq::IPatternTools*>(obj->GetInterface(mq::kPatternToolsInterfaceId))
                : nullptr;
        if (!tools) continue;
        mq::TileStats stats;
        std::string error;
        if (tools->tileStats(0, stats, error))
            warnOfCropFaces(opt, *node, stats);
        else
            printWarning(opt.scene.string() + ": " + node->GetName() +
                         ": renders nothing: " + error);
    }
}

// The captured tile of one Mosaiq node instead of the whole scene.
void inspectTile(mq::HostInterface& ip, const InspectOptions& opt) {
    Node* node = findUniqueNode(ip.scene(), opt.tileNode, opt.scene.string());
    mq::IPatternTools& tools = patternToolsOrFail(*node, opt.scene.string());
    mq::TileStats stats;
    std::string error;
    if (!tools.tileStats(0, stats, error)) {
        throw CliError(kExitInput, opt.scene.string() + ": " + node->GetName() +
                                       ": cannot capture the tile: " + error);
    }
    warnOfCropFaces(opt, *node, stats);
    if (opt.json) {
        std::cout << mq::formatSceneJson(tileJson(opt.scene, *node, stats));
    } else {
        std::cout << tileText(opt.scene, *node, stats);
    }
}

// The surface mapping of one Mosaiq node at a frame.
void inspectMapping(mq::HostInterface& ip, const InspectOptions& opt) {
    Node* node = findUniqueNode(ip.scene(), opt.mappingNode, opt.scene.string());
    mq::IPatternTools& tools = patternToolsOrFail(*node, opt.scene.string());
    mq::MappingStats s;
    std::string error;
    if (!tools.mappingStats(opt.frame * mq::kTicksPerFrame, s, error)) {
        throw CliError(kExitInput, opt.scene.string() + ": " + node->GetName() + ": frame " +
                                       std::to_string(opt.frame) +
                                       ": cannot map the surface: " + error);
    }
    if (opt.json) {
        ojson j = ojson::object();
        j["file"] = opt.scene.string();
        j["node"] = node->GetName();
        j["frame"] = opt.frame;
        j["facesInRange"] = s.facesInRange;
        j["piecesBuilt"] = s.piecesBuilt;
        j["piecesDropped"] = s.piecesDropped;
        j["islands"] = s.islands;
        j["stretch"] = {{"min", double(s.stretchMin)}, {"max", double(s.stretchMax)}};
        j["tiling"] = {{"u", double(s.tilingU)}, {"v", double(s.tilingV)}};
        std::cout << mq::formatSceneJson(j);
        return;
    }
    std::ostringstream out;
    out << opt.scene.string() << ": surface mapping of " << node->GetName() << " at frame "
        << opt.frame << "\n";
    out << "  faces in range  " << s.facesInRange << "\n";
    out << "  pieces          " << s.piecesBuilt << " built, " << s.piecesDropped << " dropped\n";
    out << "  UV islands      " << s.islands << "\n";
    out << "  stretch         " << s.stretchMin << " to " << s.stretchMax << "\n";
    out << "  tiling          " << s.tilingU << " x " << s.tilingV << "\n";
    std::cout << out.str();
}

}  // namespace

void runInspect(mq::HostInterface& ip, const InspectOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    // What render would warn of in the render data (a misspelt key), told
    // here too; the load itself checks only what render would refuse.
    mq::tracer::checkRenderData(
        ip.scene(), [&](const std::string& w) { printWarning(opt.scene.string() + ": " + w); });
    if (!opt.tileNode.empty() && !opt.mappingNode.empty())
        throw CliError(kExitUsage, "--tile and --mapping: give one of them");
    if (!opt.tileNode.empty()) return inspectTile(ip, opt);
    if (!opt.mappingNode.empty()) return inspectMapping(ip, opt);
    mq::Scene& scene = ip.scene();
    Node* root = scene.root();
    checkTiles(ip, opt);

    if (opt.json) {
        ojson doc = ojson::object();
        doc["file"] = opt.scene.string();
        doc["units"] = mq::unitName(scene.units);
        // Nodes depth first, parents before their children.
        ojson nodes = ojson::array();
        for (int i = 0; i < root->NumberOfChildren(); ++i) nodeJson(*root->GetChildNode(i), nodes);
        doc["nodes"] = std::move(nodes);
        ojson materials = ojson::array();
        for (const auto& [name, mtl] : scene.materials.items()) materials.push_back(name);
        doc["materials"] = std::move(materials);
        std::cout << mq::formatSceneJson(doc);
        return;
    }

    std::ostringstream out;
    const size_t numNodes = scene.allNodes().size(), numMaterials = scene.materials.size();
    out << opt.scene.string() << ": " << numNodes << (numNodes == 1 ? " node, " : " nodes, ")
        << numMaterials << (numMaterials == 1 ? " material, " : " materials, ") << "units "
        << mq::unitName(scene.units) << "\n";
    for (int i = 0; i < root->NumberOfChildren(); ++i) printNode(*root->GetChildNode(i), 0, out);
    std::cout << out.str();
}

}  // namespace mosaiq::cli
