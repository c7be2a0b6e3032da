#include "host/ui/host_ui.h"

#include <map>

namespace mq::ui {

namespace {

// Never destroyed: a plug-in unregisters its classes from its unload
// destructor, which at process exit runs after this library's statics are gone.
std::map<std::string, ViewClass*>& viewClasses() {
    static auto* classes = new std::map<std::string, ViewClass*>;
    return *classes;
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
