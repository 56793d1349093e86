// Every single fault: for each method and some good requests, the n-th operation of the platform or the file
// system, and the n-th allocation of memory, fails; once, and from then on; for n = 1, 2, 3 until none does.

#include <cstdlib>
#include <iostream>
#include <new>
#include <set>

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

struct Request {
  const char* method;
  const char* params;
};

const Request kRequests[] = {
    {"1/status", "{}"},
    {"1/get", "{}"},
    {"2/get", "{}"},
    {"Permission/1/get", "{}"},
    {"Upnp/1/get", "{}"},
    {"1/set", R"({"enabled": true})"},
    {"1/set", R"({"enabled": false})"},
    {"2/set", R"({"enabled": true})"},
    {"Permission/1/set", R"({"services": []})"},
    {"Permission/1/set", R"({"services": [{"id": "web", "enabled": true}, {"id": "ssh", "enabled": false}]})"},
    {"Upnp/1/set", R"({"enabled": false})"},
    {"1/set_server_alias", kAliasV1},
    {"2/set_server_alias", R"({"server_alias": "mybox", "force": true})"},
};

constexpr int kThrown = -1;
constexpr int kSuccess = 0;

/// What the failure of an operation may lead to; 2900 for those that are not listed, an exception for any that
/// moves bytes or makes an object.
const std::map<std::string, std::set<int>> kMeanings = {
    {"APIRequest::IsAdmin", {105, kSuccess}},  // the second answer counts
    {"APIRequest::HasParam", {2901, kSuccess}},
    {"APIRequest::GetParam", {2901, kSuccess}},
    {"AliasConf::GetAliasName", {2901, kSuccess}},
    {"AliasStatus::GetStatus", {kSuccess}},
    {"AliasStatus::SetStatus", {kSuccess}},
    {"AliasRequest::ResponseToString", {kSuccess}},
    {"AuthConf::ReadConf", {2900}},
    {"Daemon::GetStatus", {2900, kSuccess}},
    {"Daemon::GetStatus(Json)", {kSuccess}},
    {"Daemon::UpdateAlias", {kSuccess}},
    {"KovaConf::GetKovaAccount", {2901, kSuccess}},
    {"ParseServerError", {2900, 2905, kSuccess}},
    {"POST", {2902}},
    {"RelaydConf::DumpDataForAliasReq", {2900, 2903}},
    {"RelaydConf::WriteAliasName", {kSuccess}},
    {"RelaydConf::WriteControlServerHost", {kSuccess, 2902}},
    {"RelaydConf::WriteKovaAccount", {kSuccess}},
    {"RelaydConf::WriteServerId", {kSuccess}},
    {"ServerConf::GetRegion", {kSuccess}},
    {"ServerConf::GetUrl", {2900, kSuccess}},  // the one for the constructor is not used
    {"ServerConf::Overwrite", {2900, 2902}},
    {"UpnpConf::Overwrite", {kSuccess}},
    {"VEXAKOVAAccountGet", {2900, 2902}},  // the number asked for next is that of an earlier failure
    {"VLIBCExecl", {kSuccess}},
    {"VLIBCFileGetKeyValue", {kSuccess}},
    {"VLIBServiceIsEnabled", {kSuccess}},
    {"VLIBServiceIsRunning", {kSuccess}},
    {"VLIBServiceReload", {kSuccess}},
    {"chmod", {kSuccess}},
    {"read", {kThrown}},
    {"regcomp", {2901}},
    {"regexec", {2901}},
    {"write", {2900, kSuccess}},
    {"writev", {2900, kSuccess}},
};

std::set<int> MeaningOf(const std::string& operation) {
  const auto known = kMeanings.find(operation);
  if (known != kMeanings.end()) return known->second;
  const size_t colons = operation.find("::");
  if (colons != std::string::npos && operation.substr(0, colons) == operation.substr(colons + 2)) return {kThrown};
  return {2900};
}

class FaultLoopTest : public DeskTest, public testing::WithParamInterface<size_t> {
 protected:
  FaultLoopTest() : request_(kRequests[GetParam()]), params_(ParseJson(request_.params)) {
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
    std::filesystem::remove(Path("usr/vexa/etc/vexarelayd/alias_status.json"));
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
      const bool lost = file == kServices && request_.method == std::string("Permission/1/set");
      EXPECT_TRUE(lost || Read(file) == text || file == kSettings || !ReadJson(file).isNull()) << file;
    }
  }

  void ExpectWorks() {
    device->faults.Clear();
    if (!Exists(kServices)) Write(kServices, good_[kServices]);
    EXPECT_TRUE(CallMethod(request_.method, request_.params).success) << "the same call without a fault";
    ++runs_;
  }

  Request request_;
  Json::Value params_;
  std::map<std::string, std::string> good_;
  std::string server_;
  std::string states_;
  unsigned runs_ = 0;
};

TEST_P(FaultLoopTest, EveryOperationFails) {
  CallMethod(request_.method, request_.params);
  for (const char* onwards : {"", "+"}) {
    for (unsigned number = 1;; ++number) {
      Restore();
      const std::string fault = "*=fail@" + std::to_string(number) + onwards;
      device->faults.Add(fault);
      const Outcome outcome = TryMethod(request_.method, params_);
      const std::vector<std::string> met = device->faults.Met();
      if (met.empty()) break;
      SCOPED_TRACE(fault + " " + met.front());
      CheckContract(outcome);
      const int code = outcome.thrown ? kThrown : outcome.answers.at(0).code;
      EXPECT_TRUE(met.size() > 1 || MeaningOf(met.front()).count(code) == 1) << code;
      ExpectWorks();
      if (HasFailure()) return;
    }
  }
  EXPECT_EQ(OpenFiles(), 0u);
  std::cout << request_.method << ": " << runs_ << " runs with a failing operation\n";
}

TEST_P(FaultLoopTest, EveryAllocationFails) {
  CallMethod(request_.method, request_.params);
  for (const bool onwards : {false, true}) {
    for (long number = 0;; ++number) {
      Restore();
      allocation_failed = false;
      allocations_fail_on = onwards;
      device->trace.Clear();
      const APIHandler handler = FindHandler(request_.method);
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
  std::cout << request_.method << ": " << runs_ << " runs with a failing allocation\n";
}

INSTANTIATE_TEST_SUITE_P(Each, FaultLoopTest, testing::Range(size_t{0}, std::size(kRequests)), [](const auto& row) {
  std::string name = std::string(kRequests[row.param].method) + "_" + std::to_string(row.param);
  for (char& letter : name) letter = letter == '/' ? '_' : letter;
  return name;
});

}  // namespace
}  // namespace desk
