// flowspec show flowspec ipv4|ipv6 ...: the agent's flowspec route table in rule order, one
// rule, or what a neighbor was sent for a rule; streamed from the agent as it renders them.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "tools/flowspec/Subcommand.h"

namespace FlowspecTool {

void addShowFlowspecCommand(CLI::App& show, Options& options);

// Reads a streamed answer (agent/ShowTables.h) piece by piece: the status line decides;
// on status 0 the rest goes to `out` as it comes, otherwise the error goes to `err`.
class StreamedAnswerPrinter {
 public:
   StreamedAnswerPrinter(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}
   void data(std::string_view piece);
   // The tool's exit status once the answer is complete.
   int finish();

 private:
   std::ostream& out_;
   std::ostream& err_;
   std::string head_;
   bool headDone_ = false;
   int status_ = 0;
};

} // namespace FlowspecTool
