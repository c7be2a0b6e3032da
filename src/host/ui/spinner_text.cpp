#include "host/ui/spinner_text.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace mq::ui {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

}  // namespace

std::string formatSpinnerText(double value, EditSpinnerType type, SceneUnit unit) {
    char text[48];
    if (type == EDITTYPE_INT)
        std::snprintf(text, sizeof text, "%d", int(value));
    else
        std::snprintf(text, sizeof text, "%g", value);
    if (type == EDITTYPE_UNIVERSE && unit != SceneUnit::Generic)
        return text + std::string(unitName(unit));
    return text;
}

std::optional<double> parseSpinnerText(std::string_view text, EditSpinnerType type,
                                       SceneUnit unit) {
    const std::string number(trimmed(text));
    char* end = nullptr;
    const double value = std::strtod(number.c_str(), &end);
    if (end == number.c_str() || !std::isfinite(value)) return std::nullopt;
    const std::string_view suffix = trimmed(std::string_view(end));
    if (suffix.empty()) return value;
    // A unit converts a length into the scene's unit; a generic scene has none to convert to.
    if (type != EDITTYPE_UNIVERSE || unit == SceneUnit::Generic) return std::nullopt;
    const std::optional<SceneUnit> typed = unitFromName(suffix);
    if (!typed || *typed == SceneUnit::Generic) return std::nullopt;
    const double converted = value * metersPerUnit(*typed) / metersPerUnit(unit);
    if (!std::isfinite(converted)) return std::nullopt;
    return converted;
}

}  // namespace mq::ui
