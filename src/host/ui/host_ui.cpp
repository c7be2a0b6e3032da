#include "host/ui/host_ui.h"

#include <map>

namespace mq::ui {

namespace {

std::map<std::string, ViewClass*>& viewClasses() {
    static std::map<std::string, ViewClass*> classes;
    return classes;
}

}  // namespace

const ControlTemplate* DialogTemplate::find(int controlId) const {
    for (const ControlTemplate& c : controls)
        if (c.id == controlId) return &c;
    return nullptr;
}

void registerViewClass(const std::string& name, ViewClass* viewClass) {
    viewClasses()[name] = viewClass;
}

void unregisterViewClass(const std::string& name) { viewClasses().erase(name); }

ViewClass* findViewClass(const std::string& name) {
    const auto it = viewClasses().find(name);
    return it == viewClasses().end() ? nullptr : it->second;
}

}  // namespace mq::ui
