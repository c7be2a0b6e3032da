// mosaiq new, import and set: commands that change a scene and write it.
// Every change is made in memory first; the file is written only when all
// of them succeeded, so a bad argument never leaves a half-edited scene.
#include "cli.h"

#include "host/classdesc.h"
#include "host/plugins.h"
#include "host/suggest.h"

#include <charconv>
#include <cmath>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

namespace mosaiq::cli {

namespace {

using mq::Node;
using mq::ParamBlock;
using mq::ParamDef;
using mq::ParamValue;

constexpr const char* kMosaiqClass = "PatternPattern";

std::string inQuotes(const std::string& s) { return "\"" + s + "\""; }

[[noreturn]] void usage(const std::string& what) { throw CliError(kExitUsage, what); }

std::string trim(std::string_view s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string_view::npos) return {};
    const size_t e = s.find_last_not_of(" \t");
    return std::string(s.substr(b, e - b + 1));
}

std::vector<std::string> splitCommas(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        parts.push_back(trim(std::string_view(text).substr(start, comma - start)));
        if (comma == std::string::npos) return parts;
        start = comma + 1;
    }
}

// One assignment's target and text, for messages: `Mosaiq001: Crop_Size[2]=abc`.
struct Assignment {
    std::string key;
    std::optional<int> index;
    std::string value;
    std::string text;  // as given
};

Assignment parseAssignment(const std::string& arg) {
    const size_t eq = arg.find('=');
    if (eq == std::string::npos || eq == 0) usage("expected KEY=VALUE, found " + inQuotes(arg));
    Assignment a;
    a.text = arg;
    a.key = arg.substr(0, eq);
    a.value = arg.substr(eq + 1);
    if (const size_t open = a.key.find('['); open != std::string::npos) {
        const std::string digits = a.key.substr(open + 1, a.key.size() - open - 2);
        int index = -1;
        const auto res = std::from_chars(digits.data(), digits.data() + digits.size(), index);
        if (a.key.back() != ']' || digits.empty() || res.ec != std::errc() ||
            res.ptr != digits.data() + digits.size() || index < 0) {
            usage("bad element index in " + inQuotes(arg) + ": expected KEY[N]=VALUE");
        }
        a.key.resize(open);
        a.index = index;
    }
    return a;
}

float parseFloat(const std::string& text, const std::string& what) {
    std::string t = trim(text);
    if (!t.empty() && t[0] == '+') t = t.substr(1);
    float f = 0.0f;
    const auto res = std::from_chars(t.data(), t.data() + t.size(), f);
    if (t.empty() || res.ec != std::errc() || res.ptr != t.data() + t.size() || !std::isfinite(f)) {
        usage(what + ": " + inQuotes(trim(text)) + " is not a finite number");
    }
    return f;
}

int parseInt(const std::string& text, const std::string& what) {
    std::string t = trim(text);
    if (!t.empty() && t[0] == '+') t = t.substr(1);
    long long v = 0;
    const auto res = std::from_chars(t.data(), t.data() + t.size(), v);
    const bool whole = !t.empty() && res.ptr == t.data() + t.size();
    if (whole && (res.ec == std::errc::result_out_of_range || v < INT32_MIN || v > INT32_MAX)) {
        usage(what + ": " + inQuotes(t) + " is too large for a whole-number parameter");
    }
    if (!whole || res.ec != std::errc())
        usage(what + ": " + inQuotes(trim(text)) + " is not a whole number");
    return static_cast<int>(v);
}

std::optional<bool> parseBoolWord(const std::string& text) {
    const std::string t = trim(text);
    if (t == "true" || t == "yes" || t == "on") return true;
    if (t == "false" || t == "no" || t == "off") return false;
    return std::nullopt;
}

bool parseBool(const std::string& text, const std::string& what) {
    if (auto b = parseBoolWord(text)) return *b;
    const std::string t = trim(text);
    if (t == "1") return true;
    if (t == "0") return false;
    usage(what + ": " + inQuotes(t) + " is not true or false");
}

