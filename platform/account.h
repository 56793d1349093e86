#pragma once

#include <json/value.h>

#include <cstddef>

/// What the account library knows of the cloud ("Kova") account bound to the device.
/// All texts are NUL-terminated; what follows them in their fields is the library's own.
struct VEXAKOVAAccount {
  char name[8192];
  char id[4096];
  char auth_key[7960];
};

static_assert(sizeof(VEXAKOVAAccount) == 20248, "size fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, name) == 0, "offset fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, id) == 8192, "offset fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, auth_key) == 12288, "offset fixed by the account library");

extern "C" {

/// Fills a zero-filled record with the bound account. Returns 0 on success.
int VEXAKOVAAccountGet(VEXAKOVAAccount* account);

/// The number of the calling thread's last failure in this library.
int VEXAKOVAErrGet();
}

/// Asks the account service for the bound account's information ("email" among it) and puts it into `info`.
/// The two flags belong to the library. Returns 0 on success.
int VEXAKOVAAccountQueryInfo(Json::Value& info, bool online, bool refresh);
