#include <platform/account.h>

#include <cstdio>

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
  const int result = Operation("VEXAKOVAAccountGet").Output("record", record).Run([&] { return LoadAccount(record); });
  if (result != 0) return result;
  std::snprintf(account->name, sizeof(account->name), "%s", Text(record, "name").c_str());
  std::snprintf(account->id, sizeof(account->id), "%s", Text(record, "id").c_str());
  std::snprintf(account->auth_key, sizeof(account->auth_key), "%s", Text(record, "auth_key").c_str());
  return 0;
}

int VEXAKOVAErrGet() { return desk::Give("VEXAKOVAErrGet", last_error); }

int VEXAKOVAAccountQueryInfo(Json::Value& info, bool online, bool refresh) {
  return Operation("VEXAKOVAAccountQueryInfo", Args(online, refresh)).Output("info", info).Run([&] {
    Json::Value record;
    if (LoadAccount(record) != 0) return -1;
    if (!desk::IsControlServerUp()) return Fail(kServiceUnreachable);
    info["email"] = Text(record, "email");
    return 0;
  });
}
