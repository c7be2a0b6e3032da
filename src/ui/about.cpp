#include "ui/about.h"

#include <cstdio>

namespace mosaiq {

namespace {

constexpr const char* kVersion = "1.68";

constexpr const char* kCredits =
    "Tiles a pattern mesh over the UV space of a surface at render time.\n"
    "\n"
    "Made by the Mosaiq team.\n"
    "Contact: the Mosaiq project's issue tracker.\n"
    "Developers: the Mosaiq engineers.";

class AboutDlgProc final : public mq::ui::DialogProc {
public:
    bool message(mq::ui::DialogWindow&, mq::ui::Message, int, mq::ui::Notify) override {
        return false;
    }
};

}  // namespace

std::string aboutText() {
    char head[64];
    std::snprintf(head, sizeof head, "Mosaiq %s\n\n", kVersion);
    return std::string(head) + kCredits;
}

mq::ui::DialogProc& aboutDlgProc() {
    static AboutDlgProc proc;
    return proc;
}

}  // namespace mosaiq
