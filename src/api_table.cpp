#include "handlers.h"

namespace {

constexpr char kApi[] = "VEXA.Core.TunnelBridge";
constexpr char kPermissionApi[] = "VEXA.Core.TunnelBridge.Permission";
constexpr char kUpnpApi[] = "VEXA.Core.TunnelBridge.Upnp";

}  // namespace

extern const APITableEntry grgTable[12];

// clang-format off
const APITableEntry grgTable[12] = {
    {kApi,           1, "status",           Status_v1},
    {kApi,           1, "get",              Get_v1},
    {kApi,           1, "set",              Set_v1},
    {kApi,           1, "set_server_alias", SetServerAlias_v1},
    {kPermissionApi, 1, "get",              GetPermission_v1},
    {kPermissionApi, 1, "set",              SetPermission_v1},
    {kUpnpApi,       1, "set",              SetUpnp_v1},
    {kUpnpApi,       1, "get",              GetUpnp_v1},
    {kApi,           2, "get",              Get_v2},
    {kApi,           2, "set",              Set_v2},
    {kApi,           2, "set_server_alias", SetServerAlias_v2},
    {nullptr,        0, nullptr,            nullptr},
};
// clang-format on

const APITableEntry* GetAPITable() { return grgTable; }
