#include "plugin/stringtable.h"

#include "object/resource.h"
#include "plugin/module.h"

#include <cstring>
#include <string_view>

namespace mosaiq {

namespace {

struct StringEntry {
    int id;
    const char* text;
};

constexpr StringEntry kStringTable[] = {
    {kStrLibDescription, "Mosaiq"},          {kStrCategory, "VRay"},   {kStrClassName, "Mosaiq"},
    {kStrBaseParameters, "Base Parameters"}, {kStrPreview, "Preview"}, {kStrSurface, "Surface"},
};

constexpr size_t kBufferSize = 256;

// Every entry fits the buffer with its terminator, so no lookup truncates.
constexpr bool allEntriesFit() {
    for (const StringEntry& e : kStringTable)
        if (std::string_view(e.text).size() >= kBufferSize) return false;
    return true;
}
static_assert(allEntriesFit(), "a string-table entry is longer than the lookup buffer");

char gBuffer[kBufferSize];

}  // namespace

const char* GetString(int id) {
    if (!moduleHandle()) return nullptr;
    for (const StringEntry& e : kStringTable) {
        if (e.id != id) continue;
        std::memcpy(gBuffer, e.text, std::strlen(e.text) + 1);
        return gBuffer;
    }
    return nullptr;
}

}  // namespace mosaiq
