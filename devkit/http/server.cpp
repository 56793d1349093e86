#include "devkit/http/server.h"

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <microhttpd.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace desk::http {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostConnections = 1000;
constexpr size_t kMostWorkers = 64;
constexpr size_t kMostHeadBytes = 16 << 10;
constexpr size_t kMostBodyBytes = 1 << 20;
/// What a client may go on sending of a body that is refused, to read the answer after that.
constexpr size_t kMostDrainedBytes = 16 << 20;
/// Bodies of all connections, and of all calls at work, which need up to 400 times as much memory. There is always room
/// for the work on a small one.
constexpr size_t kMostHeldBytes = 64 << 20;
constexpr size_t kMostBytesAtWork = 2 << 20;
constexpr size_t kSmallBytes = 4 << 10;
/// For a request to arrive, for its answer to be taken, and for the next one to begin.
constexpr auto kPatience = std::chrono::seconds(30);
constexpr auto kFarewell = std::chrono::seconds(2);
constexpr auto kTick = std::chrono::milliseconds(500);
/// A limit of the library's own that never runs out.
constexpr unsigned kNeverSeconds = 3600;
/// Connections beyond the bound, on their way out.
constexpr unsigned kSpareConnections = 100;
constexpr rlim_t kDescriptors = 4096;

enum class Stage { kWaiting, kReceiving, kAtWork, kAnswering };

std::uint64_t BytesReceived(int socket) {
  tcp_info info{};
  socklen_t size = sizeof(info);
  getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
  return info.tcpi_bytes_received;
}

/// One connection, and the request that it carries at present.
struct Connection {
  explicit Connection(MHD_Connection* of)
      : handle(of),
        socket(MHD_get_connection_info(of, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd),
        idle_bytes(BytesReceived(socket)) {}

  void Begin() {
    if (!std::exchange(begun, true)) since = Clock::now();
  }

  /// Whether bytes waited to be read at two looks in a row while none of the body was: the library has no room for
  /// what stands between two chunks, and would try to read it over and over.
  bool Stalls() {
    int waiting = 0;
    const bool stands = std::exchange(seen_bytes, body_bytes) == body_bytes && stage == Stage::kReceiving;
    stalls = stands && ioctl(socket, FIONREAD, &waiting) == 0 && waiting > 0 ? stalls + 1 : 0;
    return stalls > 1;
  }

  /// Whether the client sends no more, and its request has not come. The library does not see an end that came
  /// together with the last bytes.
  bool IsAbandoned(Clock::time_point now) const {
    char next = 0;
    return stage <= Stage::kReceiving && now - since >= kTick && recv(socket, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
  }

  /// Answers where the library would not, and ends the connection.
  void Dismiss(const Response& last) const {
    const std::string text =
        "HTTP/1.1 " + std::to_string(last.status) + " " +
        MHD_get_reason_phrase_for(static_cast<unsigned>(last.status)) +
        "\r\nContent-Type: text/plain\r\nConnection: close\r\nContent-Length: " + std::to_string(last.body.size()) +
        "\r\n\r\n" + last.body;
    send(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(socket, SHUT_RDWR);
  }

  MHD_Connection* handle;
  int socket;
  Stage stage = Stage::kWaiting;
  bool begun = false;
  Clock::time_point since = Clock::now();
  /// What had come when the connection began to idle.
  std::uint64_t idle_bytes;
  size_t body_bytes = 0;
  /// Of the body, when it was looked at last.
  size_t seen_bytes = std::numeric_limits<size_t>::max();
  unsigned stalls = 0;
  Request request;
  std::optional<Response> response;
};

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char letter) { return std::tolower(letter); });
  return text;
}

bool Contains(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/// Puts the name of a header that two readers could take differently under the empty name.
MHD_Result AddHeader(void* request, MHD_ValueKind, const char* name, size_t name_size, const char* value, size_t size) {
  static const std::set<std::string> kOnce = {"authorization", "content-length", "content-type",
                                              "host",          "origin",         "transfer-encoding"};
  constexpr char kToken[] = "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyz";
  auto& headers = static_cast<Request*>(request)->headers;
  const auto [header, is_new] = headers.emplace(Lower({name, name_size}), std::string(value, size));
  // The library copies the lines of a folded header behind the head, and lets a name end where a value was folded.
  const bool is_folded = std::less<>()(value, name + name_size);
  const bool is_name = header->first.find_first_not_of(kToken) == std::string::npos;
  const bool is_repeated = !is_new && kOnce.count(header->first) != 0;
  if (is_folded || !is_name || is_repeated || header->second.find('\r') != std::string::npos) {
    headers[""] = header->first;
  }
  return MHD_YES;
}

ssize_t BreakOff(void* body, std::uint64_t at, char* target, size_t size) {
  const auto& text = *static_cast<const std::string*>(body);
  return at < text.size() ? static_cast<ssize_t>(text.copy(target, size, at)) : MHD_CONTENT_READER_END_WITH_ERROR;
}

/// The path of a request's target, which may be a whole address, as clients send it that take the server for a proxy.
std::string PathOf(const std::string& target) {
  constexpr char kScheme[] = "http://";
  constexpr size_t kSize = sizeof(kScheme) - 1;
  if (strncasecmp(target.c_str(), kScheme, kSize) != 0) return target;
  const size_t path = target.find('/', kSize);
  return path == std::string::npos ? "/" : target.substr(path);
}

size_t BodyBytes(const Request& request) {
  const std::string length = request.Header("content-length");
  return length.empty() ? 0 : std::stoull(length);  // the library has seen to it that it is a number
}

/// Refuses a request that two readers could take for different ones. Nobody can tell what follows its head.
std::optional<Response> CheckFrame(const Request& request, size_t head_bytes) {
  if (head_bytes > kMostHeadBytes) return Refusal(431, "the head of the request is larger than 16 KiB");
  if (const std::string name = request.Header(""); !name.empty())
    return Refusal(400, "the header '" + name + "' is repeated, folded or broken");
  if (request.headers.count("transfer-encoding") == 0) return std::nullopt;
  if (Lower(request.Header("transfer-encoding")) != "chunked")
    return Refusal(501, "no transfer encoding but 'chunked' is served");
  if (request.headers.count("content-length") == 0) return std::nullopt;
  return Refusal(400, "both Content-Length and Transfer-Encoding are sent");
}

/// A web page must not reach the device, neither from its own origin nor through a name that it made point here.
std::optional<Response> CheckSender(const Request& request, const std::vector<std::string>& hosts,
                                    const std::vector<std::string>& origins) {
  const std::string host = Lower(request.Header("host"));
  const size_t colon = std::min(host.rfind(':'), host.size());
  const bool has_port = host.find_first_not_of("0123456789", colon + 1) == std::string::npos;
  if (!hosts.empty() && !(has_port && Contains(hosts, host.substr(0, colon)))) {
    return Refusal(403, "the Host header names neither 127.0.0.1 nor localhost");
  }
  const std::string origin = request.Header("origin");
  const bool is_own = !hosts.empty() && Lower(origin) == "http://" + host;
  if (is_own || request.headers.count("origin") == 0 || Contains(origins, origin)) return std::nullopt;
  return Refusal(403, "pages of the origin '" + origin + "' are not admitted; --allow-origin admits them");
}

/// Refuses a method that its path does not have, or answers what a browser asks before a page's request.
Response RefuseMethod(const Request& request, const std::map<std::string, Handler>& methods, bool admitted) {
  std::string names;
  for (const auto& [method, handler] : methods) names += (names.empty() ? "" : ", ") + method;
  if (request.method != "OPTIONS" || !admitted) return Refusal(405, "this path serves " + names, {{"Allow", names}});
  return {204,
          "",
          {{"Access-Control-Allow-Methods", names},
           {"Access-Control-Allow-Headers", "Authorization, Content-Type"},
           {"Access-Control-Max-Age", "600"}}};
}

/// Each connection needs a descriptor, and calls need some too.
void RaiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kDescriptors));
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

