#include "devkit/relay/transfer.h"

#include <curl/curl.h>

#include <memory>

#include "devkit/device/operation.h"

namespace desk {
namespace {

constexpr char kDeskDomain[] = ".vexa.example";
constexpr size_t kMostAnswerBytes = 1 << 20;

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

size_t Append(char* data, size_t, size_t size, void* answer) noexcept {
  auto& text = *static_cast<std::string*>(answer);
  if (text.size() + size > kMostAnswerBytes) return 0;
  text.append(data, size);
  return size;
}

int RefuseToResolve(void*, void*, void*) { return 1; }

bool IsDeskHost(const std::string& url) {
  const size_t start = url.find("://");
  if (start == std::string::npos) return false;
  const std::string host = url.substr(start + 3, url.find_first_of(":/", start + 3) - start - 3);
  const std::string domain = kDeskDomain;
  return host.size() > domain.size() && host.compare(host.size() - domain.size(), domain.size(), domain) == 0;
}

List ConnectTo() {
  const std::string rule = "::127.0.0.1:" + std::to_string(Device::Get().control_port.load());
  return List(curl_slist_append(nullptr, rule.c_str()), curl_slist_free_all);
}

Handle NewHandle(const std::string& url, std::string& answer, const curl_slist* connect_to) {
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  Handle handle(initialised == CURLE_OK ? curl_easy_init() : nullptr, curl_easy_cleanup);
  if (!handle) return handle;
  const Device& device = Device::Get();
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "http");
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(device.connect_limit.count()));
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(device.total_limit.count()));
  curl_easy_setopt(handle.get(), CURLOPT_CONNECT_TO, connect_to);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, Append);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
  if (!IsDeskHost(url)) curl_easy_setopt(handle.get(), CURLOPT_RESOLVER_START_FUNCTION, RefuseToResolve);
  return handle;
}

int Perform(const std::string& url, const std::string& text, Transfer& transfer) {
  if (Device::Get().control_port == 0) return CURLE_COULDNT_CONNECT;
  const List connect_to = ConnectTo();
  const List headers(curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all);
  const Handle handle = NewHandle(url, transfer.answer, connect_to.get());
  if (!handle) return CURLE_FAILED_INIT;
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(text.size()));
  curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, text.c_str());
  const CURLcode result = curl_easy_perform(handle.get());
  long status = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  transfer.status = static_cast<int>(status);
  return result;
}

/// JSON text as a value, so that the trace can hide its secrets; other text as it is.
Json::Value Readable(const std::string& text) { return TryParseJson(text).value_or(text); }

}  // namespace

Transfer Post(const std::string& url, const std::string& text) {
  Transfer transfer;
  Json::Value arrived;
  Json::Value answer;
  Operation operation("POST", Args(url, Readable(text)));
  operation.Output("status", transfer.status).Output("answer", answer);
  transfer.result = operation.Run([&] {
    const int result = Perform(url, text, transfer);
    answer = arrived = Readable(transfer.answer);
    return result;
  });
  if (answer != arrived) transfer.answer = answer.isString() ? answer.asString() : ToLine(answer);
  return transfer;
}

bool IsControlServerUp() {
  if (Device::Get().control_port == 0) return false;
  std::string answer;
  const List connect_to = ConnectTo();
  const Handle handle = NewHandle("http://control.vexa.example/", answer, connect_to.get());
  if (!handle) return false;
  curl_easy_setopt(handle.get(), CURLOPT_CONNECT_ONLY, 1L);
  return curl_easy_perform(handle.get()) == CURLE_OK;
}

}  // namespace desk
