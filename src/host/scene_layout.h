// The layout of scene files, shared by reading (scene_read.cpp) and writing
// (scene_write.cpp): the format's name, the limits on nesting, and the JSON
// pointers and quoting that messages use. Internal to host; scenefile.h is
// the public contract.
#pragma once

#include "host/scenefile.h"

#include <cstddef>
#include <string>

namespace mq::scenefile {

inline constexpr const char* kFormatName = "mosaiq-scene";
// Deeper trees than this are malformed or hostile; loading, saving, node
// transforms and the node destructor all recurse over the tree.
inline constexpr int kMaxNodeDepth = 256;
// The JSON parser recurses too; this leaves room for the deepest node tree.
inline constexpr int kMaxJsonDepth = 2 * kMaxNodeDepth + 16;

// "file: path: reason", or "file: reason" for an empty path.
std::string describeError(const std::string& file, const std::string& jsonPath,
                          const std::string& reason);

// JSON pointer (RFC 6901) of a member or element below path.
std::string at(const std::string& path, const std::string& key);
std::string at(const std::string& path, size_t index);

std::string inQuotes(const std::string& s);

}  // namespace mq::scenefile
