// The plug-in's string table.
#pragma once

namespace mosaiq {

// String `id` of the table, copied into one static 256-character buffer that
// every lookup shares: the next lookup overwrites it, so a caller that keeps
// the text copies it first. Null when no module handle is recorded or the id
// is not in the table. Not thread-safe (the host's UI thread only).
const char* GetString(int id);

}  // namespace mosaiq
