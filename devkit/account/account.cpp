#include <platform/account.h>

#include <cstring>

#include "devkit/device/operation.h"
#include "devkit/relay/transfer.h"

using desk::Args;
using desk::Device;
using desk::Operation;

namespace {

constexpr char kAccountPath[] = "/usr/vexa/etc/kova/account.json";

enum AccountError : int { kNone = 0, kBadRecord = 1, kNotBound = 3, kServiceUnreachable = 4 };

thread_local int last_error = kNone;

int Fail(AccountError error) {
  last_error = error;
  return -1;
}

std::string Text(const Json::Value& account, const char* member) {
  return account.isObject() && account.isMember(member) && account[member].isString() ? account[member].asString() : "";
}

template <size_t Size>
void Copy(char (&field)[Size], const std::string& text) {
  std::strncpy(field, text.c_str(), Size - 1);
}

/// Reads the bound account. 0, or -1 with the error number set.
int LoadAccount(Json::Value& account) {
  const std::filesystem::path file = Device::Get().Locate(kAccountPath);
  std::error_code error;
  if (!std::filesystem::exists(file, error)) return Fail(kNotBound);
  account = desk::LoadJson(file);
  return account.isObject() ? 0 : Fail(kBadRecord);
}

}  // namespace

int VEXAKOVAAccountGet(VEXAKOVAAccount* account) {
  Json::Value record;
  last_error = kNone;
  Operation operation("VEXAKOVAAccountGet");
  const int result = operation.Output("record", record).Run([&] { return LoadAccount(record); });
  if (result != 0) return result;
  Copy(account->name, Text(record, "name"));
  Copy(account->id, Text(record, "id"));
  Copy(account->auth_key, Text(record, "auth_key"));
  return 0;
}

int VEXAKOVAErrGet() {
  return Operation("VEXAKOVAErrGet").Run([] { return last_error; });
}

int VEXAKOVAAccountQueryInfo(Json::Value& info, bool online, bool refresh) {
  last_error = kNone;
  Operation operation("VEXAKOVAAccountQueryInfo", Args(online, refresh));
  return operation.Output("info", info).Run([&] {
    Json::Value record;
    if (LoadAccount(record) != 0) return -1;
    if (!desk::IsControlServerUp()) return Fail(kServiceUnreachable);
    info["email"] = Text(record, "email");
    return 0;
  });
}
