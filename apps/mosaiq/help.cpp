#include "help.h"

#include "cli.h"
#include "host/classdesc.h"
#include "host/paramblock.h"
#include "host/plugins.h"
#include "host/suggest.h"

#include <dlfcn.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <sstream>
#include <vector>

namespace mosaiq::cli {

namespace {

constexpr const char* kMosaiqClass = "PatternPattern";

// One parameter and the panel (rollout) that shows it.
struct Entry {
    const mq::ParamDef* def;
    std::string panel;
};

// Panels come with the control bindings, which a plug-in attaches only when
// a user interface is up. The plug-in's exported InitParamBlockUI attaches
// them without one: it only records which control shows which parameter.
void bindControls(mq::ClassDesc& cd) {
    for (const mq::PluginLibrary& lib : mq::pluginManager().libraries()) {
        if (std::find(lib.classes.begin(), lib.classes.end(), &cd) == lib.classes.end()) continue;
        using InitUIFn = void (*)(mq::ParamBlockDesc*);
        auto init = reinterpret_cast<InitUIFn>(dlsym(lib.handle, "InitParamBlockUI"));
        if (!init) return;
        for (int i = 0; i < cd.NumParamBlockDescs(); ++i) init(cd.GetParamBlockDesc(i));
    }
}

// Every parameter of the class, panel by panel in the blocks' map order,
// then those without a control.
std::vector<Entry> collect(mq::ClassDesc& cd) {
    std::vector<Entry> out;
    for (int b = 0; b < cd.NumParamBlockDescs(); ++b) {
        const mq::ParamBlockDesc& block = *cd.GetParamBlockDesc(b);
        for (const mq::RolloutMap& map : block.maps) {
            const char* title = cd.GetRsrcString(map.titleStringId);
            const std::string panel =
                title && *title ? title : "Panel " + std::to_string(map.id + 1);
            for (const mq::ParamDef& def : block.params())
                if (def.ui && def.ui->map == map.id) out.push_back({&def, panel});
        }
        for (const mq::ParamDef& def : block.params())
            if (!def.ui) out.push_back({&def, "Without a control"});
    }
    return out;
}

// "3 × world" for tables.
std::string typeText(const mq::ParamDef& def) {
    const std::string name = mq::typeName(def.type);
    return def.isTable() ? std::to_string(def.tableSize) + " × " + name : name;
}

std::string valueText(const mq::ParamValue& v) {
    if (auto* s = std::get_if<std::string>(&v); s && s->empty()) return "empty";
    if (auto* m = std::get_if<mq::Matrix3>(&v); m && *m == mq::Matrix3()) return "identity";
    return mq::formatParamValue(v);
}

std::string defaultText(const mq::ParamDef& def) {
    const std::string one = valueText(def.defaultValue);
    std::string out = one;
    for (int i = 1; i < def.count(); ++i) out += ", " + one;
    return out;
}

// Limits as the block stores them: single-precision floats, or whole numbers.
std::string limitText(const mq::ParamDef& def, double limit) {
    if (def.type != mq::TYPE_FLOAT && def.type != mq::TYPE_WORLD)
        return std::to_string(static_cast<int>(limit));
    // Seven digits name a float exactly enough, and keep 100000 from becoming 1e+05.
    char buf[32];
    const auto res = std::to_chars(buf, buf + sizeof buf, static_cast<float>(limit),
                                   std::chars_format::general, 7);
    return std::string(buf, res.ptr);
}

std::string rangeText(const mq::ParamDef& def) {
    if (!def.rangeMin || !def.rangeMax) return "";
    return limitText(def, *def.rangeMin) + " to " + limitText(def, *def.rangeMax);
}

// The control's labels as the panel shows them: "Crop Size / X / Y / Z".
std::string labelText(const mq::ParamDef& def) {
    if (!def.ui) return "";
    std::string out;
    std::istringstream lines(def.ui->labels);
    for (std::string line; std::getline(lines, line);) {
        const auto first = line.find_first_not_of(' ');
        if (first == std::string::npos) continue;
        line = line.substr(first);
        while (!line.empty() && (line.back() == ':' || line.back() == ' ')) line.pop_back();
        out += (out.empty() ? "" : " / ") + line;
    }
    return out;
}

// "type: world", "default: 100", ... without the parts a parameter lacks.
std::vector<std::string> facts(const mq::ParamDef& def, bool markdown) {
    // Numbers are values to type; "none", "empty", "identity" are words.
    const bool numeric = def.type == mq::TYPE_INT || def.type == mq::TYPE_BOOL ||
                         def.type == mq::TYPE_FLOAT || def.type == mq::TYPE_WORLD;
    auto code = [&](const std::string& s) { return markdown && numeric ? "`" + s + "`" : s; };
    std::vector<std::string> out = {"type: " + typeText(def), "default: " + code(defaultText(def))};
    if (const std::string range = rangeText(def); !range.empty()) out.push_back("range: " + range);
    if (!def.unit.empty()) out.push_back("unit: " + def.unit);
    if (const std::string label = labelText(def); !label.empty())
        out.push_back("label: \"" + label + "\"");
    return out;
}

// Facts joined by " · ", broken into lines between facts; maxWidth 0: one line.
std::string factsText(const std::vector<std::string>& items, size_t indent, size_t maxWidth) {
    std::string out, line;
    for (const std::string& item : items) {
        if (maxWidth && !line.empty() && indent + line.size() + 3 + item.size() > maxWidth) {
            out += std::string(indent, ' ') + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " · ") + item;
    }
    return out + std::string(indent, ' ') + line + "\n";
}

// Words of text broken into lines of at most width columns, each indented.
std::string wrap(const std::string& text, size_t indent, size_t width) {
    std::istringstream words(text);
    std::string out, line;
    for (std::string word; words >> word;) {
        if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
            out += std::string(indent, ' ') + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
    }
    if (!line.empty()) out += std::string(indent, ' ') + line + "\n";
    return out;
}

std::string plainText(std::string s) {
    s.erase(std::remove(s.begin(), s.end(), '`'), s.end());
    return s;
}

void printEntry(std::ostream& os, const Entry& e, bool markdown) {
    const mq::ParamDef& def = *e.def;
    if (markdown) {
        os << "### " << def.internalName << "\n\n"
           << factsText(facts(def, true), 0, 0) << "\n"
           << (def.description.empty() ? "(no description)" : def.description) << "\n\n";
        return;
    }
    os << "  " << def.internalName << "\n"
       << factsText(facts(def, false), 6, 80)
       << wrap(def.description.empty() ? "(no description)" : plainText(def.description), 6, 80);
}

void printAll(std::ostream& os, const std::vector<Entry>& entries, bool markdown) {
    std::string panel;
    for (const Entry& e : entries) {
        if (e.panel != panel) {
            if (markdown)
                os << "## " << e.panel << "\n\n";
            else
                os << (panel.empty() ? "" : "\n") << e.panel << "\n";
            panel = e.panel;
        }
        printEntry(os, e, markdown);
    }
}

}  // namespace

CLI::App* addHelpCommand(CLI::App& app, HelpOptions& opt) {
    CLI::App* help = app.add_subcommand("help", "Reference of the Mosaiq object");
    help->require_subcommand(0, 1);
    CLI::App* params = help->add_subcommand(
        "params", "Every parameter: internal name, type, default, range, unit, what it does");
    params->add_option("NAME", opt.name, "Show this parameter only (internal name)");
    params->add_flag("--markdown", opt.markdown, "Print Markdown, as in docs/parameters.md");
    params->callback([&opt] { opt.params = true; });
    // Bare `mosaiq help` lists the topics.
    help->callback([help, params] {
        if (!params->parsed()) std::cout << help->help();
    });
    return help;
}

void runHelp(const HelpOptions& opt) {
    if (!opt.params) return;
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName(kMosaiqClass);
    if (!cd || cd->NumParamBlockDescs() == 0) {
        throw CliError(kExitInput, "help needs the Mosaiq plug-in, and none was loaded from " +
                                       mq::PluginManager::defaultFolder().string());
    }
    bindControls(*cd);
    const std::vector<Entry> entries = collect(*cd);
    if (opt.name.empty()) {
        printAll(std::cout, entries, opt.markdown);
        return;
    }
    std::vector<std::string> names;
    for (const Entry& e : entries) {
        if (e.def->internalName == opt.name) {
            printEntry(std::cout, e, opt.markdown);
            return;
        }
        names.push_back(e.def->internalName);
    }
    throw CliError(kExitUsage, "the Mosaiq object has no parameter \"" + opt.name + "\"" +
                                   mq::didYouMean(opt.name, names) +
                                   "; 'mosaiq help params' lists them all");
}

}  // namespace mosaiq::cli
