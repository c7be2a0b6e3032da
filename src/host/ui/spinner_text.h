// The text of an edit field linked to a spinner, shown and typed, shared by
// every user interface so that fields read alike everywhere.
#pragma once

#include "host/paramblock.h"
#include "host/units.h"

#include <optional>
#include <string>
#include <string_view>

namespace mq::ui {

// Whole numbers as "%d", others as "%g"; world values carry the unit's name
// ("12.5cm") unless the unit is generic.
std::string formatSpinnerText(double value, EditSpinnerType type, SceneUnit unit);

// The value typed, in unit: a number, and for world fields in a scene with a
// unit, optionally any unit's name after it ("1in", "12.5 cm"), converted
// to unit. None for anything else (garbage, a unit in a generic scene or in
// a field that is no length, infinity): the field shows its value again.
// Whole-number fields take fractions; the spinner rounds them.
std::optional<double> parseSpinnerText(std::string_view text, EditSpinnerType type, SceneUnit unit);

}  // namespace mq::ui
