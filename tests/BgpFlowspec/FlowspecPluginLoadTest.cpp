// Loading the plugin library registers what it registers at load, and nothing needs to call
// it first.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "host/hoard/AttributeCache.h"

namespace {

TEST(FlowspecPluginLoadTest, LoadingTheLibraryRegistersTheNexthopReaders) {
   char const* const names[] = {"Routing::Bgp::FlowspecPlugin::FlowspecGenNexthop",
                                "Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthop",
                                "Routing::Bgp::FlowspecPlugin::FlowspecNexthopSelf"};
   for (char const* name : names) EXPECT_EQ(Hoard::NameMap::instance().find(name), nullptr) << name;
   void* const library = dlopen(FS_PLUGIN_LIBRARY, RTLD_NOW | RTLD_GLOBAL);
   ASSERT_NE(library, nullptr) << dlerror();
   for (char const* name : names) {
      auto const reader = Hoard::NameMap::instance().find(name);
      ASSERT_NE(reader, nullptr) << name;
      EXPECT_EQ(reader->typeName(), name);
   }
   // The library stays loaded: its readers live in the process's map until the process ends.
}

} // namespace
