// mosaiq material, light, camera and assign: set up what a scene renders
// with, without editing its JSON. Each command changes the scene in memory,
// checks every value (and that render would take the result), and only then
// writes the file, so a bad argument leaves it untouched.
#include "cli.h"

#include "host/suggest.h"
#include "tracer/texture.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <cmath>
#include <iostream>
#include <memory>
#include <optional>

namespace mosaiq::cli {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

[[noreturn]] void usage(const std::string& what) { throw CliError(kExitUsage, what); }

std::string trim(std::string_view s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string_view::npos) return {};
    return std::string(s.substr(b, s.find_last_not_of(" \t") - b + 1));
}

std::string joined(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
    return out.empty() ? "none" : out;
}

// A key of a scene section: what its value must be, checked before writing.
enum class Kind { Colour, Vector, Number, Image, Choice, Channel };
struct Key {
    const char* name;
    Kind kind;
    double lo = 0, hi = 1e30;  // Number, Channel: accepted range
    const char* help = "";     // Choice: the words, '|' apart
};

const Key kMaterialKeys[] = {
    {"baseColor", Kind::Colour, 0, 0, "r,g,b or an image file"},
    {"channel", Kind::Channel, 0, 99, "map channel of the base-colour image"},
    {"roughness", Kind::Number, 0, 1},
    {"metallic", Kind::Number, 0, 1},
    {"specular", Kind::Number, 0, 1},
    {"emission", Kind::Colour},
};
const Key kCameraKeys[] = {
    {"position", Kind::Vector},
    {"target", Kind::Vector},
    {"up", Kind::Vector},
    {"fov", Kind::Number, 0.1, 179},
};
// Keys every light has, then each type's own.
const Key kLightKeys[] = {{"color", Kind::Colour}, {"intensity", Kind::Number, 0, 1e30}};
const Key kSunKeys[] = {{"direction", Kind::Vector}, {"angle", Kind::Number, 0, 90}};
const Key kDomeKeys[] = {{"image", Kind::Image},
                         {"rotation", Kind::Number, -1e6, 1e6},
                         {"sampling", Kind::Choice, 0, 0, "importance|uniform"}};
const Key kSphereKeys[] = {{"position", Kind::Vector}, {"radius", Kind::Number, 1e-6, 1e30}};
const Key kPointKeys[] = {{"position", Kind::Vector}};
const char* const kLightTypes[] = {"sun", "dome", "sphere", "point"};

std::vector<Key> lightKeys(const std::string& type) {
    std::vector<Key> keys(std::begin(kLightKeys), std::end(kLightKeys));
    auto add = [&](const auto& own) { keys.insert(keys.end(), std::begin(own), std::end(own)); };
    if (type == "sun") add(kSunKeys);
    if (type == "dome") add(kDomeKeys);
    if (type == "sphere") add(kSphereKeys);
    if (type == "point") add(kPointKeys);
    return keys;
}

std::vector<std::string> namesOf(const std::vector<Key>& keys) {
    std::vector<std::string> names;
    for (const Key& k : keys) names.emplace_back(k.name);
    return names;
}

std::optional<double> number(const std::string& text) {
    std::string t = trim(text);
    if (!t.empty() && t[0] == '+') t.erase(0, 1);
    double v = 0;
    const auto res = std::from_chars(t.data(), t.data() + t.size(), v);
    if (t.empty() || res.ec != std::errc() || res.ptr != t.data() + t.size() || !std::isfinite(v) ||
        std::fabs(v) > 3.4e38) {
        return std::nullopt;
    }
    return v;
}

