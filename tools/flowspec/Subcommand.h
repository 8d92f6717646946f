// The `flowspec` tool's subcommands.
//
// Each subcommand lives in its own source file and registers itself there with one
// namespace-scope object:
//
//   const FlowspecTool::SubcommandRegistration registration{"show", addShowCommand};
//
// where addShowCommand(app, options) adds its CLI11 subcommand to `app` and, in that
// subcommand's callback, sets options.run to what the command does. Adding a subcommand is
// one new source file and its line in tools/flowspec/CMakeLists.txt.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace FlowspecTool {

// What every subcommand may use, and what it chose to run.
struct Options {
   std::string socketPath; // --socket
   // Set by the chosen subcommand; returns the exit status.
   std::function<int()> run;
};

using AddSubcommand = void (*)(CLI::App& app, Options& options);

struct SubcommandRegistration {
   SubcommandRegistration(char const* name, AddSubcommand add);
};

struct RegisteredSubcommand {
   char const* name;
   AddSubcommand add;
};
// Every registered subcommand, sorted by name.
std::vector<RegisteredSubcommand> registeredSubcommands();

} // namespace FlowspecTool
