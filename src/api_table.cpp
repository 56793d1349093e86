#include "handlers.h"

#include <cstddef>

// The server reads the rows as four words each, whatever headers the module is built with.
static_assert(sizeof(APITableEntry) == 4 * sizeof(void*), "size fixed by the server");
static_assert(offsetof(APITableEntry, version) == sizeof(void*), "offset fixed by the server");
static_assert(offsetof(APITableEntry, method) == 2 * sizeof(void*), "offset fixed by the server");
static_assert(offsetof(APITableEntry, handler) == 3 * sizeof(void*), "offset fixed by the server");

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
