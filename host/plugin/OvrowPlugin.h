// The show tables' side of the plugin interface: the context a show command runs in, and
// hook 18, by which a family's plugin registers the row tables that serve the command.
#pragma once

#include "host/ovrow/Table.h"
#include "host/plugin/Plugin.h"

namespace Routing::Bgp::Plugin {

// One show command: the agent's context and the family the command asks about.
class ShowCmdContext : public Ovk::PtrInterface {
 public:
   ShowCmdContext(Ovk::Ptr<Context> context, AfiSafi afiSafi) : context_(std::move(context)), afiSafi_(afiSafi) {}
   Context& context() const { return *context_; }
   Ovk::Ptr<Context> const& contextPtr() const { return context_; }
   AfiSafi afiSafi() const { return afiSafi_; }

 private:
   Ovk::Ptr<Context> context_;
   AfiSafi afiSafi_;
};

// Hook 18: registers the family's tables for a show command in its row database.
class OvrowPluginBase : public Ovk::PtrInterface {
 public:
   virtual void registerOvrowTables(Ovk::Ptr<ShowCmdContext const> const& context, Ovrow::LocalOvdb* database) = 0;

 protected:
   ~OvrowPluginBase() override = default;
};

} // namespace Routing::Bgp::Plugin
