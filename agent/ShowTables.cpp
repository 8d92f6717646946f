#include "agent/ShowTables.h"
#include "host/fwk/JsonText.h"

#include <nlohmann/json.hpp>

#include "host/bgp/BgpMessage.h"
#include "host/flowspec/FlowspecKey.h"
#include "host/ovrow/BgpRows.h"
#include "host/ovrow/Render.h"
#include "host/plugin/OvrowPlugin.h"

namespace Flowspecd {

using namespace Routing::Bgp;

namespace {

std::string statusLine(int status, std::string const& error = {}) {
   nlohmann::json j{{"status", status}};
   if (status != 0) j["error"] = error;
   return Ovk::jsonText(j) + "\n";
}

// An answer that is only its status line.
class FailureStream : public ControlStream {
 public:
   FailureStream(int status, std::string error) : line_(statusLine(status, error)) {}
   bool next(std::string& out) override {
      out += line_;
      return false;
   }

 private:
   std::string line_;
};

std::unique_ptr<ControlStream> failure(int status, std::string error) {
   return std::make_unique<FailureStream>(status, std::move(error));
}

// Rows of one table, from a start, up to a limit.
class TableStream : public ControlStream {
 public:
   TableStream(Ovrow::LocalOvdb db, Ovk::Ptr<Ovrow::Table> table, std::unique_ptr<Ovrow::RowRenderer> renderer,
               std::optional<Ovrow::Row> start, std::uint64_t limit, std::size_t chunkBytes)
       : db_(std::move(db)), table_(std::move(table)), renderer_(std::move(renderer)), start_(std::move(start)),
         limit_(limit), chunkBytes_(chunkBytes) {}

   bool next(std::string& out) override {
      // The rows come from the plugin, which may refuse one (a VRF name beyond what a name
      // may hold, say): the answer ends with the reason, and the agent goes on.
      try {
         return nextRows(out);
      } catch (std::exception const& e) {
         cursor_.reset();
         if (!started_) {
            out += statusLine(1, e.what());
         } else {
            out += "\n" + statusLine(1, std::string("the walk stopped: ") + e.what());
         }
         started_ = true;
         return false;
      }
   }

 private:
   bool nextRows(std::string& out) {
      std::size_t const from = out.size();
      if (!started_) {
         started_ = true;
         out += statusLine(0);
         renderer_->begin(out);
         if (limit_ > 0) cursor_ = start_ ? table_->cursorLowerBound(*start_) : table_->cursorBegin();
         pending_ = cursor_ != nullptr;
      } else if (cursor_ && !pending_) {
         cursor_->resume();
      }
      // At least one row a chunk, however small the chunk.
      bool first = true;
      while (cursor_ && rows_ < limit_ && (first || out.size() - from < chunkBytes_)) {
         first = false;
         if (!pending_ && !cursor_->next()) {
            cursor_.reset();
            break;
         }
         pending_ = false;
         renderer_->row(cursor_->row(), out);
         ++rows_;
      }
      if (cursor_ && rows_ < limit_) return true;
      cursor_.reset();
      renderer_->end(out);
      return false;
   }

   Ovrow::LocalOvdb db_;
   Ovk::Ptr<Ovrow::Table> table_;
   std::unique_ptr<Ovrow::RowRenderer> renderer_;
   std::optional<Ovrow::Row> start_;
   std::uint64_t limit_;
   std::size_t chunkBytes_;
   bool started_ = false;
   // The cursor stands on a row not yet rendered (the first one of the walk).
   bool pending_ = false;
   std::unique_ptr<Ovrow::Cursor> cursor_;
   std::uint64_t rows_ = 0;
};

// One row, already found.
class RowStream : public ControlStream {
 public:
   RowStream(Ovrow::Row row, std::unique_ptr<Ovrow::RowRenderer> renderer)
       : row_(std::move(row)), renderer_(std::move(renderer)) {}
   bool next(std::string& out) override {
      out += statusLine(0);
      renderer_->begin(out);
      renderer_->row(row_, out);
      renderer_->end(out);
      return false;
   }

