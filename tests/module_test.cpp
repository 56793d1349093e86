// The binary: its method table.

#include <dlfcn.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

TEST(MethodTable, HoldsElevenRowsInOrderAndAnEndRow) {
  const char* rows[] = {"VEXA.Core.TunnelBridge 1 status",
                        "VEXA.Core.TunnelBridge 1 get",
                        "VEXA.Core.TunnelBridge 1 set",
                        "VEXA.Core.TunnelBridge 1 set_server_alias",
                        "VEXA.Core.TunnelBridge.Permission 1 get",
                        "VEXA.Core.TunnelBridge.Permission 1 set",
                        "VEXA.Core.TunnelBridge.Upnp 1 set",
                        "VEXA.Core.TunnelBridge.Upnp 1 get",
                        "VEXA.Core.TunnelBridge 2 get",
                        "VEXA.Core.TunnelBridge 2 set",
                        "VEXA.Core.TunnelBridge 2 set_server_alias"};
  const char* handlers[] = {"Status_v1",        "Get_v1",           "Set_v1",           "SetServerAlias_v1",
                            "GetPermission_v1", "SetPermission_v1", "SetUpnp_v1",       "GetUpnp_v1",
                            "Get_v2",           "Set_v2",           "SetServerAlias_v2"};
  void* library = dlopen(MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto entry = reinterpret_cast<const APITableEntry* (*)()>(dlsym(library, "GetAPITable"));
  ASSERT_NE(entry, nullptr);
  const APITableEntry* table = entry();
  EXPECT_EQ(entry(), table);
  for (size_t index = 0; index < std::size(rows); ++index) {
    const APITableEntry& row = table[index];
    EXPECT_EQ(row.api + (" " + std::to_string(row.version)) + " " + row.method, rows[index]);
    const std::string name = handlers[index];
    const std::string symbol = "_Z" + std::to_string(name.size()) + name + "PN4VEXA10APIRequestEPNS_11APIResponseE";
    EXPECT_EQ(dlsym(library, symbol.c_str()), reinterpret_cast<void*>(row.handler)) << name;
  }
  const APITableEntry& end = table[std::size(rows)];
  EXPECT_TRUE(end.api == nullptr && end.version == 0 && end.method == nullptr && end.handler == nullptr);
  dlclose(library);
}

}  // namespace
}  // namespace desk
