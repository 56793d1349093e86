// Every single fault: for each method and some good requests, the n-th operation of the platform or the file
// system, and the n-th allocation of memory, fails; once, and from then on; for n = 1, 2, 3 until none does.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <new>

#include "devkit/device/operation.h"
#include "tests/desk_fixture.h"

namespace {

/// Allocations of this thread until one fails; none does while it is negative.
thread_local long allocations_left = -1;
thread_local bool allocations_fail_on = false;
thread_local bool allocation_failed = false;

bool AllocationFails() {
  if (allocations_left < 0 || desk::book_keeping > 0) return false;
  if (allocations_left > 0) return --allocations_left, false;
  allocation_failed = true;
  if (!allocations_fail_on) allocations_left = -1;
  return true;
}

}  // namespace

[[gnu::noinline]] void* operator new(size_t size) {
  void* memory = AllocationFails() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// Not inlined: the compiler would take the pair of new and free for a mistake.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace desk {
namespace {

/// Whether the failure of an operation may lead to this outcome, as meanings.txt has it.
bool MayLeadTo(const std::string& operation, const std::string& outcome) {
  static const std::vector<Row> rows = ReadTable("meanings.txt");
  for (const Row& row : rows) {
    if (row[0] != operation) continue;
    const std::vector<std::string> outcomes = Parts(row[1]);
    return std::find(outcomes.begin(), outcomes.end(), outcome) != outcomes.end();
  }
  const size_t colons = operation.find("::");
  const bool makes = colons != std::string::npos && operation.substr(0, colons) == operation.substr(colons + 2);
  return outcome == (makes ? "throws" : "2900");
}

class FaultLoopTest : public DeskTest, public testing::WithParamInterface<Row> {
 protected:
  FaultLoopTest() : method_(GetParam()[0]), params_(ParseJson(Params(GetParam()[1]))) {
    StartControlServer();
    Write(kConf, kReadyConf);
    good_ = Snapshot();
    server_ = Read("desk/control-server/state.json");
    states_ = Read("desk/services.json");
  }

  void Restore() {
    for (const auto& [file, text] : good_) {
      if (Read(file) != text) Write(file, text);
    }
    std::filesystem::remove(Path(kAliasStatus));
    std::filesystem::remove(Path(std::string(kConf) + ".bad"));
    Write("desk/control-server/state.json", server_);
    Write("desk/services.json", states_);
    device->faults.Clear();
  }

  /// Descriptors of the device's files. Those of the process come and go on the control server's threads.
  size_t OpenFiles() const {
    size_t files = 0;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
      files += target.rfind(Path("usr").string(), 0) == 0 || target.rfind(Path("etc").string(), 0) == 0 ? 1 : 0;
    }
    return files;
  }

  /// What the contract says of every run, whatever failed.
  void CheckContract(const Outcome& outcome) {
    ++runs_;
    ASSERT_EQ(outcome.answers.size() + (outcome.thrown ? 1 : 0), 1u);
    EXPECT_TRUE(outcome.thrown || outcome.answers[0].success || outcome.answers[0].data.isNull());
    unsigned compiled = 0;
    for (const Json::Value& line : device->trace.Lines()) {
      compiled += line["op"] == "regcomp" && line["result"] == 0 ? 1 : 0;
    }
    EXPECT_EQ(compiled, Count("regfree"));
    for (const auto& [file, text] : good_) {
      const bool lost = file == kServices && method_ == "Permission/1/set";
      EXPECT_TRUE(lost || Read(file) == text || file == kSettings || !ReadJson(file).isNull()) << file;
    }
  }

  void ExpectWorks() {
    device->faults.Clear();
    if (!Exists(kServices)) Write(kServices, good_[kServices]);
    const Outcome outcome = TryMethod(method_, params_);
    EXPECT_TRUE(outcome.Problem().empty() && outcome.answers[0].success) << "the same call without a fault";
    ++runs_;
  }

  std::string method_;
  Json::Value params_;
  std::map<std::string, std::string> good_;
  std::string server_;
  std::string states_;
  unsigned runs_ = 0;
};

TEST_P(FaultLoopTest, EveryOperationFails) {
  TryMethod(method_, params_);
  for (const char* onwards : {"", "+"}) {
    for (unsigned number = 1;; ++number) {
      Restore();
      const std::string fault = "*=fail@" + std::to_string(number) + onwards;
      device->faults.Add(fault);
      const Outcome outcome = TryMethod(method_, params_);
      const std::vector<std::string> met = device->faults.Met();
      if (met.empty()) break;
      SCOPED_TRACE(fault + " " + met.front());
      CheckContract(outcome);
      const std::string result = outcome.thrown ? "throws" : std::to_string(outcome.answers.at(0).code);
      EXPECT_TRUE(met.size() > 1 || MayLeadTo(met.front(), result)) << result;
      ExpectWorks();
      if (HasFailure()) return;
    }
  }
  EXPECT_EQ(OpenFiles(), 0u);
  std::cout << method_ << ": " << runs_ << " runs with a failing operation\n";
}

TEST_P(FaultLoopTest, EveryAllocationFails) {
  TryMethod(method_, params_);
  for (const bool onwards : {false, true}) {
    for (long number = 0;; ++number) {
      Restore();
      allocation_failed = false;
      allocations_fail_on = onwards;
      device->trace.Clear();
      const APIHandler handler = FindHandler(method_);
      allocations_left = number;
      const Outcome outcome = Call(handler, params_, true);
      allocations_left = -1;
      if (!allocation_failed) break;
      SCOPED_TRACE(number);
      CheckContract(outcome);
      if (onwards) ExpectWorks();
      if (HasFailure()) return;
    }
  }
  EXPECT_EQ(OpenFiles(), 0u);
  std::cout << method_ << ": " << runs_ << " runs with a failing allocation\n";
}

INSTANTIATE_TEST_SUITE_P(Each, FaultLoopTest, testing::ValuesIn(ReadTable("requests.txt")), NameOfRow);

}  // namespace
}  // namespace desk
