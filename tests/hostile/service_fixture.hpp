// The real HTTPS service inside the test process, with limits of the test's own choosing: what
// takes the server thirty seconds takes a test two or three.
#pragma once

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "e2e/server_process.hpp"
#include "e2e/tls_client.hpp"
#include "hostile/await.hpp"
#include "server/http_service.hpp"
#include "server/tls_identity.hpp"
#include "temp_dir.hpp"

namespace spotserver::hostile {

using namespace std::chrono_literals;

inline constexpr const char* kHealthRequest = "GET /api/v1/health HTTP/1.1\r\nHost: s\r\n\r\n";

class Service {
 public:
  explicit Service(const ConnectionLimits& limits) {
    settings_.bind = "127.0.0.1";
    settings_.port = lease_.port();
    settings_.reload = 0;
    settings_.cert = dir_.path("crt");
    settings_.key = dir_.path("key");
    settings_.all_txt = dir_.path("ALL.TXT");
    fingerprint_ = ensure_tls_identity(settings_.cert, settings_.key, "corvane-spot-server");
    store_.lock()->all_txt_path = settings_.all_txt;
    service_ = std::make_unique<HttpService>(settings_, store_, token_, fingerprint_, limits);
    if (!service_->valid() || !service_->bind()) throw std::runtime_error("Cannot serve");
    std::promise<void> running;
    accept_loop_ = std::async(std::launch::async, [this, &running] {
      return service_->serve([&running] { running.set_value(); });
    });
    running.get_future().wait();
    // The library fills its tables at the first request. Their guards are in the library, where the
    // thread sanitizer does not see them, so that happens before there are two workers at it.
    health();
    awaitThat([this] { return in_flight() == 0; });
  }
  ~Service() {
    if (accept_loop_.valid()) stop();
  }

  int port() const { return settings_.port; }
  SpotStore& store() { return store_; }
  std::size_t in_flight() const { return service_->in_flight(); }
  const std::string& token() const { return token_; }
  void writeLog(std::string_view text) const { dir_.write("ALL.TXT", text); }

  // Whether the accept loop ended because it was stopped. Returns once everything is released.
  bool stop() {
    service_->stop();
    service_->stop();  // as a second Ctrl-C does
    return accept_loop_.get();
  }

  // The status of one GET of the health path on a connection of its own.
  int health() const { return e2e::TlsClient(port()).request("GET", "/api/v1/health").status; }

 private:
  TempDir dir_;
  e2e::PortLease lease_;
  ServerSettings settings_;
  std::string token_ = "hostile-test";
  std::string fingerprint_;
  SpotStore store_;
  std::unique_ptr<HttpService> service_;
  std::future<bool> accept_loop_;
};

}  // namespace spotserver::hostile