 private:
   Ovrow::Row row_;
   std::unique_ptr<Ovrow::RowRenderer> renderer_;
};

// The grammar's complaint about `text` as a rule of `family`; empty when it parses.
std::string ruleTextError(std::string const& text, AfiSafi family) {
   Flowspec::FlowspecKey key;
   key.afIs(family.afi() == Afi::afiIpv4 ? Ovnet::AddressFamily::ipv4 : Ovnet::AddressFamily::ipv6);
   std::string why;
   if (key.copyInStrCli(text, &why)) return {};
   return "bad rule \"" + text + "\": " + (why.empty() ? std::string("does not parse") : why);
}

std::string stringField(nlohmann::json const& j, char const* name) {
   auto const it = j.find(name);
   return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::unique_ptr<ControlStream> showStream(Ovk::Ptr<Plugin::Context> const& context, std::string_view request,
                                          std::function<bool(Ovnet::IpGenAddr const&)> const& knownNeighbor,
                                          std::size_t chunkBytes);

} // namespace

nlohmann::json summaryLabelsJson(Plugin::Context const& context) {
   nlohmann::json labels = nlohmann::json::object();
   for (auto const& [family, helpers] : context.afiSafiTable()->all()) {
      auto const show = helpers->hookAs<Plugin::ShowPluginBase>(Plugin::HookId::show);
      if (!show) continue;
      labels[familyName(family)] = {{"received", show->rcvdSummaryStr()}, {"accepted", show->accSummaryStr()}};
   }
   return labels;
}

bool isShowTableRequest(std::string_view request) {
   if (request.empty() || request.front() != '{') return false;
   auto const j = nlohmann::json::parse(request, nullptr, false);
   if (!j.is_object()) return false;
   std::string const show = stringField(j, "show");
   return show == "flowspec" || show == "flowspec-rule" || show == "flowspec-advertised";
}

std::unique_ptr<ControlStream> showTableStream(Ovk::Ptr<Plugin::Context> const& context, std::string_view request,
                                               std::function<bool(Ovnet::IpGenAddr const&)> const& knownNeighbor,
                                               std::size_t chunkBytes) {
   // A lookup reads a row from the plugin, which may refuse it: the answer says why.
   try {
      return showStream(context, request, knownNeighbor, chunkBytes);
   } catch (std::exception const& e) {
      return failure(1, e.what());
   }
}

namespace {

std::unique_ptr<ControlStream> showStream(Ovk::Ptr<Plugin::Context> const& context, std::string_view request,
                                          std::function<bool(Ovnet::IpGenAddr const&)> const& knownNeighbor,
                                          std::size_t chunkBytes) {
   auto const j = nlohmann::json::parse(request, nullptr, false);
   if (!j.is_object()) return failure(2, "the request is not a JSON object");
   std::string const show = stringField(j, "show");
   std::string const familyText = stringField(j, "family");
   AfiSafi family;
   if (familyText == "ipv4") {
      family = AfiSafi::ipv4Flowspec();
   } else if (familyText == "ipv6") {
      family = AfiSafi::ipv6Flowspec();
   } else {
      return failure(2, "unknown family \"" + familyText + "\" (ipv4 or ipv6)");
   }
   bool const json = stringField(j, "format") == "json";

   // The command's row database, with the tables the family's plugin registers (hook 18).
   auto db = Ovk::makePtr<Ovrow::Ovdb>();
   Ovrow::Bgp::registerBgpRowTypes(*db);
   Ovrow::LocalOvdb local(db);
   auto const helpers = context->afiSafiTable()->helpers(family);
   auto const hook = helpers ? helpers->hookAs<Plugin::OvrowPluginBase>(Plugin::HookId::ovrow) : nullptr;
   if (!hook) return failure(1, "no plugin serves " + familyText + " flowspec");
   hook->registerOvrowTables(Ovk::makePtr<Plugin::ShowCmdContext>(context, family), &local);
   bool const v4 = family == AfiSafi::ipv4Flowspec();
   std::string const routePath = v4 ? "ov/Bgp/bgpFlowspecIpv4Route" : "ov/Bgp/bgpFlowspecIpv6Route";
   std::string const egressPath = v4 ? "ov/Bgp/bgpFlowspecIpv4PeerEgress" : "ov/Bgp/bgpFlowspecIpv6PeerEgress";

   auto renderer = [json](Ovk::Ptr<Ovrow::RowType const> const& type,
                          char const* name) -> std::unique_ptr<Ovrow::RowRenderer> {
      if (json) return std::make_unique<Ovrow::JsonRenderer>(name);
      return std::make_unique<Ovrow::TextRenderer>(type);
   };

   if (show == "flowspec") {
      auto table = db->table(routePath);
      if (!table) return failure(1, "no route table for " + familyText + " flowspec");
      std::optional<Ovrow::Row> start;
      std::string const from = stringField(j, "from");
      std::string const dest = stringField(j, "dest");
      if (!from.empty()) {
         if (auto why = ruleTextError(from, family); !why.empty()) return failure(1, why);
         start.emplace(table->rowType());
         start->columnIs("rule", from);
      } else if (!dest.empty()) {
         auto const prefix = Ovnet::IpGenPrefix::parse(dest);
         if (!prefix || (prefix->af() == Ovnet::AddressFamily::ipv4) != v4) {
            return failure(2, "bad destination prefix \"" + dest + "\" for " + familyText);
         }
         start.emplace(table->rowType());
         start->columnIs("destPrefix", *prefix);
      }
      std::uint64_t limit = UINT64_MAX;
      if (auto it = j.find("limit"); it != j.end()) {
         if (!it->is_number_unsigned()) return failure(2, "limit must be a whole number of rules, 0 or more");
         limit = it->get<std::uint64_t>();
      }
      return std::make_unique<TableStream>(std::move(local), table, renderer(table->rowType(), "rules"),
                                           std::move(start), limit, chunkBytes);
   }

   std::string const rule = stringField(j, "rule");
   if (auto why = ruleTextError(rule, family); !why.empty()) return failure(1, why);

   if (show == "flowspec-rule") {
      auto table = db->table(routePath);
      if (!table) return failure(1, "no route table for " + familyText + " flowspec");
      Ovrow::Row row(table->rowType());
      row.columnIs("rule", rule);
      if (!table->lookup(row)) return failure(1, "no rule " + rule + " in the " + familyText + " flowspec table");
      return std::make_unique<RowStream>(std::move(row), renderer(table->rowType(), "rules"));
   }

   if (show == "flowspec-advertised") {
      std::string const neighbor = stringField(j, "neighbor");
      auto const address = Ovnet::IpGenAddr::parse(neighbor);
      if (!address || !knownNeighbor(*address)) return failure(2, "unknown neighbor " + neighbor);
      auto table = db->table(egressPath);
      if (!table) return failure(1, "no peer egress table for " + familyText + " flowspec");
      // Tell apart what the lookup alone cannot: the rule not held, from the rule not sent.
      Ovrow::Row held(db->table(routePath)->rowType());
      held.columnIs("rule", rule);
      if (!db->table(routePath)->lookup(held)) {
         return failure(1, "no rule " + rule + " in the " + familyText + " flowspec table");
      }
      Ovrow::Row row(table->rowType());
      row.columnIs("peer", address->str());
      row.columnIs("rule", *held.get<std::string>("rule")); // the rule as held, however it was typed
      if (!table->lookup(row)) {
         return failure(1, "rule " + *held.get<std::string>("rule") + " is not advertised to " + neighbor);
      }
      return std::make_unique<RowStream>(std::move(row), renderer(table->rowType(), "advertised"));
   }
   return failure(2, "unknown show \"" + show + "\"");
}

} // namespace

} // namespace Flowspecd
