// Mosaiq scene files (.mosaiq): versioned JSON that names classes by id,
// parameters by id (with their internal names for people) and refers to
// mesh assets by relative path.
#pragma once

#include "host/interface.h"
#include "host/node.h"
#include "host/paramblock.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace mq {

inline constexpr int kSceneFileVersion = 1;

// True for a file name with the scene files' extension (.mosaiq, any case).
bool isSceneFile(const std::filesystem::path& file);

// A scene file that cannot be read or written. what() names the file, the
// JSON path where it applies ("/nodes/2/object/params/3") and the reason.
class SceneError : public std::runtime_error {
public:
    SceneError(const std::string& file, const std::string& jsonPath, const std::string& reason);
    const std::string& file() const { return file_; }
    const std::string& jsonPath() const { return jsonPath_; }
    const std::string& reason() const { return reason_; }

private:
    std::string file_, jsonPath_, reason_;
};

using WarningSink = std::function<void(const std::string&)>;

// Read a scene file into a new scene; nothing is shared with any other
// scene until it returns. Objects register their post-load callbacks with
// iload (only once the whole file has been read); the caller runs them once
// the scene is in place. Values outside a parameter's range are clamped with
// a warning. Throws SceneError; iload is then best discarded unrun.
std::unique_ptr<Scene> readSceneFile(const std::filesystem::path& file, ILoad& iload,
                                     const WarningSink& warn);

// Make the file the host's scene, then run post-load callbacks. On error
// the host keeps its scene. Throws SceneError.
void loadScene(HostInterface& ip, const std::filesystem::path& file);

// Write the scene through writeFileAtomically (host/atomic_file.h), so a
// failed save leaves any earlier file whole. Mesh assets are referred to relative
// to the file's folder. Throws SceneError.
void saveScene(const Scene& scene, const std::filesystem::path& file);

// One parameter's value as scene files store it: tables as arrays, node
// parameters by node name (null for none), matrices as four rows of three,
// floats as the doubles that read back to the same float.
nlohmann::json paramValueToJson(const ParamBlock& pb, const ParamDef& def);

// A matrix as scene files store it: four rows of three.
nlohmann::json matrixToJson(const Matrix3& m);

// JSON text laid out as scene files are: one member per line, short lists
// and records without objects inside on one line. Ends with a newline.
std::string formatSceneJson(const nlohmann::json& j);
std::string formatSceneJson(const nlohmann::ordered_json& j);

}  // namespace mq
