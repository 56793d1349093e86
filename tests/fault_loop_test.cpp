// Every single fault: for the whole calls of each method, the n-th operation of the platform or the file system
// fails, or throws, and the n-th allocation that the module makes or has its libraries make fails; once, and from
// then on; for n = 1, 2, 3 until none does. What the stand-in allocates for itself never fails.

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <utility>

#include "devkit/device/operation.h"
#include "devkit/device/operations.h"
#include "tests/desk_fixture.h"

namespace {

/// Allocations of the module on this thread until one fails; none does while it is negative.
thread_local long allocations_left = -1;
thread_local bool allocations_fail_on = false;
thread_local bool allocation_failed = false;

/// Whose code it is: the C++ library and jsoncpp work for whoever called them, and so do instances of their templates.
enum class Owner { kCaller, kModule, kDesk };

Owner OwnerOf(void* code) {
  Dl_info found{};
  static const void* const desk = dladdr(reinterpret_cast<void*>(&OwnerOf), &found) != 0 ? found.dli_fbase : nullptr;
  if (dladdr(code, &found) == 0) return Owner::kCaller;
  if (std::strstr(found.dli_fname, "VEXA.Core.TunnelBridge.so") != nullptr) return Owner::kModule;
  const bool is_template = found.dli_sname != nullptr && std::strncmp(found.dli_sname, "_ZNSt", 5) == 0;
  return found.dli_fbase == desk && !is_template ? Owner::kDesk : Owner::kCaller;
}

/// Remembers what `OwnerOf` says, which takes longer than a whole allocation.
Owner KnownOwnerOf(void* code) {
  static thread_local std::array<std::pair<void*, Owner>, 4096> known{};
  auto& [known_code, owner] = known[reinterpret_cast<size_t>(code) % known.size()];
  if (std::exchange(known_code, code) != code) owner = OwnerOf(code);
  return owner;
}

/// Whether the code that allocates works for the module: no function of the stand-in stands between the two.
bool IsOfModule(void* allocating) {
  std::array<void*, 64> frames;
  const auto end = frames.begin() + backtrace(frames.data(), frames.size());
  const auto caller = std::find(frames.begin(), end, allocating);
  const auto found = std::find_if(caller, end, [](void* code) { return KnownOwnerOf(code) != Owner::kCaller; });
  return found != end && KnownOwnerOf(*found) == Owner::kModule;
}

bool AllocationFails(void* allocating) {
  if (allocations_left < 0 || !IsOfModule(allocating)) return false;
  if (allocations_left > 0) return --allocations_left, false;
  allocation_failed = true;
  if (!allocations_fail_on) allocations_left = -1;
  return true;
}

}  // namespace

