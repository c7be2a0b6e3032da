// `mosaiq help`: reference pages printed from what the loaded plug-ins
// declare, so the text cannot drift from the code (docs/parameters.md is the
// Markdown output of `mosaiq help params --markdown`).
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace mosaiq::cli {

struct HelpOptions {
    bool params = false;  // `help params`; bare `help` has printed its topics
    std::string name;     // `help params NAME`: that parameter only
    bool markdown = false;
};

// Adds `help params [NAME] [--markdown]` to app; returns the `help` command.
CLI::App* addHelpCommand(CLI::App& app, HelpOptions& opt);

// Prints the Mosaiq object's parameters, grouped by the panel that shows
// them, from the plug-in's parameter block description. CliError(kExitUsage)
// for an unknown NAME, with the nearest name; CliError(kExitInput) when no
// Mosaiq plug-in is loaded.
void runHelp(const HelpOptions& opt);

}  // namespace mosaiq::cli
