// The scene's unit: a label for the numbers of world-unit fields, as 3D
// packages show "12.5cm". Nothing is rescaled by it; the renderer ignores it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mq {

class Scene;

enum class SceneUnit { Generic, Millimeters, Centimeters, Meters, Kilometers, Inches, Feet };

// "generic", "mm", "cm", "m", "km", "in", "ft": the names scene files, the
// command line and world-unit fields use.
const char* unitName(SceneUnit unit);
// Every name above, generic first.
const std::vector<std::string>& unitNames();
// The unit named name (exactly, lower case); none for anything else.
std::optional<SceneUnit> unitFromName(std::string_view name);
// Metres in one unit; 0 for generic, which converts to nothing.
double metersPerUnit(SceneUnit unit);

// The unit of the current host's scene; generic without a host.
SceneUnit currentSceneUnit();

// Give scene a unit as a user edit: recorded for undo when a hold is open,
// and open rollouts show their world-unit fields again (now and on undo).
void setSceneUnit(Scene& scene, SceneUnit unit);

}  // namespace mq
