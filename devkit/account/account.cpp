#include <platform/account.h>

#include <cstring>

#include "devkit/device/operation.h"
#include "devkit/relay/transfer.h"

using desk::Args;
using desk::Device;
using desk::Operation;
using desk::Text;

namespace {

constexpr char kAccountPath[] = "/usr/vexa/etc/kova/account.json";

enum AccountError : int { kNone = 0, kBadRecord = 1, kNotBound = 3, kServiceUnreachable = 4 };

thread_local int last_error = kNone;

int Fail(AccountError error) {
  last_error = error;
  return -1;
}

template <size_t Size>
void Copy(char (&field)[Size], const std::string& text) {
  std::strncpy(field, text.c_str(), Size - 1);
}

/// Reads the bound account. 0, or -1 with the error number set.
int LoadAccount(Json::Value& account) {
  last_error = kBadRecord;
  const auto record = Device::Get().Load(kAccountPath);
  if (!record) return Fail(kNotBound);
  account = *record;
  if (!account.isObject()) return Fail(kBadRecord);
  last_error = kNone;
  return 0;
}

}  // namespace

int VEXAKOVAAccountGet(VEXAKOVAAccount* account) {
  Json::Value record;
  Operation operation("VEXAKOVAAccountGet");
  const int result = operation.Output("record", record).Run([&] { return LoadAccount(record); });
  if (result != 0) return result;
  Copy(account->name, Text(record, "name"));
  Copy(account->id, Text(record, "id"));
  Copy(account->auth_key, Text(record, "auth_key"));
  return 0;
}

int VEXAKOVAErrGet() { return desk::Give("VEXAKOVAErrGet", last_error); }

int VEXAKOVAAccountQueryInfo(Json::Value& info, bool online, bool refresh) {
  Operation operation("VEXAKOVAAccountQueryInfo", Args(online, refresh));
  return operation.Output("info", info).Run([&] {
    Json::Value record;
    if (LoadAccount(record) != 0) return -1;
    if (!desk::IsControlServerUp()) return Fail(kServiceUnreachable);
    info["email"] = Text(record, "email");
    return 0;
  });
}