std::string shortText(double v) {
    char buf[32];
    return std::string(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

// Three numbers "x,y,z"; a colour also takes one number as a grey.
std::optional<json> triple(const std::string& text, bool grey) {
    std::vector<double> v;
    for (size_t start = 0;;) {
        const size_t comma = text.find(',', start);
        const std::optional<double> n = number(text.substr(start, comma - start));
        if (!n) return std::nullopt;
        v.push_back(*n);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (v.size() == 1 && grey) v.assign(3, v[0]);
    if (v.size() != 3) return std::nullopt;
    return json(v);
}

// Digits, signs, dots and commas only: meant as numbers, not as a file name.
bool looksNumeric(const std::string& text) {
    return text.find_first_not_of("0123456789+-.,eE \t") == std::string::npos;
}

// An image file given on the command line: it must load as render would
// load it; stored as the scene names its assets.
std::string imageFor(const fs::path& scene, const std::string& given, const std::string& what) {
    std::error_code ec;
    if (!fs::is_regular_file(given, ec))
        throw CliError(kExitInput, what + ": no image file " + quoted(given));
    const std::string stored = pathForScene(scene, given);
    try {
        mq::tracer::AssetCache(fs::absolute(scene).parent_path()).texture(stored);
    } catch (const std::exception& e) {
        throw CliError(kExitInput, what + ": " + e.what());
    }
    return stored;
}

// The JSON for key=value, or null for an empty value (the key goes back to
// its default). what names the target in messages ("material \"Brick\"").
json parseValue(const Key& key, const std::string& value, const fs::path& scene,
                const std::string& what) {
    const std::string v = trim(value);
    if (v.empty()) return nullptr;
    const std::string at = what + ": " + key.name + "=" + value;
    switch (key.kind) {
        case Kind::Colour:
            if (std::string(key.name) == "baseColor" && !looksNumeric(v))
                return {{"texture", imageFor(scene, v, at)}, {"channel", 1}};
            if (std::optional<json> c = triple(v, true)) {
                for (const json& x : *c) {
                    if (x.get<double>() < 0) usage(at + ": colour components must be 0 or more");
                }
                return *c;
            }
            usage(at + ": expected a colour r,g,b (or one number for a grey)" +
                  (std::string(key.name) == "baseColor" ? " or an image file" : ""));
        case Kind::Vector:
            if (std::optional<json> p = triple(v, false)) return *p;
            usage(at + ": expected three numbers x,y,z");
        case Kind::Number:
        case Kind::Channel: {
            const std::optional<double> n = number(v);
            if (!n) usage(at + ": " + quoted(v) + " is not a finite number");
            if (*n < key.lo || *n > key.hi) {
                usage(at + ": must be " +
                      (key.hi >= 1e30 ? "at least " + shortText(key.lo)
                                      : "from " + shortText(key.lo) + " to " + shortText(key.hi)));
            }
            if (key.kind == Kind::Number) return *n;
            if (*n != std::floor(*n)) usage(at + ": expected a whole map channel");
            return static_cast<int>(*n);
        }
        case Kind::Image:
            return imageFor(scene, v, at);
        case Kind::Choice: {
            const std::string words = key.help;
            if (("|" + words + "|").find("|" + v + "|") == std::string::npos)
                usage(at + ": expected one of " + words);
            return v;
        }
    }
    usage(at);
}

// Apply key=value arguments to section, an object, checking each against keys.
void applyKeys(json& section, const std::vector<Key>& keys, const std::vector<std::string>& args,
               const fs::path& scene, const std::string& what) {
    for (const std::string& arg : args) {
        const size_t eq = arg.find('=');
        if (eq == std::string::npos || eq == 0)
            usage(what + ": expected KEY=VALUE, found " + quoted(arg));
        const std::string name = trim(arg.substr(0, eq));
        const auto key =
            std::find_if(keys.begin(), keys.end(), [&](const Key& k) { return name == k.name; });
        if (key == keys.end()) {
            usage(what + ": unknown key " + quoted(name) + mq::didYouMean(name, namesOf(keys)) +
                  "; keys: " + joined(namesOf(keys)));
        }
        json value = parseValue(*key, arg.substr(eq + 1), scene, what);
        if (name == "channel") {
            // The channel belongs to the base-colour image.
            if (!section.contains("baseColor") || !section["baseColor"].is_object())
                usage(what + ": channel=" + arg.substr(eq + 1) + ": baseColor is not an image");
            section["baseColor"]["channel"] = value;
        } else if (name == "baseColor" && value.is_object() && section.contains(name) &&
                   section[name].is_object() && section[name].contains("channel")) {
            // A new image keeps the channel the old one was read with.
            value["channel"] = section[name]["channel"];
            section[name] = value;
        } else if (value.is_null()) {
            section.erase(name);
        } else {
            section[name] = value;
        }
    }
}

// One line per light: "0  sun  direction=[...] intensity=3".
void printLights(const json& lights) {
    if (lights.empty()) std::cout << "no lights: the scene renders with a default sky and sun\n";
    for (size_t i = 0; i < lights.size(); ++i) {
        std::cout << i << "  " << lights[i].value("type", "?");
        for (const auto& [k, v] : lights[i].items()) {
            if (k != "type") std::cout << "  " << k << "=" << v.dump();
        }
        std::cout << "\n";
    }
}

size_t lightIndex(const json& lights, const std::string& text, const std::string& what) {
    const std::optional<double> n = number(text);
    if (!n || *n < 0 || *n != std::floor(*n))
        usage(what + ": " + quoted(text) + " is not a light index (0, 1, ...)");
    if (*n >= double(lights.size())) {
        throw CliError(
            kExitInput,
            what + ": no light " + trim(text) + "; the scene has " + std::to_string(lights.size()) +
                (lights.empty() ? "" : " (0 to " + std::to_string(lights.size() - 1) + ")"));
    }
    return size_t(*n);
}

// Check what render would, then write: the scene file or -o.
void finish(mq::HostInterface& ip, const fs::path& scene, const fs::path& output,
            const std::string& what) {
    checkRenderDataOrFail(ip.scene(), what);
    const fs::path out = output.empty() ? scene : output;
    saveSceneOrFail(ip.scene(), out);
    std::cout << "wrote " << out.string() << "\n";
}

}  // namespace

void runMaterial(mq::HostInterface& ip, const MaterialOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    const std::string what = "material " + quoted(opt.name);
    if (opt.remove) {
        if (!opt.assignments.empty()) usage(what + ": --remove takes no KEY=VALUE");
        if (!scene.materials.contains(opt.name)) {
            std::vector<std::string> names;
            for (const auto& [n, m] : scene.materials.items()) names.push_back(n);
            throw CliError(kExitInput, opt.scene.string() + ": no " + what +
                                           mq::didYouMean(opt.name, names) +
                                           "; materials: " + joined(names));
        }
        scene.materials.erase(opt.name);
        // Nodes that used it render with the default material.
        for (mq::Node* n : scene.allNodes()) {
            if (n->material() != opt.name) continue;
            n->setMaterial("");
            std::cout << n->GetName() << ": material cleared\n";
        }
        std::cout << "removed " << what << "\n";
    } else {
        if (trim(opt.name).empty()) usage("material: the name is empty");
        const bool created = !scene.materials.contains(opt.name);
        json material = created ? json::object() : scene.materials[opt.name];
        applyKeys(material, std::vector<Key>(std::begin(kMaterialKeys), std::end(kMaterialKeys)),
                  opt.assignments, opt.scene, what);
        scene.materials[opt.name] = material;
        std::cout << (created ? "created " : "") << what << ": " << material.dump() << "\n";
    }
    finish(ip, opt.scene, opt.output, opt.scene.string());
}

void runLight(mq::HostInterface& ip, const LightOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    if (!scene.lights.is_array()) scene.lights = json::array();
    json& lights = scene.lights;
    const std::vector<std::string>& args = opt.args;
    const std::string& action = opt.action;
    if (action == "list") {
        if (!args.empty()) usage("light list: takes no arguments, found " + quoted(args[0]));
        printLights(lights);
        return;
    }
    if (args.empty()) {
        usage("light " + action + ": expected " +
              (action == "add" ? "a type (sun, dome, sphere or point)" : "a light index"));
    }
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (action == "add") {
        const std::string& type = args[0];
        const std::vector<std::string> types(std::begin(kLightTypes), std::end(kLightTypes));
        if (std::find(types.begin(), types.end(), type) == types.end()) {
            usage("light add: unknown type " + quoted(type) + mq::didYouMean(type, types) +
                  "; types: " + joined(types));
        }
        json light = {{"type", type}};
        const std::string what = "light " + std::to_string(lights.size()) + " (" + type + ")";
        applyKeys(light, lightKeys(type), rest, opt.scene, what);
        if (lights.empty())
            std::cout << "the default sky and sun give way to the scene's own lights\n";
        lights.push_back(light);
        std::cout << "added " << what << ": " << light.dump() << "\n";
    } else if (action == "set") {
        const size_t i = lightIndex(lights, args[0], "light set");
        if (rest.empty()) usage("light set " + args[0] + ": expected KEY=VALUE");
        const std::string type = lights[i].value("type", "");
        const std::string what = "light " + std::to_string(i) + " (" + type + ")";
        applyKeys(lights[i], lightKeys(type), rest, opt.scene, what);
        std::cout << what << ": " << lights[i].dump() << "\n";
    } else {
        const size_t i = lightIndex(lights, args[0], "light remove");
        if (!rest.empty()) usage("light remove: takes one index, found " + quoted(rest[0]));
        std::cout << "removed light " << i << ": " << lights[i].dump() << "\n";
        lights.erase(i);
        if (lights.empty()) std::cout << "no lights left: the default sky and sun apply again\n";
    }
    finish(ip, opt.scene, opt.output, opt.scene.string());
}

void runCamera(mq::HostInterface& ip, const CameraOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    if (opt.automatic) {
        if (!opt.assignments.empty()) usage("camera: --auto takes no KEY=VALUE");
        scene.camera = nullptr;
        std::cout << "camera: automatic, framing the whole scene\n";
    } else {
        if (opt.assignments.empty())
            usage("camera: expected KEY=VALUE (position, target, up, fov)");
        // Keys not given take the values render gives a camera without them.
        if (!scene.camera.is_object())
            std::cout << "camera: was automatic; keys not given take their defaults\n";
        json camera = scene.camera.is_object() ? scene.camera
                                               : json{{"position", {0, -10, 0}},
                                                      {"target", {0, 0, 0}},
                                                      {"up", {0, 0, 1}},
                                                      {"fov", 45}};
        applyKeys(camera, std::vector<Key>(std::begin(kCameraKeys), std::end(kCameraKeys)),
                  opt.assignments, opt.scene, "camera");
        // A view needs a direction and an up that is not along it.
        const auto at = [&](const char* k, mq::Point3 fallback) {
            if (!camera.contains(k)) return fallback;
            const json& v = camera[k];
            return mq::Point3(v[0].get<float>(), v[1].get<float>(), v[2].get<float>());
        };
        const mq::Point3 forward = at("target", {}) - at("position", {0, -10, 0});
        if (!(mq::Length(mq::CrossProd(forward, at("up", {0, 0, 1}))) > 0.0f)) {
            usage("camera: position " + camera.value("position", json()).dump() + ", target " +
                  camera.value("target", json()).dump() + " and up " +
                  camera.value("up", json()).dump() +
                  " give no view: the target must differ from the position, and up must not "
                  "point along the view");
        }
        scene.camera = camera;
        std::cout << "camera: " << camera.dump() << "\n";
    }
    finish(ip, opt.scene, opt.output, opt.scene.string());
}

void runAssign(mq::HostInterface& ip, const AssignOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    std::vector<mq::Node*> nodes;
    std::vector<std::string> nodeNames;
    for (mq::Node* n : scene.allNodes()) {
        nodeNames.push_back(n->GetName());
        if (n->GetName() == opt.node) nodes.push_back(n);
    }
    if (nodes.empty()) {
        throw CliError(kExitInput, opt.scene.string() + ": no node named " + quoted(opt.node) +
                                       mq::didYouMean(opt.node, nodeNames));
    }
    if (nodes.size() > 1) {
        throw CliError(kExitInput, opt.scene.string() + ": " + std::to_string(nodes.size()) +
                                       " nodes are named " + quoted(opt.node) +
                                       "; rename them apart first");
    }
    if (!scene.materials.contains(opt.material)) {
        std::vector<std::string> names;
        for (const auto& [n, m] : scene.materials.items()) names.push_back(n);
        throw CliError(kExitInput, opt.scene.string() + ": no material named " +
                                       quoted(opt.material) + mq::didYouMean(opt.material, names) +
                                       "; materials: " + joined(names) +
                                       " (make one with `mosaiq material`)");
    }
    nodes[0]->setMaterial(opt.material);
    std::cout << opt.node << ".material = " << opt.material << "\n";
    finish(ip, opt.scene, opt.output, opt.scene.string());
}

void runUnits(mq::HostInterface& ip, const UnitsOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    if (opt.unit.empty()) {
        if (!opt.output.empty()) usage("units: -o needs a UNIT to write");
        std::cout << "units: " << mq::unitName(scene.units) << "\n";
        return;
    }
    const std::optional<mq::SceneUnit> unit = mq::unitFromName(opt.unit);
    if (!unit) {
        usage("units: unknown unit " + quoted(opt.unit) +
              mq::didYouMean(opt.unit, mq::unitNames()) + "; units: " + joined(mq::unitNames()));
    }
    scene.units = *unit;
    std::cout << "units: " << mq::unitName(scene.units) << "\n";
    finish(ip, opt.scene, opt.output, opt.scene.string());
}

std::function<void(mq::HostInterface&)> addSetupCommands(CLI::App& app) {
    // The options live as long as the returned function, which main calls
    // after parsing.
    struct All {
        MaterialOptions material;
        LightOptions light;
        CameraOptions camera;
        AssignOptions assign;
        UnitsOptions units;
    };
    auto all = std::make_shared<All>();

    CLI::App* material =
        app.add_subcommand("material",
                           "Create, change or remove a material: baseColor=r,g,b or an image file, "
                           "channel=, roughness=, metallic=, specular=, emission=r,g,b");
    material->add_option("SCENE", all->material.scene, "Scene file")->required();
    material->add_option("NAME", all->material.name, "Material name")->required();
    material->add_option("KEY=VALUE", all->material.assignments,
                         "Values to set; an empty value restores the default");
    material->add_flag("--remove", all->material.remove,
                       "Remove the material; its nodes render with the default one");
    material->add_option("-o,--output", all->material.output, "Write here instead of SCENE");

    CLI::App* light = app.add_subcommand(
        "light",
        "Add, change, remove or list lights: add TYPE [KEY=VALUE...], set INDEX "
        "KEY=VALUE..., remove INDEX, list. Keys: color, intensity; sun: direction, "
        "angle; dome: image, rotation, sampling; sphere: position, radius; point: "
        "position");
    light->add_option("SCENE", all->light.scene, "Scene file")->required();
    light->add_option("ACTION", all->light.action, "add, set, remove or list")
        ->required()
        ->check(CLI::IsMember({"add", "set", "remove", "list"}));
    light->add_option("ARGS", all->light.args,
                      "add: TYPE then KEY=VALUE; set: INDEX then "
                      "KEY=VALUE; remove: INDEX");
    light->add_option("-o,--output", all->light.output, "Write here instead of SCENE");

    CLI::App* camera = app.add_subcommand(
        "camera", "Set the camera: position=x,y,z target=x,y,z up=x,y,z fov=degrees");
    camera->add_option("SCENE", all->camera.scene, "Scene file")->required();
    camera->add_option("KEY=VALUE", all->camera.assignments, "Values to set");
    camera->add_flag("--auto", all->camera.automatic,
                     "Remove the camera: render frames the whole scene");
    camera->add_option("-o,--output", all->camera.output, "Write here instead of SCENE");

    CLI::App* assign = app.add_subcommand("assign", "Give a node a material of the scene");
    assign->add_option("SCENE", all->assign.scene, "Scene file")->required();
    assign->add_option("NODE", all->assign.node, "Node name")->required();
    assign->add_option("MATERIAL", all->assign.material, "Material name")->required();
    assign->add_option("-o,--output", all->assign.output, "Write here instead of SCENE");

    CLI::App* units = app.add_subcommand(
        "units",
        "Show or set the scene's unit: generic, mm, cm, m, km, in or ft. World values are "
        "shown with it; nothing is rescaled");
    units->add_option("SCENE", all->units.scene, "Scene file")->required();
    units->add_option("UNIT", all->units.unit, "The unit to set; none: show the scene's");
    units->add_option("-o,--output", all->units.output, "Write here instead of SCENE");

    return [=](mq::HostInterface& ip) {
        if (material->parsed()) runMaterial(ip, all->material);
        if (light->parsed()) runLight(ip, all->light);
        if (camera->parsed()) runCamera(ip, all->camera);
        if (assign->parsed()) runAssign(ip, all->assign);
        if (units->parsed()) runUnits(ip, all->units);
    };
}

}  // namespace mosaiq::cli
