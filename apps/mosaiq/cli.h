// Shared pieces of the mosaiq command line: exit codes, the error that
// carries one, and loading and saving scenes with the right code on failure.
#pragma once

#include "host/interface.h"
#include "host/pattern_tools.h"

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace mosaiq::cli {

enum ExitCode : int {
    kExitOk = 0,
    kExitUsage = 2,   // bad arguments: unknown command, key or value
    kExitInput = 3,   // a scene or asset that cannot be read, a node the scene lacks
    kExitOutput = 4,  // a file that cannot be written
    kExitRender = 5,
    kExitInterrupted = 130,  // stopped by SIGINT or SIGTERM, as shells report it
};

// Ends the command: main prints "mosaiq: error: <what>" and exits with code.
class CliError : public std::runtime_error {
public:
    CliError(ExitCode code, const std::string& what) : std::runtime_error(what), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// Prints "mosaiq: warning: <text>" and counts it for --strict.
void printWarning(const std::string& text);

// With --strict every warning fails the command: call before anything is
// written. CliError(kExitInput) when strict is on and a warning was printed.
// With several frames, strict rendering holds every image until the last.
void setStrict(bool strict);
bool isStrict();
void checkStrict();

// From here on SIGINT and SIGTERM first remove the temporary files of writes
// in flight, then end the process as they would have. The render command
// handles them itself while it runs.
void removeTemporariesOnSignal();

// Make file the host's scene; CliError(kExitInput) when it cannot be read or
// render would refuse it (see checkRenderDataOrFail).
void loadSceneOrFail(mq::HostInterface& ip, const std::filesystem::path& file);
// CliError(kExitInput), prefixed with what, unless the scene's materials,
// lights, camera and render settings are fit to render
// (mq::tracer::checkRenderData).
void checkRenderDataOrFail(const mq::Scene& scene, const std::string& what);
// Save; CliError(kExitOutput) when it cannot be written.
void saveSceneOrFail(const mq::Scene& scene, const std::filesystem::path& file);

// Fails with kExitOutput unless a file can be created beside out and out
// is not a folder; what names the kind of file ("an image", "a mesh").
void checkWritable(const std::filesystem::path& out, const std::string& what);

// A path the user gave on the command line as the scene file stores it:
// relative to the scene file's folder when it lies below or beside it
// (given relative to the working folder, it is rebased), absolute when it
// does not, so the scene renders the same from any folder. Empty stays empty.
std::string pathForScene(const std::filesystem::path& sceneFile, const std::string& given);

// The one node named name; CliError(kExitInput) naming it (with the nearest
// node name), prefixed with what, when there is none or more than one.
mq::Node* findUniqueNode(mq::Scene& scene, const std::string& name, const std::string& what);
// One message per Mosaiq node whose pattern comes from a "Pattern_File"
// that is set but cannot be read (missing, a folder, unreadable), naming
// the node and the file; such a node renders nothing. Hidden nodes are
// passed over.
// With only set, that node alone is looked at.
std::vector<std::string> unreadablePatternFiles(mq::HostInterface& ip,
                                                const mq::Node* only = nullptr);
// CliError(kExitInput), prefixed with what, listing unreadablePatternFiles.
void checkPatternFilesOrFail(mq::HostInterface& ip, const std::string& what,
                             const mq::Node* only = nullptr);

// The pattern tools of node's Mosaiq object, owned by the object;
// CliError(kExitUsage), prefixed with what, when the node holds something else.
mq::IPatternTools& patternToolsOrFail(mq::Node& node, const std::string& what);

struct InspectOptions {
    std::filesystem::path scene;
    bool json = false;
    std::string tileNode;     // non-empty: the captured tile of this node only
    std::string mappingNode;  // non-empty: the surface mapping of this node only
    int frame = 0;            // the frame --mapping maps
};
struct NewOptions {
    std::filesystem::path scene;
    bool force = false;  // replace an existing file
};
struct ImportOptions {
    std::filesystem::path scene;
    std::vector<std::string> files;
};
struct SetOptions {
    std::filesystem::path scene;
    std::string node;
    std::vector<std::string> assignments;  // KEY=VALUE or KEY[i]=VALUE
    std::filesystem::path output;          // empty: write back to scene
};

struct CropOptions {
    std::string operation;  // "reset" or "fit"
    std::filesystem::path scene;
    std::string node;
    double margin = 0;             // percent the box grows by; see runCrop
    std::filesystem::path output;  // empty: write back to scene
};

struct RenderOptions {
    std::filesystem::path scene;       // empty: the built-in demo scene
    std::filesystem::path output;      // empty: <scene stem>.png, or mosaiq-demo.png
    std::string resolution;            // "WxH"; empty: the scene's
    int spp = 0;                       // 0: the scene's
    int threads = -1;                  // -1: the scene's; 0: one per hardware thread
    long long seed = -1;               // -1: the scene's
    std::string frames;                // "A-B" or "A"; empty: frame 0
    std::string crop;                  // "x0,x1,y0,y1" in pixels; empty: whole image
    std::vector<std::string> defines;  // -D key=value: render setting or Node.Param
    bool quiet = false;
    std::string pass;  // empty: beauty; normal, depth, objectid or uv
};

struct PreviewOptions {
    std::filesystem::path scene;  // with node: that Mosaiq node's tile
    std::string node;
    std::filesystem::path pattern;  // instead of a scene: a pattern file
    std::string crop;               // with pattern: the crop box; empty: the whole pattern
    int size = 0;                   // "Texture_Size"; 0: the node's, or its default
    std::filesystem::path output;   // .png (8-bit with alpha) or .exr; empty: derived
    int repeat = 1;                 // the texture written repeated repeat x repeat times
};

struct BakeOptions {
    std::filesystem::path scene;
    std::string node;
    std::filesystem::path output;  // .glb or .obj
    int frame = 0;
    long long maxTriangles = 50'000'000;
};

// Apply one `set`-style KEY=VALUE (parameter, optionally [index], or
// renderable, material, transform) to node; CliError(kExitUsage) when the key
// or value is bad. Prints the new value when echo is set. File names are
// stored as pathForScene(sceneFile, value); an empty sceneFile keeps them
// as given.
void applyAssignment(mq::Scene& scene, mq::Node& node, const std::string& keyValue, bool echo,
                     const std::filesystem::path& sceneFile = {});

// Make the built-in demo scene the host's scene: a chain-mail Mosaiq object
// over a cylinder standing on a ground plane, with camera, lights and
// materials. CliError(kExitInput) when the Mosaiq plug-in is not loaded.
void buildDemoScene(mq::HostInterface& ip);

void runInspect(mq::HostInterface& ip, const InspectOptions& opt);
void runNew(mq::HostInterface& ip, const NewOptions& opt);
void runImport(mq::HostInterface& ip, const ImportOptions& opt);
void runSet(mq::HostInterface& ip, const SetOptions& opt);
void runCrop(mq::HostInterface& ip, const CropOptions& opt);
void runPreview(mq::HostInterface& ip, const PreviewOptions& opt);
void runBake(mq::HostInterface& ip, const BakeOptions& opt);
// Returns the exit code: kExitOk, or kExitInterrupted after a Ctrl-C.
int runRender(mq::HostInterface& ip, const RenderOptions& opt);

// mosaiq material, light, camera, assign and units (setup.cpp). KEY=VALUE lists
// are checked key by key; an empty VALUE takes the key out again.
struct MaterialOptions {
    std::filesystem::path scene;
    std::string name;
    std::vector<std::string> assignments;
    bool remove = false;
    std::filesystem::path output;  // empty: write back to scene
};
struct LightOptions {
    std::filesystem::path scene;
    std::string action;  // add, set, remove or list
    std::vector<std::string>
        args;  // add: TYPE KEY=VALUE...; set: INDEX KEY=VALUE...; remove: INDEX
    std::filesystem::path output;
};
struct CameraOptions {
    std::filesystem::path scene;
    std::vector<std::string> assignments;
    bool automatic = false;  // drop the camera: render frames the scene
    std::filesystem::path output;
};
struct AssignOptions {
    std::filesystem::path scene;
    std::string node, material;
    std::filesystem::path output;
};
// No unit: print the scene's. A unit: make it the scene's (a label for world
// values; nothing is rescaled) and write.
struct UnitsOptions {
    std::filesystem::path scene;
    std::string unit;
    std::filesystem::path output;
};
void runMaterial(mq::HostInterface& ip, const MaterialOptions& opt);
void runLight(mq::HostInterface& ip, const LightOptions& opt);
void runCamera(mq::HostInterface& ip, const CameraOptions& opt);
void runAssign(mq::HostInterface& ip, const AssignOptions& opt);
void runUnits(mq::HostInterface& ip, const UnitsOptions& opt);
// Adds those commands to app; the function returned runs the one parsed.
std::function<void(mq::HostInterface&)> addSetupCommands(CLI::App& app);

}  // namespace mosaiq::cli
