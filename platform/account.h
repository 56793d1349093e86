#pragma once

#include <json/value.h>

/// What the account library knows of the cloud ("Kova") account bound to the device.
/// All texts are NUL-terminated; what follows them in their fields is the library's own. Its layout is fixed:
/// 20248 bytes, the name at offset 0, the id at 8192 and the auth key at 12288.
struct VEXAKOVAAccount {
  char name[8192];
  char id[4096];
  char auth_key[7960];
};

extern "C" {

/// Fills a zero-filled record with the bound account. Returns 0 on success.
int VEXAKOVAAccountGet(VEXAKOVAAccount* account);

/// The number of the calling thread's last failure in this library.
int VEXAKOVAErrGet();
}

/// Asks the account service for the bound account's information ("email" among it) and puts it into `info`.
/// The two flags belong to the library. Returns 0 on success.
int VEXAKOVAAccountQueryInfo(Json::Value& info, bool online, bool refresh);
