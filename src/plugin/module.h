// The plug-in library's module handle, recorded when the library is loaded.
#pragma once

namespace mosaiq {

// The dlopen handle of the library holding the plug-in (of the program itself
// when the plug-in is linked in statically); null until it is known. String
// and dialog lookups fail while it is null.
void* moduleHandle();

// Replace the recorded handle; null forgets it. For tests.
void setModuleHandle(void* handle);

}  // namespace mosaiq