[[gnu::noinline]] void* operator new(size_t size) {
  void* memory = AllocationFails(__builtin_return_address(0)) ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

// Not inlined: the compiler would take the pair of new and free for a mistake.
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace desk {
namespace {

/// What the failure of an operation, or of a method's, may lead to.
std::map<std::string, Names> ReadMeanings() {
  std::map<std::string, Names> meanings;
  for (const Row& row : ReadTable("meanings.txt")) {
    for (const std::string& operation : Split(row[2], " ")) meanings[operation] = Parts(row[1]);
  }
  return meanings;
}

/// Whether the failure of a method's operation may lead to this outcome, as meanings.txt has it.
bool MayLeadTo(const std::string& method, const std::string& operation, const std::string& outcome) {
  static const std::map<std::string, Names> meanings = ReadMeanings();
  for (const std::string& name : {method + ":" + operation, operation}) {
    const auto known = meanings.find(name);
    if (known != meanings.end()) return std::count(known->second.begin(), known->second.end(), outcome) > 0;
  }
  return outcome == (IsConstructor(operation) ? "throws" : "2900");
}

/// Whether every member of `now` is as it was before the call or as a good call leaves it, and none is lost.
bool IsBetween(const Json::Value& now, const Json::Value& before, const Json::Value& after) {
  if (now == before || now == after) return true;
  if (!now.isObject() || !before.isObject() || !after.isObject()) return false;
  for (const std::string& name : before.getMemberNames()) {
    if (after.isMember(name) && !now.isMember(name)) return false;
  }
  const Names names = now.getMemberNames();
  return std::all_of(names.begin(), names.end(),
                     [&](const std::string& name) { return IsBetween(now[name], before[name], after[name]); });
}

class FaultLoopTest : public DeskTest, public testing::WithParamInterface<Row> {
 protected:
  FaultLoopTest() : method_(MethodOf(GetParam())), params_(ParseJson(Params(GetParam()[1]))), answer_(GetParam()[3]) {
    StartControlServer();
    Write(kConf, kReadyConf);
    Arrange(GetParam()[2]);
    good_ = Snapshot();
    for (const char* file : {"desk/control-server/state.json", "desk/services.json"}) desk_[file] = Read(file);
    ExpectWorks();
    left_ = Snapshot();
  }

  void Restore() {
    for (const auto& [file, text] : good_) {
      if (Read(file) != text) Write(file, text);
    }
    std::filesystem::remove(Path(kAliasStatus));
    for (const char* file : {kConf, kServices}) std::filesystem::remove(Path(std::string(file) + ".bad"));
    for (const auto& [file, text] : desk_) Write(file, text);
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

  /// The operations that met a fault, in order.
  Names Met() const {
    Names met;
    for (const Json::Value& line : device->trace.Lines()) {
      if (line.isMember("fault")) met.push_back(line["op"].asString());
    }
    return met;
  }

  /// What the contract says of every run, whatever failed.
  void CheckContract(const Outcome& outcome) {
    ++runs_;
    ASSERT_EQ(outcome.answers.size() + (outcome.thrown ? 1 : 0), 1u);
    EXPECT_TRUE(outcome.thrown || outcome.answers[0].success || outcome.answers[0].data.isNull());
    const auto is_compiled = [](const Json::Value& line) { return line["op"] == "regcomp" && line["result"] == 0; };
    const std::vector<Json::Value>& lines = device->trace.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), is_compiled), Count("regfree"));
    for (const auto& [file, text] : good_) EXPECT_TRUE(IsSound(file, text, outcome)) << file << ": " << Read(file);
  }

  /// An exception passes out of every method; no function of the file system throws one, though, but fails. Several
  /// failures come to a success only where each of them may.
  void CheckMeaning(const Outcome& outcome, const Names& met, bool throws) {
    const std::string result = outcome.thrown ? "throws" : std::to_string(outcome.answers.at(0).code);
    if (throws && Operations()[met.front()]["result"] != "error") {
      EXPECT_EQ(result, "throws");
    } else if (met.size() == 1 || result == "0") {
      for (const std::string& operation : met) EXPECT_TRUE(MayLeadTo(method_, operation, result)) << operation;
    }
  }

  /// A list that could not be written, or was broken, is lost. A failing answer does not leave the remains of one,
  /// unless they were found at close or could not be removed. A new key is another one each time.
  bool IsSound(const std::string& file, const std::string& before, const Outcome& outcome) {
    const std::string now = Read(file);
    if (now == before || now == left_[file]) return true;
    bool may_remain = outcome.thrown || outcome.answers[0].success;
    for (const std::string& met : Met()) may_remain = may_remain || met == "write" || met == "unlink";
    if (file == kServices) return method_ == "Permission/1/set" && now.empty() && (may_remain || !Exists(file));
    if (file == kAuth) return ReadJson(file).isObject();
    if (file == kSettings) return false;
    return IsBetween(ReadJson(file), ParseJson(before), ParseJson(left_[file]));
  }

  void ExpectWorks() {
    device->faults.Clear();
    if (!Exists(kServices)) Write(kServices, good_[kServices]);
    const Outcome outcome = TryMethod(method_, params_);
    EXPECT_EQ(Told(outcome), answer_) << "the same call without a fault";
  }

  std::string method_;
  Json::Value params_;
  std::string answer_;
  /// The device's files before the call, and as a good call leaves them.
  std::map<std::string, std::string> good_;
  std::map<std::string, std::string> left_;
  std::map<std::string, std::string> desk_;
  unsigned runs_ = 0;
};

TEST_P(FaultLoopTest, EveryOperationFails) {
  for (const bool throws : {false, true}) {
    for (const char* onwards : {"", "+"}) {
      for (unsigned number = 1;; ++number) {
        Restore();
        const std::string fault = (throws ? "*=throw@" : "*=fail@") + std::to_string(number) + onwards;
        device->faults.Add(fault);
        const Outcome outcome = TryMethod(method_, params_);
        const Names met = Met();
        if (met.empty()) break;
        SCOPED_TRACE(fault + " " + met.front());
        CheckContract(outcome);
        CheckMeaning(outcome, met, throws);
        ExpectWorks();
        if (HasFailure()) return;
      }
    }
  }
  EXPECT_EQ(OpenFiles(), 0u);
  std::cout << method_ << ": " << runs_ << " runs with a failing operation\n";
}

TEST_P(FaultLoopTest, EveryAllocationFails) {
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
      CheckCall(FullName(method_), outcome, device->trace.Lines());
      EXPECT_TRUE(outcome.thrown) << "want of memory is nobody's mistake, and no answer";
      if (onwards) ExpectWorks();
      if (HasFailure()) return;
    }
  }
  EXPECT_EQ(OpenFiles(), 0u);
  std::cout << method_ << ": " << runs_ << " runs with a failing allocation\n";
}

std::vector<Row> WholeCalls() {
  std::vector<Row> rows = ReadTable("calls.txt");
  const auto is_part = [](const Row& row) { return row[6].find_first_of("*-") != std::string::npos; };
  rows.erase(std::remove_if(rows.begin(), rows.end(), is_part), rows.end());
  return rows;
}

INSTANTIATE_TEST_SUITE_P(Each, FaultLoopTest, testing::ValuesIn(WholeCalls()), NameOfRow);

}  // namespace
}  // namespace desk
