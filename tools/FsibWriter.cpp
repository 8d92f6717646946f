// fsib-writer: puts rules into the FSIB from a process of its own, as the flowspec export
// does, so that `flowspec fsib --watch` (or any other reader) can be tried without an agent.
//
//   fsib-writer --rule 'TEXT [=> ACTIONS]' [--rule ...]
//                                              add these rules, leave them, exit; ACTIONS
//                                              are words as Flowspec::ruleActionsFromText
//                                              reads them ("police=1000 terminal"), drop
//                                              when none; "v6:" before TEXT makes a rule
//                                              without prefixes IPv6 (else IPv4)
//   fsib-writer --keep --delete 'TEXT' ...     delete these rules
//   fsib-writer --rules N --burst              program N generated rules at once, say how long
//   fsib-writer --rules N [--steps S]          add, change and delete generated rules one at a
//                                              time, every --interval-ms, S steps (0: forever)
//
// Like the export, it mounts the FSIB through the entity manager and deletes every rule first
// (unless --keep). On exit it unmounts; the rules stay for the readers.
#include <CLI/CLI.hpp>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "fs/Version.h"
#include "host/flowspec/RuleSet.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace {

using Flowspec::Rule;

// Generated rule `i`: TCP to 10.x.y.0/24 on a port, with actions that vary with `variant`.
Rule generatedRule(std::uint32_t i, std::uint32_t variant) {
   std::string const text = "10." + std::to_string((i >> 8) & 0xff) + "." + std::to_string(i & 0xff) +
                            ".0/24;*;protocol =6;destination-port =" + std::to_string(1000 + (i >> 16)) + ";";
   Flowspec::FlowspecKey key;
   key.afIs(Ovnet::AddressFamily::ipv4);
   (void)key.copyInStrCli(text);
   Rule r;
   r.key.copyInFlowspecKey(key);
   r.ruleId = i;
   switch (variant % 4) {
   case 0: r.actions.set(Flowspec::actionDrop); break;
   case 1:
      r.actions.set(Flowspec::actionPolice);
      r.rate = 1000.0f * static_cast<float>(1 + variant % 100);
      break;
   case 2:
      r.actions.set(Flowspec::actionRedirect);
      r.trafficRedirect.vrfId = 1 + variant % 7;
      r.trafficRedirect.address = Ovnet::IpGenAddr::ipv4(0xc0000201u);
      break;
   default:
      r.actions.set(Flowspec::actionSetDscp);
      r.dscp = static_cast<std::uint8_t>(variant & 0x3f);
      break;
   }
   return r;
}

// A key from rule text; "v6:" first makes it IPv6, else the prefixes or IPv4 decide.
bool keyFromText(std::string text, Flowspec::FlowspecKey& key) {
   if (text.starts_with("v6:")) {
      key.afIs(Ovnet::AddressFamily::ipv6);
      text = text.substr(3);
   }
   if (!key.copyInStrCli(text)) return false;
   if (key.af() == Ovnet::AddressFamily::unspecified) key.afIs(Ovnet::AddressFamily::ipv4);
   return true;
}

void report(char const* what, Rule const& r, Flowspec::RuleIsResult result) {
   std::cout << what << ' ' << r.key.toStrepCli() << " -> " << toStrep(result) << '\n' << std::flush;
}

} // namespace

