// What the fuzz targets share: a private folder for the files an input is
// written to, the format byte that picks a mesh file's extension, and
// loading the plug-ins as the command line does.
//
// fuzz_support.cpp also replaces mq::failInvariant for the whole process, so
// a failed MQ_ASSERT aborts where it fails instead of becoming an error
// message: no user data may break an invariant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace mosaiq::fuzz {

// This process's own folder, made on first use and removed at exit.
const std::filesystem::path& workDir();

// Writes size bytes to name in workDir() and returns the path.
std::filesystem::path writeInput(const std::string& name, const uint8_t* data, size_t size);

// The mesh formats of fuzz/mesh_formats.txt, in file order.
const std::vector<std::string>& meshFormats();
// The extension (without dot) that an input's leading byte stands for.
const std::string& formatFor(uint8_t leadingByte);

// Loads the plug-ins from the folder the command line would use; aborts
// when none of them offers the Mosaiq class, since nothing would be tested.
void loadPlugins();

}  // namespace mosaiq::fuzz
