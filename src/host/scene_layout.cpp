// The pieces of the scene file layout that reading and writing share.
#include "host/scene_layout.h"

namespace mq {

namespace scenefile {

std::string describeError(const std::string& file, const std::string& jsonPath,
                          const std::string& reason) {
    std::string s = file;
    if (!jsonPath.empty()) s += ": " + jsonPath;
    return s + ": " + reason;
}

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

}  // namespace scenefile

SceneError::SceneError(const std::string& file, const std::string& jsonPath,
                       const std::string& reason)
    : std::runtime_error(scenefile::describeError(file, jsonPath, reason)),
      file_(file),
      jsonPath_(jsonPath),
      reason_(reason) {}

}  // namespace mq
