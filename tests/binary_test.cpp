// What a device takes for granted about the module as a binary.

#include <dlfcn.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

TEST(MethodTable, LeadsToItsHandlersInOrder) {
  const std::vector<Row> expected = ReadTable("methods.txt");
  ASSERT_EQ(TheModule().Rows().size(), expected.size());
  for (size_t at = 0; at < expected.size(); ++at) {
    const APITableEntry& row = TheModule().Rows()[at];
    const std::string name = std::to_string(expected[at][1].size()) + expected[at][1];
    Dl_info symbol{};
    dladdr(reinterpret_cast<void*>(row.handler), &symbol);
    EXPECT_EQ(MethodName(row), expected[at][0]);
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
