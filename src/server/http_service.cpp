#include "server/http_service.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "api/activity_endpoint.hpp"
#include "api/health_document.hpp"
#include "api/json_answer.hpp"
#include "server/bind_address.hpp"
#include "server/owned.hpp"
#include "server/request_gate.hpp"
#include "server/tls_check.hpp"
#include "spots/regular_file.hpp"

namespace spotserver {
namespace {

constexpr const char* kNotFound = "{\"error\":\"not found\"}";
constexpr rlim_t kMaxDescriptors = 1024;
// Connects that may wait while the accept loop is busy; the library asks for five.
constexpr int kBacklog = 512;
// Sessions remembered for clients of TLS 1.2; OpenSSL's own default keeps 20,000.
constexpr long kSessions = 256;

void limit_descriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::min(limit.rlim_cur, kMaxDescriptors);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// What the station's files may need at a time beside the connections: the log, the country file,
// and SQLite's database, journals and temporary files.
constexpr std::size_t kDescriptorsForFiles = 8;
// Itself and a copy, for when the library closes it.
constexpr std::size_t kDescriptorsForListener = 2;

std::size_t free_descriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  std::size_t free = 0;
  for (int fd = 0; fd < static_cast<int>(limit.rlim_cur); ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) ++free;
  }
  return free;
}

// As many connections as there are descriptors for beside the listener and the files. Under a tight
// limit there are fewer workers, too: a connection must be able to wait where it is seen.
ConnectionLimits within_descriptors(ConnectionLimits limits) {
  limit_descriptors();
  const std::size_t free = free_descriptors();
  const std::size_t taken = kDescriptorsForFiles + kDescriptorsForListener;
  limits.connections = std::min(limits.connections, std::max(free, taken + 2) - taken);
  const std::size_t waiting = std::max<std::size_t>(1, limits.connections / 4);
  limits.workers = std::min(limits.workers, limits.connections - waiting);
  return limits;
}

// The address may be reused at once after a crash, but never shared by two servers.
void set_reuse_address(int socket) {
  const int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// Before the next try when an accept has failed.
constexpr std::chrono::milliseconds kPause{10};

bool is_listening(const Fd& socket) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return getsockopt(socket.get(), SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening;
}

using Verdict = httplib::Server::HandlerResponse;

// The one gate in front of routing.
Verdict pass_gate(const httplib::Request& request, httplib::Response& response) {
  if (!are_modest(request.ranges)) dropRanges(request);  // a server may answer with the whole
  const auto verdict = judge_body(request);
  if (verdict == BodyVerdict::kRead) {
    Connections::head_complete();
    return Verdict::Unhandled;
  }
  Connections::request_complete();
  if (verdict != BodyVerdict::kRoute) Connections::close_after_answer();
  if (verdict != BodyVerdict::kRefuse) return Verdict::Unhandled;
  response.status = 404;  // the error handler adds the body
  return Verdict::Handled;
}

// The library answers by itself, past the gate, what it does not understand, and 400 to a body that
// does not come. Only behind a bad Range header the request is known to its end; of any other the
// rest may follow.
void close_unless_understood(const httplib::Request& request, const httplib::Response& response) {
  if (!Connections::is_reading_head() && response.status != 400) return;
  const bool understood = response.status == 416 && judge_body(request) == BodyVerdict::kRoute;
  if (!understood) Connections::close_after_answer();
}

void announce_close(httplib::Response& response) {
  if (!Connections::closes_after_answer()) return;
  response.headers.erase("Keep-Alive");
  response.headers.erase("Connection");
  response.set_header("Connection", "close");
}

// What failed stays with us: no text of an exception reaches a client.
void answer_failure(httplib::Response& response) {
  response.headers.erase("EXCEPTION_WHAT");
  response.body.clear();
  response.status = 500;
}

// Versions of the library before 0.10.4 or so do not give their TLS context out; there the
// handshake is not tried and the connections run without deadlines of ours.
template <typename Server>
bool is_heard(Server& server) {
  if constexpr (requires { server.ssl_context(); }) {
    return shakes_hands(*server.ssl_context());
  }
  return true;
}

template <typename Server>
void watch_connections(Server& server, Connections& connections) {
  if constexpr (requires { server.ssl_context(); }) {
    connections.watch(server.ssl_context());
    SSL_CTX_sess_set_cache_size(server.ssl_context(), kSessions);
  }
}

// Null when the key is no regular file: the library would wait for the writer of a FIFO. Null also
// when the library rejects certificate or key, or nobody could connect to what it made of them.
template <typename Server>
std::unique_ptr<Server> make_server(const ServerSettings& settings) {
  if (!isRegularFile(settings.key)) return nullptr;
  auto server = std::make_unique<Server>(settings.cert.c_str(), settings.key.c_str());
  return server->is_valid() && is_heard(*server) ? std::move(server) : nullptr;
}

void set_options(httplib::Server& server) {
  server.set_keep_alive_timeout(60);
  server.set_read_timeout(30, 0);
  server.set_write_timeout(30, 0);
  server.set_tcp_nodelay(true);
  server.set_socket_options([](auto socket) { set_reuse_address(socket); });
}

void add_routes(httplib::Server& server, const HealthDocument& health,
                const ActivityEndpoint& endpoint) {
  server.Get("/api/v1/health", [health](const auto& request, auto& response) {
    setJson(request, response, health.at(static_cast<double>(std::time(nullptr))));
  });
  server.Get("/api/v1/activity", [endpoint](const auto& request, auto& response) {
    handleActivity(endpoint, request, response);
  });
}

// What is done with every request and answer, whatever its path.
void add_hooks(httplib::Server& server) {
  server.set_pre_routing_handler(pass_gate);
  server.set_expect_100_continue_handler([](const auto& request, auto& response) {
    // A body that will not be read is not asked for either.
    if (judge_body(request) != BodyVerdict::kRefuse) return 100;
    pass_gate(request, response);
    return response.status;
  });
  server.set_post_routing_handler([](const auto& request, auto& response) {
    close_unless_understood(request, response);
    Connections::request_complete();
    finishJson(response);
    announce_close(response);
  });
  server.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (response.status == 404) setJson(request, response, kNotFound);
  });
  server.set_exception_handler(
      [](const auto&, auto& response, auto&&...) { answer_failure(response); });
  server.set_logger([](const auto&, const auto&) { Connections::answered(); });
}

}  // namespace

