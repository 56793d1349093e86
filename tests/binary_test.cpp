// What a device takes for granted about the module as a binary.

#include <dlfcn.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

TEST(MethodTable, LeadsToItsHandlersInOrder) {
  const std::vector<APITableEntry>& rows = TheModule().Rows();
  const std::vector<Row> expected = ReadTable("methods.txt");
  ASSERT_EQ(rows.size(), expected.size());
  for (size_t at = 0; at < rows.size(); ++at) {
    const auto& [api, version, method, handler] = rows[at];
    Dl_info symbol{};
    dladdr(reinterpret_cast<void*>(handler), &symbol);
    const std::string name = std::to_string(expected[at][3].size()) + expected[at][3];
    EXPECT_EQ((Row{api, std::to_string(version), method}), Row(expected[at].begin(), expected[at].begin() + 3));
    EXPECT_STREQ(symbol.dli_sname, ("_Z" + name + "PN4VEXA10APIRequestEPNS_11APIResponseE").c_str());
  }
}

using Unloading = DeskTest;

TEST_F(Unloading, ModuleThatServedCallsIsUnmappedEveryTime) {
  // A copy is a library of its own, whatever else this process has loaded.
  const std::string copy = Path("copy.so");
  std::filesystem::copy_file(MODULE_FILE, copy);
  for (int cycle = 1; cycle <= 200; ++cycle) {
    ASSERT_EQ(Call(Module(copy).Find(FullName("1/status")), Json::objectValue, false).Problem(), "");
    ASSERT_EQ(dlopen(copy.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr) << "after " << cycle << " cycles";
  }
}

}  // namespace
}  // namespace desk