// Numbers a value of the type takes: a point three, a matrix twelve.
int componentsOf(mq::ParamType type) {
    if (type == mq::TYPE_POINT3) return 3;
    if (type == mq::TYPE_MATRIX3) return 12;
    return 1;
}

mq::Matrix3 parseMatrix(const std::vector<std::string>& parts, size_t first,
                        const std::string& what) {
    mq::Matrix3 m;
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 3; ++c) m[r][c] = parseFloat(parts[first + size_t(r * 3 + c)], what);
    }
    return m;
}

}  // namespace

Node* findUniqueNode(mq::Scene& scene, const std::string& name, const std::string& what) {
    std::vector<Node*> found;
    std::vector<std::string> names;
    for (Node* n : scene.allNodes()) {
        if (n->GetName() == name) found.push_back(n);
        names.push_back(n->GetName());
    }
    // The scene, not the command line, decides which names exist.
    if (found.empty()) {
        throw CliError(kExitInput, what + ": no node named " + inQuotes(name) + " in the scene" +
                                       mq::didYouMean(name, names));
    }
    if (found.size() > 1) {
        throw CliError(kExitInput, what + ": " + std::to_string(found.size()) +
                                       " nodes are named " + inQuotes(name) +
                                       "; rename them apart first");
    }
    return found.front();
}