// Reaches the listening socket, which the library keeps for its subclasses.
class HttpService::Server : public httplib::SSLServer {
 public:
  using httplib::SSLServer::SSLServer;

  void widen_backlog() { ::listen(svr_sock_, kBacklog); }

  // Whether it was there to be taken. The library's own stop() asserts that it is called once.
  bool take_listener() noexcept {
    if (!is_running()) return false;
    const Fd listener(svr_sock_.exchange(INVALID_SOCKET));
    if (!listener) return false;
    ::shutdown(listener.get(), SHUT_RDWR);
    return true;
  }

  // The listener under a second descriptor; empty when there is none to be had.
  Fd copy_listener() const { return Fd(::fcntl(svr_sock_, F_DUPFD_CLOEXEC, 0)); }
  void put_listener(Fd listener) { svr_sock_ = listener.release(); }
};

HttpService::HttpService(const ServerSettings& settings, SpotStore& store, const std::string& token,
                         const std::string& fingerprint, const ConnectionLimits& limits)
    : connections_(within_descriptors(limits), [&store] { store.interrupt(); }),
      server_(make_server<Server>(settings)),
      host_(settings.bind),
      port_(settings.port) {
  std::signal(SIGPIPE, SIG_IGN);
  if (!valid()) return;
  watch_connections(*server_, connections_);
  set_options(*server_);
  add_routes(*server_, HealthDocument(settings.demo, fingerprint),
             ActivityEndpoint{throttle_, token, store, settings.reload});
  add_hooks(*server_);
}

HttpService::~HttpService() = default;

bool HttpService::valid() const { return server_ != nullptr; }

bool HttpService::bind() {
  if (!server_->bind_to_port(bind_address(host_), port_)) return false;
  server_->widen_backlog();
  return true;
}

bool HttpService::serve(std::function<void()> on_running) {
  // The library asks for the task queue once it counts as running: from then on stop() works.
  server_->new_task_queue = [this, &on_running] {
    if (++runs_ == 1) {
      connections_.start();
      on_running();
    }
    if (stopped_) stop();  // it came while no loop ran
    return connections_.queue().release();
  };
  accept_until_stopped();
  connections_.stop();
  return stopped_;
}

// The library ends its accept loop and closes the listener at most errors of accept, those of one
// connection or of a system that is short of files or memory for a moment, too. The loop then runs
// again, with the same listener, unless this is a version of the library that runs it only once.
void HttpService::accept_until_stopped() {
  for (int run = 1; !stopped_; ++run) {
    Fd listener = server_->copy_listener();
    if (server_->listen_after_bind() || runs_ < run || !is_listening(listener)) return;
    std::this_thread::sleep_for(kPause);
    server_->put_listener(std::move(listener));
  }
}

void HttpService::stop() noexcept {
  stopped_ = true;
  if (server_->take_listener()) connections_.release_accept_loop();
}

std::size_t HttpService::in_flight() const { return connections_.in_flight(); }

bool HttpService::abandoned() const { return connections_.abandoned(); }

}  // namespace spotserver
