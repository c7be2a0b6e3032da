#include "host/units.h"

#include "host/changes.h"
#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/ui/param_map.h"

#include <memory>

namespace mq {

namespace {

struct UnitInfo {
    SceneUnit unit;
    const char* name;
    double meters;
};

constexpr UnitInfo kUnits[] = {
    {SceneUnit::Generic, "generic", 0.0},  {SceneUnit::Millimeters, "mm", 0.001},
    {SceneUnit::Centimeters, "cm", 0.01},  {SceneUnit::Meters, "m", 1.0},
    {SceneUnit::Kilometers, "km", 1000.0}, {SceneUnit::Inches, "in", 0.0254},
    {SceneUnit::Feet, "ft", 0.3048},
};

const UnitInfo& info(SceneUnit unit) {
    for (const UnitInfo& u : kUnits)
        if (u.unit == unit) return u;
    return kUnits[0];
}

// The scene outlives no step that refers to it: a new scene resets the undo history.
class UnitRestore final : public RestoreObj {
public:
    UnitRestore(Scene& scene, SceneUnit before, SceneUnit after)
        : scene_(scene), before_(before), after_(after) {}
    void Restore(bool) override { apply(before_); }
    void Redo() override { apply(after_); }
    std::string Description() const override { return "Units Setup"; }

private:
    void apply(SceneUnit unit) {
        scene_.units = unit;
        ui::showWorldFieldsAgain();
        sceneChanges().notify();
    }
    Scene& scene_;
    SceneUnit before_, after_;
};

}  // namespace

const char* unitName(SceneUnit unit) { return info(unit).name; }

const std::vector<std::string>& unitNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const UnitInfo& u : kUnits) out.push_back(u.name);
        return out;
    }();
    return names;
}

std::optional<SceneUnit> unitFromName(std::string_view name) {
    for (const UnitInfo& u : kUnits)
        if (name == u.name) return u.unit;
    return std::nullopt;
}

double metersPerUnit(SceneUnit unit) { return info(unit).meters; }

SceneUnit currentSceneUnit() {
    HostInterface* ip = GetCOREInterface();
    return ip ? ip->scene().units : SceneUnit::Generic;
}

void setSceneUnit(Scene& scene, SceneUnit unit) {
    if (scene.units == unit) return;
    if (theHold.Holding()) theHold.Put(std::make_unique<UnitRestore>(scene, scene.units, unit));
    scene.units = unit;
    ui::showWorldFieldsAgain();
    sceneChanges().notify();
}

}  // namespace mq
