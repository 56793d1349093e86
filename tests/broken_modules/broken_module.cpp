// A module of two methods that keeps the handler contract, except for the rule that BROKEN_RULE names.

#include <fcntl.h>
#include <platform/relay.h>
#include <platform/webapi.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace {

constexpr bool Breaks(std::string_view rule) { return rule == BROKEN_RULE; }

constexpr int kNotAdministrator = 105;
constexpr int kInvalidRequest = 2901;

unsigned Depth(const Json::Value& value) { return value.isArray() && !value.empty() ? 1 + Depth(value[0]) : 0; }

void Stop() {
  for (;;) pause();
}

/// Most faults show with one kind of parameter only, so that the check has to come up with it.
void Work(const Json::Value& value) {
  const std::string text = value.isString() ? value.asString() : "";
  if (Breaks("kCrashes") && text.find('\0') != std::string::npos) std::abort();
  if (Breaks("kLoops") && text.size() > 10000) Stop();
  if (Breaks("kExits") && Depth(value) >= 100) _exit(0);
  if (Breaks("kLeavesFileOpen") && value.isBool()) open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (Breaks("kLeavesThread") && value.isInt()) std::thread(Stop).detach();
  if (Breaks("kLeavesProcess") && value.isInt() && fork() == 0) {
    setsid();
    if (fork() == 0) Stop();
    _exit(0);
  }
  for (int line = 0; Breaks("kClosesOutput") && line < 1000; ++line) std::puts("ok    module  loads");
  if (Breaks("kClosesOutput")) close(STDOUT_FILENO);
  std::thread([] {}).join();
}

void Get(VEXA::APIRequest*, VEXA::APIResponse* response) {
  response->SetSuccess(Breaks("kPayloadNoObject") ? Json::nullValue : Json::objectValue);
}

void Set(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const VEXA::Relay::AliasConf conf;
  if (Breaks("kAsksBeforeGuard")) request->HasParam("value");
  const bool admin = request->IsAdmin();
  const bool present = (admin || Breaks("kNoGuard")) && request->HasParam("value");
  const Json::Value value = present ? request->GetParam("value", Json::Value()) : Json::Value();
  if (present) Work(value);

  if (Breaks("kNeverAnswers") && value.isObject()) return;
  if (Breaks("kAsksRightOnce") ? !admin : !request->IsAdmin()) {
    response->SetError(Breaks("kWrongDenial") ? kInvalidRequest : kNotAdministrator, Json::Value());
  } else if (present) {
    value.asString();  // throws for a list
    response->SetSuccess(Json::Value());
  } else {
    response->SetError(kInvalidRequest, Breaks("kErrorWithData") ? "value" : Json::Value());
  }
  if (Breaks("kAnswersTwice") && value.isDouble()) response->SetSuccess(Json::Value());
  if (Breaks("kAsksAfterAnswer") && present) request->HasParam("value");
  if (Breaks("kThrowsAfterAnswer") && present) throw std::runtime_error("too late");
}

constexpr char kApi[] = "Example";
constexpr std::array<APITableEntry, 3> kTable = {{
    {kApi, 1, "get", Get},
    {kApi, 1,
     Breaks("kNoMethodName")  ? nullptr
     : Breaks("kRepeatedRow") ? "get"
                              : "set",
     Breaks("kNoHandler") ? nullptr : Set},
    {nullptr, Breaks("kEndRowNotZero") ? 1 : 0, nullptr, nullptr},
}};

[[maybe_unused]] const bool loaded = Breaks("kDiesLoading") ? (std::abort(), true) : true;

}  // namespace

extern "C" const APITableEntry* GetAPITable() {
  static std::array<APITableEntry, 2000> endless;
  static std::array<std::array<APITableEntry, 3>, 2> copies = {kTable, kTable};
  static unsigned calls = 0;
  if (Breaks("kNoTable")) return nullptr;
  if (Breaks("kNewPointer")) return copies[++calls % 2].data();
  if (!Breaks("kNoEndRow")) return kTable.data();
  for (size_t row = 0; row < endless.size(); ++row) endless[row] = {kApi, static_cast<int>(row), "get", Get};
  return endless.data();
}
