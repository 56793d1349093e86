#pragma once

#include <platform/webapi.h>

/// The module's methods. A handler answers exactly once, as its last act, and keeps nothing between calls.
/// Reading methods serve everybody; changing methods answer anybody but an administrator with 105.
/// No handler catches: what jsoncpp or the platform throws passes out, and the call is then not
/// answered.
#pragma GCC visibility push(default)

void Status_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void Get_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void Set_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void SetServerAlias_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void GetPermission_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void SetPermission_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void GetUpnp_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void SetUpnp_v1(VEXA::APIRequest* request, VEXA::APIResponse* response);
void Get_v2(VEXA::APIRequest* request, VEXA::APIResponse* response);
void Set_v2(VEXA::APIRequest* request, VEXA::APIResponse* response);
void SetServerAlias_v2(VEXA::APIRequest* request, VEXA::APIResponse* response);

/// The method table, ended by a row of zeros; the same pointer on every call.
extern "C" const APITableEntry* GetAPITable();

#pragma GCC visibility pop
