// flowspec fsib [--prefix P] [--json] [--watch]: the FSIB's rules and counters, read from
// shared memory the way a forwarding process reads them (no agent needed).
//
// Without --watch: one consistent listing (or, when the writer never pauses, a listing whose
// every rule is whole, marked "unsettled"). With --watch: the listing, then one report per
// change of the generation or the counters: the rules added ("+"), deleted ("-") and changed
// ("~"), and the counters; with --json each report is one JSON object on one line.
#include <charconv>
#include "host/fwk/JsonText.h"
#include <chrono>
#include <iomanip>
#include <iostream>
#include <algorithm>
#include <unordered_map>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/mnemo/SlateRuleSetMount.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tools/flowspec/Subcommand.h"

namespace {

using Flowspec::Rule;
using Mnemo::SlateRuleSetReader;
using Mnemo::SlateSnapshot;

struct FsibOptions {
   std::string prefix = Mnemo::defaultSlatePrefix;
   bool json = false;
   bool watch = false;
   unsigned intervalMs = 100;
   std::uint64_t maxReports = 0; // --watch stops after this many reports; 0: never
};

std::string floatText(float f) {
   char buf[32];
   auto const r = std::to_chars(buf, buf + sizeof buf, f);
   return std::string(buf, r.ptr);
}

std::string hexText(std::uint32_t v) {
   std::ostringstream os;
   os << "0x" << std::hex << v;
   return os.str();
}

std::string redirectText(Flowspec::TrafficRedirect const& r) {
   std::string vrf = r.vrfId == Flowspec::TrafficRedirect::noVrfId ? "-" : std::to_string(r.vrfId);
   std::string address = r.address.isUnspecified() ? "-" : r.address.str();
   return "vrf " + vrf + " address " + address + " copy " + (r.copy ? "true" : "false");
}

// Two lines: the key in the rule text form, then the actions.
void printRule(std::ostream& os, char mark, Rule const& r) {
   os << mark << ' ' << r.key.toStrepCli() << "\n    ruleId " << r.ruleId << "  actions " << r.actions.str()
      << "  rate " << floatText(r.rate) << "  trafficAction " << hexText(r.trafficAction) << "  redirect "
      << redirectText(r.trafficRedirect) << "  dscp " << unsigned{r.dscp} << '\n';
}

nlohmann::json ruleJson(Rule const& r) {
   nlohmann::json address = nullptr;
   if (!r.trafficRedirect.address.isUnspecified()) address = r.trafficRedirect.address.str();
   return {{"key", r.key.toStrepCli()},
           {"ruleId", r.ruleId},
           {"actions", r.actions.str()},
           {"actionBits", r.actions.value()},
           {"rate", r.rate},
           {"trafficAction", r.trafficAction},
           {"redirect", {{"vrfId", r.trafficRedirect.vrfId}, {"address", address}, {"copy", r.trafficRedirect.copy}}},
           {"dscp", r.dscp},
           {"reserved", r.reserved}};
}

nlohmann::json countersJson(Mnemo::SlateCounters const& c) {
   return {{"adds", c.adds},         {"replaces", c.replaces},
           {"deletes", c.deletes},   {"deleteAlls", c.deleteAlls},
           {"refusals", c.refusals}, {"writerAttaches", c.writerAttaches}};
}

std::string writerText(SlateRuleSetReader const& rd) {
   std::uint32_t const pid = rd.writerPid();
   if (pid == 0) return "none";
   return std::to_string(pid) + (rd.writerAlive() ? " (running)" : " (gone)");
}

void printHeader(std::ostream& os, SlateRuleSetReader const& rd, SlateSnapshot const& s) {
   auto const& c = s.counters;
   os << "FSIB " << rd.segmentName() << "  format " << rd.formatVersion() << "  generation " << s.generation
      << "  rules " << s.rules.size() << "/" << rd.capacity() << "  writer " << writerText(rd);
   if (s.status != Mnemo::SnapshotStatus::consistent) os << "  (" << toStrep(s.status) << ")";
   if (!s.converged) os << "  rebuilding: its writer restarted and has not converged";
   os << "\ncounters  adds " << c.adds << "  replaces " << c.replaces << "  deletes " << c.deletes << "  delete-alls "
      << c.deleteAlls << "  refusals " << c.refusals << "  writer-attaches " << c.writerAttaches << '\n';
}

nlohmann::json listingJson(SlateRuleSetReader const& rd, SlateSnapshot const& s) {
   nlohmann::json rules = nlohmann::json::array();
   for (auto const& r : s.rules) rules.push_back(ruleJson(r));
   std::uint32_t const pid = rd.writerPid();
   return {{"segment", rd.segmentName()},
           {"formatVersion", rd.formatVersion()},
           {"capacity", rd.capacity()},
           {"generation", s.generation},
           {"status", toStrep(s.status)},
           {"converged", s.converged},
           {"writerPid", pid},
           {"writerAlive", pid != 0 && rd.writerAlive()},
           {"counters", countersJson(s.counters)},
           {"rules", rules}};
}

void printListing(FsibOptions const& o, SlateRuleSetReader const& rd, SlateSnapshot const& s) {
   if (o.json) {
      std::cout << (o.watch ? Ovk::jsonText(listingJson(rd, s)) : Ovk::jsonText(listingJson(rd, s), 2)) << std::endl;
      return;
   }
   printHeader(std::cout, rd, s);
   for (auto const& r : s.rules) printRule(std::cout, ' ', r);
   std::cout << std::flush;
}

// Hashed, not ordered: ordering a full table by rule precedence costs tens of milliseconds,
// so a report orders only what changed.
using RuleMap = std::unordered_map<Flowspec::FlowspecSlateKey, Rule>;

RuleMap byKey(SlateSnapshot const& s) {
   RuleMap m;
   for (auto const& r : s.rules) m.emplace(r.key, r);
   return m;
}

// One report of what changed from `before` to `after`.
void printChanges(FsibOptions const& o, SlateRuleSetReader const& rd, RuleMap const& before,
                  SlateSnapshot const& after) {
   RuleMap const now = byKey(after);
   std::vector<Rule const*> added, changed;
   std::vector<Rule const*> deleted;
   for (auto const& [key, rule] : now) {
      auto it = before.find(key);
      if (it == before.end()) {
         added.push_back(&rule);
      } else if (!(it->second == rule)) {
         changed.push_back(&rule);
      }
   }
   for (auto const& [key, rule] : before) {
      if (!now.contains(key)) deleted.push_back(&rule);
   }
   for (auto* list : {&added, &changed, &deleted}) {
      std::sort(list->begin(), list->end(), [](Rule const* a, Rule const* b) { return a->key < b->key; });
   }
   if (o.json) {
      nlohmann::json j = {{"generation", after.generation},
                          {"status", toStrep(after.status)},
                          {"ruleCount", after.rules.size()},
                          {"counters", countersJson(after.counters)}};
      for (auto const& [name, list] : {std::pair{"added", &added}, {"changed", &changed}}) {
         nlohmann::json rules = nlohmann::json::array();
         for (Rule const* r : *list) rules.push_back(ruleJson(*r));
         j[name] = rules;
      }
      nlohmann::json gone = nlohmann::json::array();
      for (Rule const* r : deleted) gone.push_back(r->key.toStrepCli());
      j["deleted"] = gone;
      std::cout << Ovk::jsonText(j) << std::endl;
      return;
   }
   std::cout << "-- generation " << after.generation << "  rules " << after.rules.size() << "/" << rd.capacity();
   if (after.status != Mnemo::SnapshotStatus::consistent) std::cout << "  (" << toStrep(after.status) << ")";
   auto const& c = after.counters;
   std::cout << "  adds " << c.adds << "  replaces " << c.replaces << "  deletes " << c.deletes << "  delete-alls "
             << c.deleteAlls << "  refusals " << c.refusals << '\n';
   for (Rule const* r : added) printRule(std::cout, '+', *r);
   for (Rule const* r : changed) printRule(std::cout, '~', *r);
   for (Rule const* r : deleted) std::cout << "- " << r->key.toStrepCli() << '\n';
   std::cout << std::flush;
}

std::optional<SlateRuleSetReader> openFsib(std::string const& name, bool quiet) {
   auto rd = SlateRuleSetReader::open(name);
   if (rd) return std::move(rd.value());
   if (!quiet) {
      std::cerr << "flowspec: cannot read the FSIB " << name << ": "
                << (rd.reason() == Mnemo::SlateError::noSegment
                        ? "no such segment (is the agent running with this prefix?)"
                        : toStrep(rd.reason()))
                << '\n';
   }
   return std::nullopt;
}

int runFsib(FsibOptions const& o) {
   auto const name = Mnemo::slateSegmentName(o.prefix, Mnemo::fsibPath);
   if (!name) {
      std::cerr << "flowspec: " << o.prefix << " cannot prefix a segment name (letters, digits, '-' and '_')\n";
      return 2;
   }
   std::optional<SlateRuleSetReader> rd = openFsib(*name, o.watch);
   if (!rd && !o.watch) return 1;
   if (!o.watch) {
      printListing(o, *rd, rd->snapshot());
      return 0;
   }
   // Watch: wait for the segment if it is not there yet, list it, then report changes.
   while (!rd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(o.intervalMs));
      rd = openFsib(*name, true);
   }
   SlateSnapshot last = rd->snapshot();
   printListing(o, *rd, last);
   RuleMap lastRules = byKey(last);
   for (std::uint64_t reports = 0; o.maxReports == 0 || reports < o.maxReports;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(o.intervalMs));
      if (rd->retired()) {
         // A writer replaced the segment; follow it.
         if (auto fresh = openFsib(*name, true)) rd = std::move(fresh);
      }
      if (rd->generation() == last.generation && rd->counters() == last.counters) continue;
      SlateSnapshot now = rd->snapshot(100, Mnemo::SnapshotOrder::slotOrder);
      printChanges(o, *rd, lastRules, now);
      lastRules = byKey(now);
      last = std::move(now);
      ++reports;
   }
   return 0;
}

void addFsibCommand(CLI::App& app, FlowspecTool::Options& options) {
   auto o = std::make_shared<FsibOptions>();
   CLI::App* cmd = app.add_subcommand("fsib", "list the FSIB's rules and counters from shared memory");
   cmd->add_option("--prefix", o->prefix, "the segment prefix the writer uses")->capture_default_str();
   cmd->add_flag("--json", o->json, "JSON instead of text");
   cmd->add_flag("--watch", o->watch, "keep reporting changes as the generation moves");
   cmd->add_option("--interval-ms", o->intervalMs, "with --watch: how often to look, in milliseconds")
       ->capture_default_str()
       ->check(CLI::Range(1u, 60000u));
   cmd->add_option("--max-reports", o->maxReports, "with --watch: stop after this many reports (0: never)");
   cmd->callback([o, &options] { options.run = [o] { return runFsib(*o); }; });
}

FlowspecTool::SubcommandRegistration const registration{"fsib", addFsibCommand};

} // namespace