int main(int argc, char** argv) {
   CLI::App app{"fsib-writer: put rules into the FSIB from another process"};
   std::string prefix = Mnemo::defaultSlatePrefix;
   std::vector<std::string> texts;
   std::vector<std::string> deletes;
   std::uint32_t rules = 16;
   std::uint64_t steps = 0;
   unsigned intervalMs = 500;
   bool burst = false;
   bool keep = false;
   app.add_option("--prefix", prefix, "segment prefix")->capture_default_str();
   app.set_version_flag("--version", std::string("fsib-writer ") + Fs::kVersionText);
   app.add_option("--rule", texts, "a rule in the rule text form, then optionally \"=> ACTIONS\" (default drop)");
   app.add_option("--delete", deletes, "a rule to delete, in the rule text form");
   app.add_option("--rules", rules, "how many generated rules")->capture_default_str()->check(CLI::Range(1u, 1u << 20));
   app.add_flag("--burst", burst, "program the generated rules at once and report the time");
   app.add_option("--steps", steps, "changes to make one at a time (0: forever)")->capture_default_str();
   app.add_option("--interval-ms", intervalMs, "pause between changes")->capture_default_str();
   app.add_flag("--keep", keep, "keep the rules already there");
   CLI11_PARSE(app, argc, argv);

   Mnemo::EntityManager em(prefix);
   Mnemo::MountStatus const status = Mnemo::mountFsib(em);
   auto fsib = Mnemo::fsibOf(em);
   if (!fsib) {
      std::cerr << "fsib-writer: cannot mount the FSIB under prefix " << prefix << ": " << toStrep(status)
                << " (another writer running?)\n";
      return 1;
   }
   std::cout << "writing " << *em.segmentName(Mnemo::fsibPath) << '\n';
   if (!keep) fsib->ruleDelAll();
   int rc = 0;
   for (std::string const& text : deletes) {
      Flowspec::FlowspecKey key;
      Flowspec::FlowspecSlateKey slate;
      if (!keyFromText(text, key)) {
         std::cerr << "fsib-writer: not a rule: " << text << '\n';
         rc = 1;
         continue;
      }
      slate.copyInFlowspecKey(key);
      std::cout << "delete " << slate.toStrepCli() << (fsib->ruleDel(slate) ? "" : " (not there)") << '\n'
                << std::flush;
   }
   if (!texts.empty()) {
      for (std::uint32_t i = 0; i < texts.size(); ++i) {
         Flowspec::FlowspecKey key;
         std::size_t const arrow = texts[i].find("=>");
         std::string const actions = arrow == std::string::npos ? std::string() : texts[i].substr(arrow + 2);
         if (!keyFromText(texts[i].substr(0, arrow), key)) {
            std::cerr << "fsib-writer: not a rule: " << texts[i] << '\n';
            rc = 1;
            continue;
         }
         Rule r;
         r.key.copyInFlowspecKey(key);
         r.ruleId = i + 1;
         std::string why;
         if (!Flowspec::ruleActionsFromText(actions, r, &why)) {
            std::cerr << "fsib-writer: " << texts[i] << ": " << why << '\n';
            rc = 1;
            continue;
         }
         report("add", r, fsib->ruleIs(r));
      }
   } else if (!deletes.empty()) {
      // Only deletions.
   } else if (burst) {
      std::vector<Rule> all;
      all.reserve(rules);
      for (std::uint32_t i = 0; i < rules; ++i) all.push_back(generatedRule(i, i));
      auto const start = std::chrono::steady_clock::now();
      std::uint32_t refused = 0;
      for (auto const& r : all) refused += fsib->ruleIs(r) == Flowspec::RuleIsResult::refusedFull ? 1u : 0u;
      auto const us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
      std::cout << "programmed " << rules - refused << " rules (" << refused << " refused) in "
                << static_cast<double>(us.count()) / 1000.0 << " ms\n";
   } else {
      // Fill up one rule per step, then change and delete at random, one rule per step.
      std::uint32_t state = 12345;
      auto const next = [&state] { return state = state * 1103515245u + 12345u; };
      for (std::uint64_t step = 0; steps == 0 || step < steps; ++step) {
         if (step < rules) {
            Rule const r = generatedRule(static_cast<std::uint32_t>(step), static_cast<std::uint32_t>(step));
            report("add", r, fsib->ruleIs(r));
         } else {
            std::uint32_t const i = (next() >> 8) % rules;
            Rule const r = generatedRule(i, next() >> 8);
            if ((next() >> 8) % 4 == 0 && fsib->ruleDel(r.key)) {
               std::cout << "delete " << r.key.toStrepCli() << '\n' << std::flush;
            } else {
               report("set", r, fsib->ruleIs(r));
            }
         }
         std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
      }
   }
   Mnemo::unmountFsib(em);
   return rc;
}