namespace {

// One element of a parameter from its text (already split for tables).
ParamValue parseElement(mq::Scene& scene, const ParamDef& def,
                        const std::vector<std::string>& parts, size_t first,
                        const std::string& what) {
    switch (def.type) {
        case mq::TYPE_INT:
            return parseInt(parts[first], what);
        case mq::TYPE_BOOL:
            if (auto b = parseBoolWord(parts[first])) return *b ? 1 : 0;
            return parseInt(parts[first], what);
        case mq::TYPE_FLOAT:
        case mq::TYPE_WORLD:
            return parseFloat(parts[first], what);
        case mq::TYPE_POINT3:
            return mq::Point3(parseFloat(parts[first], what), parseFloat(parts[first + 1], what),
                              parseFloat(parts[first + 2], what));
        case mq::TYPE_MATRIX3:
            return parseMatrix(parts, first, what);
        case mq::TYPE_STRING:
        case mq::TYPE_FILENAME:
            return parts[first];
        case mq::TYPE_INODE:
            if (parts[first].empty()) return mq::NodeRef{};
            return mq::NodeRef{findUniqueNode(scene, parts[first], what)->GetHandle()};
    }
    usage(what + ": parameters of type " + mq::typeName(def.type) + " cannot be set here");
}

struct ParamTarget {
    ParamBlock* pb = nullptr;
    const ParamDef* def = nullptr;
};

std::optional<ParamTarget> findParam(Node& node, const std::string& name) {
    mq::Object* obj = node.GetObjectRef();
    if (!obj) return std::nullopt;
    for (int b = 0; b < obj->NumParamBlocks(); ++b) {
        ParamBlock* pb = obj->GetParamBlock(b);
        if (!pb) continue;
        if (const ParamDef* def = pb->GetDesc()->findByName(name)) return ParamTarget{pb, def};
    }
    return std::nullopt;
}

const char* const kNodeProperties[] = {"renderable", "material", "transform"};

std::vector<std::string> validKeys(Node& node) {
    std::vector<std::string> keys(std::begin(kNodeProperties), std::end(kNodeProperties));
    if (mq::Object* obj = node.GetObjectRef()) {
        for (int b = 0; b < obj->NumParamBlocks(); ++b) {
            if (const ParamBlock* pb = obj->GetParamBlock(b)) {
                for (const ParamDef& def : pb->GetDesc()->params())
                    keys.push_back(def.internalName);
            }
        }
    }
    return keys;
}

std::string describeValue(const ParamBlock& pb, const ParamDef& def) {
    std::string out;
    for (int i = 0; i < def.count(); ++i) {
        out += (i ? ", " : "") + mq::formatParamValue(*pb.rawValue(def.id, i));
    }
    return out;
}

void setParam(mq::Scene& scene, Node& node, const ParamTarget& target, const Assignment& a,
              const std::filesystem::path& sceneFile) {
    const ParamDef& def = *target.def;
    const std::string what = node.GetName() + ": " + a.text;
    const size_t perElement = size_t(componentsOf(def.type));
    const bool single = !def.isTable() || a.index.has_value();
    if (a.index && !def.isTable()) usage(what + ": " + def.internalName + " is not a table");
    if (a.index && *a.index >= def.count()) {
        usage(what + ": " + def.internalName + " has " + std::to_string(def.count()) +
              " elements (0 to " + std::to_string(def.count() - 1) + ")");
    }

    // Texts are taken whole; everything else is a comma list.
    const bool isText =
        def.type == mq::TYPE_STRING || def.type == mq::TYPE_FILENAME || def.type == mq::TYPE_INODE;
    std::vector<std::string> parts =
        isText && single ? std::vector<std::string>{a.value} : splitCommas(a.value);
    const size_t elements = single ? 1 : size_t(def.count());
    if (parts.size() != elements * perElement) {
        usage(what + ": " + def.internalName + (single ? "" : " (a table)") + " takes " +
              std::to_string(elements * perElement) + " value" +
              (elements * perElement == 1 ? "" : "s") + ", found " + std::to_string(parts.size()));
    }

    // A file named on the command line is relative to the working folder;
    // the scene keeps it so that it resolves from the scene's own folder.
    if (def.type == mq::TYPE_FILENAME && !sceneFile.empty()) {
        for (std::string& part : parts) part = pathForScene(sceneFile, part);
    }
    std::vector<ParamValue> values;
    for (size_t e = 0; e < elements; ++e)
        values.push_back(parseElement(scene, def, parts, e * perElement, what));
    for (size_t e = 0; e < elements; ++e) {
        const int index = single ? a.index.value_or(0) : int(e);
        const ParamBlock::ScriptResult r = target.pb->assignFromScript(def.id, index, values[e]);
        if (!r.ok) usage(what + ": " + r.message);
        if (!r.message.empty()) printWarning(node.GetName() + ": " + r.message);
    }
    std::cout << node.GetName() << "." << def.internalName << " = "
              << describeValue(*target.pb, def) << "\n";
}

void setProperty(mq::Scene& scene, Node& node, const Assignment& a) {
    const std::string what = node.GetName() + ": " + a.text;
    if (a.index) usage(what + ": " + a.key + " has no elements");
    if (a.key == "renderable") {
        node.SetRenderable(parseBool(a.value, what));
        std::cout << node.GetName() << ".renderable = " << (node.Renderable() ? "true" : "false")
                  << "\n";
    } else if (a.key == "material") {
        const std::string name = trim(a.value);
        if (!name.empty() && !scene.materials.contains(name)) {
            std::string known;
            for (const auto& [m, mtl] : scene.materials.items())
                known += (known.empty() ? "" : ", ") + m;
            usage(what + ": no material named " + inQuotes(name) +
                  " in the scene (materials: " + (known.empty() ? "none" : known) + ")");
        }
        node.setMaterial(name);
        std::cout << node.GetName() << ".material = " << (name.empty() ? "none" : name) << "\n";
    } else {
        const std::vector<std::string> parts = splitCommas(a.value);
        if (parts.size() != 12) {
            usage(what + ": transform takes 12 numbers (4 rows of 3), found " +
                  std::to_string(parts.size()));
        }
        node.setLocalTM(parseMatrix(parts, 0, what));
        std::cout << node.GetName() << ".transform = " << mq::formatParamValue(node.localTM())
                  << "\n";
    }
}

}  // namespace

