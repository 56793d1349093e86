// What a device takes for granted about the module as a binary.

#include <dlfcn.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

TEST(MethodTable, HoldsItsRowsInOrderAndAnEndRow) {
  void* library = dlopen(MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto entry = reinterpret_cast<const APITableEntry* (*)()>(dlsym(library, "GetAPITable"));
  ASSERT_NE(entry, nullptr);
  const APITableEntry* row = entry();
  EXPECT_EQ(entry(), row);
  for (const Row& expected : ReadTable("methods.txt")) {
    ASSERT_NE(row->api, nullptr) << "before " << expected[0] << ' ' << expected[2];
    EXPECT_EQ((Row{row->api, std::to_string(row->version), row->method}), Row(expected.begin(), expected.begin() + 3));
    const std::string name = std::to_string(expected[3].size()) + expected[3];
    void* function = dlsym(library, ("_Z" + name + "PN4VEXA10APIRequestEPNS_11APIResponseE").c_str());
    EXPECT_EQ(function, reinterpret_cast<void*>(row->handler)) << name;
    ++row;
  }
  EXPECT_TRUE(row->api == nullptr && row->version == 0 && row->method == nullptr && row->handler == nullptr);
  dlclose(library);
}

using Unloading = DeskTest;

TEST_F(Unloading, ModuleThatServedCallsIsUnmappedEveryTime) {
  // A copy is a library of its own, whatever else this process has loaded.
  const std::string copy = Path("copy.so");
  std::filesystem::copy_file(MODULE_FILE, copy);
  for (int cycle = 1; cycle <= 200; ++cycle) {
    {
      const Module module(copy);
      const APIHandler status = module.Find("VEXA.Core.TunnelBridge/1/status");
      ASSERT_EQ(Call(status, Json::Value(Json::objectValue), false).Problem(), "");
    }
    ASSERT_EQ(dlopen(copy.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr) << "after " << cycle << " cycles";
  }
}

}  // namespace
}  // namespace desk
