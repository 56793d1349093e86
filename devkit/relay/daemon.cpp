#include <platform/relay.h>

#include <tuple>
#include <utility>

#include "devkit/device/operation.h"
#include "devkit/relay/files.h"
#include "devkit/relay/transfer.h"
#include "devkit/system/services.h"

namespace VEXA {
namespace Relay {

using desk::Args;
using desk::Operation;

namespace {

constexpr char kDaemonService[] = "vexarelayd";

/// What the daemon gives when asked: its status and its error.
std::pair<std::string, std::string> AskDaemon(const desk::Service& service) {
  if (!service.running) return {"not_running", ""};
  if (service.starting) return {"starting", ""};
  if (!desk::IsControlServerUp()) return {"disconnected", "err_network"};
  return {"connected", ""};
}

}  // namespace

bool Daemon::GetStatus(std::string& server_id, std::string& status, std::string& error, const char* socket) {
  Operation operation("Daemon::GetStatus", Args(socket == nullptr ? Json::Value() : Json::Value(socket)));
  operation.Output("server_id", server_id).Output("status", status).Output("error", error);
  return operation.Run([&] {
    const desk::Service service = desk::FindService(kDaemonService);
    if (service.enabled && !service.running) return false;
    std::tie(status, error) = AskDaemon(service);
    server_id = desk::Text(desk::LoadConf(desk::kDaemonConfPath), "server_id");
    return true;
  });
}

int Daemon::GetStatus(Json::Value& out) {
  return Operation("Daemon::GetStatus(Json)").Output("state", out).Run([&] {
    const desk::Service service = desk::FindService(kDaemonService);
    out["status"] = AskDaemon(service).first;
    return service.starting ? 1 : 0;
  });
}

bool Daemon::UpdateAlias() {
  return Operation("Daemon::UpdateAlias").Run([] { return desk::FindService(kDaemonService).running; });
}

AliasStatus::AliasStatus() {
  desk::Construct("AliasStatus::AliasStatus", Args(), [&] { known_ = desk::LoadConf(desk::kAliasStatusPath); });
}

bool AliasStatus::GetStatus(const std::string& alias, std::string& status, std::string& detail) const {
  return Operation("AliasStatus::GetStatus", Args(alias)).Output("status", status).Output("detail", detail).Run([&] {
    if (!known_[alias].isObject()) return false;
    status = desk::Text(known_[alias], "status");
    detail = desk::Text(known_[alias], "detail");
    return true;
  });
}

bool AliasStatus::SetStatus(const std::string& alias, const std::string& status, const std::string& detail,
                            bool store) {
  return Operation("AliasStatus::SetStatus", Args(alias, status, detail, store)).Run([&] {
    known_[alias] = desk::Object({{"status", status}, {"detail", detail}});
    return !store || desk::StoreMembers(desk::kAliasStatusPath, "", desk::Object({{alias, known_[alias]}}));
  });
}

}  // namespace Relay
}  // namespace VEXA