void runNew(mq::HostInterface& ip, const NewOptions& opt) {
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName(kMosaiqClass);
    if (!cd) {
        throw CliError(kExitInput, std::string("class ") + inQuotes(kMosaiqClass) +
                                       " is not available: no Mosaiq plug-in was loaded from " +
                                       mq::PluginManager::defaultFolder().string());
    }
    mq::Object* obj = mq::createObject(cd->SuperClassID(), cd->ClassID());
    if (!obj)
        throw CliError(kExitInput, std::string("could not create a ") + kMosaiqClass + " object");
    auto node = std::make_unique<Node>("Mosaiq001");
    node->SetObjectRef(obj);
    ip.GetRootNode()->attachChild(std::move(node));

    std::error_code ec;
    if (std::filesystem::exists(opt.scene, ec) && !opt.force) {
        throw CliError(kExitOutput,
                       opt.scene.string() + ": already exists; use --force to replace it");
    }
    saveSceneOrFail(ip.scene(), opt.scene);
    std::cout << "wrote " << opt.scene.string() << "\n";
}

void runImport(mq::HostInterface& ip, const ImportOptions& opt) {
    std::error_code ec;
    if (std::filesystem::exists(opt.scene, ec)) {
        loadSceneOrFail(ip, opt.scene);
    } else {
        std::cout << opt.scene.string() << " does not exist yet; starting an empty scene\n";
        // Textures are named relative to, and embedded ones written beside, the scene to be.
        ip.scene().folder = std::filesystem::absolute(opt.scene).parent_path();
    }
    // Images stored inside mesh files are written out beside the scene.
    const std::filesystem::path textures = std::filesystem::absolute(opt.scene).parent_path() /
                                           (opt.scene.stem().string() + "-textures");
    Node* root = ip.GetRootNode();
    for (const std::string& file : opt.files) {
        const int before = root->NumberOfChildren();
        if (!ip.ImportFromFile(file, textures)) {
            const std::string& why = ip.lastError();
            throw CliError(kExitInput, why.find(file) != std::string::npos
                                           ? "cannot merge: " + why
                                           : "cannot merge " + file + ": " + why);
        }
        // Merged scenes and mesh files bring their materials along.
        checkRenderDataOrFail(ip.scene(), "cannot merge " + file);
        std::string names;
        for (int i = before; i < root->NumberOfChildren(); ++i) {
            names += (names.empty() ? "" : ", ") + root->GetChildNode(i)->GetName();
        }
        std::cout << "merged " << file << ": " << (names.empty() ? "no nodes" : names) << "\n";
    }
    saveSceneOrFail(ip.scene(), opt.scene);
    std::cout << "wrote " << opt.scene.string() << "\n";
}

void applyAssignment(mq::Scene& scene, Node& node, const std::string& keyValue, bool echo,
                     const std::filesystem::path& sceneFile) {
    const Assignment a = parseAssignment(keyValue);
    bool isProperty = false;
    for (const char* p : kNodeProperties) isProperty = isProperty || a.key == p;
    // The setters report the new value on stdout; a quiet caller drops it.
    std::ostringstream silent;
    std::streambuf* saved = echo ? nullptr : std::cout.rdbuf(silent.rdbuf());
    try {
        if (isProperty) {
            setProperty(scene, node, a);
        } else if (std::optional<ParamTarget> target = findParam(node, a.key)) {
            setParam(scene, node, *target, a, sceneFile);
        } else {
            const std::vector<std::string> keys = validKeys(node);
            std::string list;
            for (const std::string& k : keys) list += (list.empty() ? "" : ", ") + k;
            usage(node.GetName() + ": no parameter or property " + inQuotes(a.key) +
                  mq::didYouMean(a.key, keys) + "; valid keys: " + list);
        }
    } catch (...) {
        if (saved) std::cout.rdbuf(saved);
        throw;
    }
    if (saved) std::cout.rdbuf(saved);
}

void runSet(mq::HostInterface& ip, const SetOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    Node* node = findUniqueNode(scene, opt.node, opt.scene.string());

    const std::filesystem::path out = opt.output.empty() ? opt.scene : opt.output;
    for (const std::string& arg : opt.assignments) applyAssignment(scene, *node, arg, true, out);
    saveSceneOrFail(scene, out);
    std::cout << "wrote " << out.string() << "\n";
}

}  // namespace mosaiq::cli