class Server::Loop {
 public:
  Loop(const Rules& rules, int port) : rules_(rules) {
    RaiseDescriptorLimit();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    daemon_ = MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &OnRequest, this,
                               MHD_OPTION_SOCK_ADDR, &address, MHD_OPTION_CONNECTION_LIMIT,
                               unsigned{kMostConnections} + kSpareConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                               4 * kMostHeadBytes, MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted, this,
                               MHD_OPTION_NOTIFY_CONNECTION, &OnConnection, this, MHD_OPTION_END);
    if (daemon_ == nullptr) {
      throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) +
                               "; is the port in use? Choose another with --port");
    }
    thread_ = std::thread([this] { Wait(); });
  }

  ~Loop() {
    ending_ = true;
    eventfd_write(wake_, 1);
    thread_.join();
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
      added_.notify_all();
    }
    for (std::thread& worker : workers_) worker.join();
    MHD_stop_daemon(daemon_);
    close(wake_);
  }

  int Port() const { return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port; }

 private:
  static MHD_Result OnRequest(void* self, MHD_Connection* handle, const char* path, const char* method, const char*,
                              const char* data, size_t* size, void**) {
    auto& loop = *static_cast<Loop*>(self);
    const auto found = loop.connections_.find(handle);
    if (found == loop.connections_.end()) return MHD_NO;
    Connection& connection = found->second;
    try {
      if (connection.stage == Stage::kWaiting) return loop.TakeHead(connection, path, method);
      if (*size > 0) return loop.TakeBody(connection, data, std::exchange(*size, 0));
      return connection.response ? Answer(connection, loop.rules_.origins) : loop.Enqueue(connection);
    } catch (const std::exception&) {
      return MHD_NO;
    }
  }

  static void OnCompleted(void* self, MHD_Connection* handle, void**, MHD_RequestTerminationCode) {
    auto& loop = *static_cast<Loop*>(self);
    const auto found = loop.connections_.find(handle);
    if (found == loop.connections_.end()) return;
    loop.held_bytes_ -= found->second.request.body.size();
    found->second = Connection(handle);
  }

  static void OnConnection(void* self, MHD_Connection* handle, void**, MHD_ConnectionNotificationCode code) {
    auto& connections = static_cast<Loop*>(self)->connections_;
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
      connections.erase(handle);
    } else if (connections.size() < kMostConnections) {
      connections.emplace(handle, Connection(handle));
    } else {
      Connection(handle).Dismiss(Refusal(503, "no more than 1000 connections are served at once; close some"));
    }
  }

  /// Waits for all connections until the server ends and no request is under way.
  void Wait() {
    const auto is_under_way = [](const auto& entry) { return entry.second.stage != Stage::kWaiting; };
    bool bids_farewell = false;
    pollfd sources[] = {{MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, POLLIN, 0},
                        {wake_, POLLIN, 0}};
    auto last_tick = Clock::now();
    while (true) {
      MHD_UNSIGNED_LONG_LONG due = 1;
      const bool is_due = MHD_get_timeout(daemon_, &due) == MHD_YES && due == 0;
      if (poll(sources, 2, is_due ? 0 : ending_ ? 1 : int{kTick.count()}) > 0 && sources[1].revents != 0) {
        eventfd_t count;
        eventfd_read(wake_, &count);
      }
      MHD_run(daemon_);
      if (!ending_ && Clock::now() - last_tick < kTick) continue;
      last_tick = Clock::now();
      if (ending_ && !std::exchange(bids_farewell, true)) {
        for (auto& [handle, connection] : connections_) connection.since = last_tick;
      }
      EndOverdue(last_tick);
      if (ending_ && std::none_of(connections_.begin(), connections_.end(), is_under_way)) return;
    }
  }

  void EndOverdue(Clock::time_point now) {
    for (auto& [handle, connection] : connections_) {
      if (connection.stage == Stage::kAtWork) continue;
      if (BytesReceived(connection.socket) > connection.idle_bytes) connection.Begin();
      if (connection.Stalls())
        connection.Dismiss(Refusal(400, "what stands between the chunks of the body is too long"));
      if (connection.IsAbandoned(now)) shutdown(connection.socket, SHUT_RDWR);
      if (now - connection.since < (ending_ ? kFarewell : kPatience)) continue;
      connection.since = now;
      if (connection.begun && connection.stage != Stage::kAnswering) {
        connection.Dismiss(Refusal(408, "the request did not arrive in time"));
      }
      shutdown(connection.socket, SHUT_RDWR);
    }
  }

  /// Refuses what the head shows to be wrong; before the body where nobody knows its end, or it has not been sent.
  MHD_Result TakeHead(Connection& connection, const char* path, const char* method) {
    if (ending_) return MHD_NO;
    connection.Begin();
    connection.stage = Stage::kReceiving;
    Request& request = connection.request;
    request.method = method;
    request.path = PathOf(path);
    MHD_get_connection_values_n(connection.handle, MHD_HEADER_KIND, &AddHeader, &request);
    const auto* head = MHD_get_connection_info(connection.handle, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    connection.response = CheckFrame(request, head->header_size);
    if (connection.response) return Answer(connection, rules_.origins);
    connection.response = CheckSender(request, rules_.hosts, rules_.origins);
    if (!connection.response) connection.response = CheckRoute(request);
    const bool waits = request.headers.count("expect") != 0 || BodyBytes(request) > kMostDrainedBytes;
    return connection.response && waits ? Answer(connection, rules_.origins) : MHD_YES;
  }

  std::optional<Response> CheckRoute(const Request& request) const {
    const auto route = rules_.routes.find(request.path);
    if (route == rules_.routes.end()) return Refusal(404, "nothing is served under this path");
    if (route->second.count(request.method) == 0) {
      return RefuseMethod(request, route->second, Contains(rules_.origins, request.Header("origin")));
    }
    if (request.headers.count("content-encoding") != 0) {
      return Refusal(415, "the header Content-Encoding is not served; send the body as it is");
    }
    if (BodyBytes(request) <= kMostBodyBytes) return std::nullopt;
    return Refusal(413, "the body of the request is larger than 1 MiB");
  }

  MHD_Result TakeBody(Connection& connection, const char* data, size_t size) {
    connection.body_bytes += size;
    if (connection.response && connection.body_bytes > kMostDrainedBytes) {
      connection.Dismiss(*connection.response);
      return MHD_NO;
    }
    if (connection.response) return MHD_YES;
    if (connection.body_bytes > kMostBodyBytes) {
      connection.response = Refusal(413, "the body of the request is larger than 1 MiB");
    } else if (held_bytes_ + size > kMostHeldBytes) {
      connection.response = Refusal(503, "too many large requests arrive at once; try again");
    } else {
      connection.request.body.append(data, size);
      held_bytes_ += size;
    }
    return MHD_YES;
  }

  MHD_Result Enqueue(Connection& connection) {
    const std::lock_guard lock(mutex_);
    if (queue_.size() >= idle_workers_ && workers_.size() < kMostWorkers) AddWorker();
    queue_.push_back(&connection);
    connection.stage = Stage::kAtWork;
    // A resumed connection is asked for its answer first only if it has a limit of its own. The library would read on
    // before that, and drop the connection of a client that has finished sending.
    MHD_set_connection_option(connection.handle, MHD_CONNECTION_OPTION_TIMEOUT, kNeverSeconds);
    MHD_suspend_connection(connection.handle);
    added_.notify_one();
    return MHD_YES;
  }

  void AddWorker() {
    try {
      workers_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
      if (workers_.empty()) throw;
    }
  }

  /// What counts of a request's body while it is at work.
  static size_t BytesAtWork(const Connection& connection) {
    const size_t bytes = connection.request.body.size();
    return bytes > kSmallBytes ? bytes : 0;
  }

  /// Answers requests in order, until the server has ended. Only small ones pass one that has to wait for memory.
  void Work() {
    std::unique_lock lock(mutex_);
    while (!ended_) {
      bool waits = false;
      const auto fits = [&](const Connection* waiting) {
        const size_t bytes = BytesAtWork(*waiting);
        waits = waits || bytes_at_work_ + bytes > kMostBytesAtWork;
        return bytes == 0 || !waits;
      };
      const auto next = std::find_if(queue_.begin(), queue_.end(), fits);
      if (next == queue_.end()) {
        ++idle_workers_;
        added_.wait(lock);
        --idle_workers_;
        continue;
      }
      Connection& connection = **next;
      const size_t bytes = BytesAtWork(connection);
      queue_.erase(next);
      bytes_at_work_ += bytes;
      lock.unlock();
      connection.response = Handle(connection.request);
      MHD_resume_connection(connection.handle);
      eventfd_write(wake_, 1);
      lock.lock();
      bytes_at_work_ -= bytes;
      added_.notify_all();
    }
  }

  Response Handle(const Request& request) const {
    try {
      return rules_.routes.at(request.path).at(request.method)(request);
    } catch (const std::exception& problem) {
      return Refusal(500, std::string("the request cannot be handled: ") + problem.what());
    }
  }

  static MHD_Result Answer(Connection& connection, const std::vector<std::string>& origins) {
    connection.stage = Stage::kAnswering;
    connection.since = Clock::now();
    Response& answer = *connection.response;
    const std::string origin = connection.request.Header("origin");
    if (Contains(origins, origin)) {
      answer.headers.insert({{"Access-Control-Allow-Origin", origin},
                             {"Access-Control-Expose-Headers", "Desk-Call"},
                             {"Vary", "Origin"}});
    }
    const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
        answer.breaks_off
            ? MHD_create_response_from_callback(answer.body.size() + 1, 1024, &BreakOff, &answer.body, nullptr)
            : MHD_create_response_from_buffer(answer.body.size(), answer.body.data(), MHD_RESPMEM_MUST_COPY),
        &MHD_destroy_response);
    for (const auto& [name, value] : answer.headers)
      MHD_add_response_header(response.get(), name.c_str(), value.c_str());
    return MHD_queue_response(connection.handle, static_cast<unsigned>(answer.status), response.get());
  }

  const Rules& rules_;
  MHD_Daemon* daemon_;
  /// Tells the waiting thread, which the library's own resuming does not, of an answer or the end.
  const int wake_ = eventfd(0, EFD_CLOEXEC);
  /// Those and their bytes belong to the waiting thread; the response of one at work to its worker.
  std::map<MHD_Connection*, Connection> connections_;
  size_t held_bytes_ = 0;
  std::mutex mutex_;
  std::condition_variable added_;
  std::deque<Connection*> queue_;
  size_t bytes_at_work_ = 0;
  size_t idle_workers_ = 0;
  std::vector<std::thread> workers_;
  /// No new request is taken.
  std::atomic<bool> ending_{false};
  /// No request is left.
  bool ended_ = false;
  std::thread thread_;
};

std::string Request::Header(const std::string& name) const {
  const auto header = headers.find(name);
  return header == headers.end() ? "" : header->second;
}

Response Refusal(int status, const std::string& reason, std::map<std::string, std::string> headers) {
  headers["Content-Type"] = "text/plain";
  return {status, reason + "\n", std::move(headers)};
}

Server::Server(std::vector<std::string> hosts, std::vector<std::string> origins)
    : rules_{std::move(hosts), std::move(origins), {}} {}

Server::~Server() = default;

void Server::Route(const std::string& method, const std::string& path, Handler handler) {
  rules_.routes[path][method] = std::move(handler);
}

int Server::Start(int port) {
  loop_ = std::make_unique<Loop>(rules_, port);
  return loop_->Port();
}

}  // namespace desk::http
