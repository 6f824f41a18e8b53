// The one HTTPS listener: its options, routes, life and end.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "api/token_gate.hpp"
#include "server/connections.hpp"
#include "server/settings.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {

// Settings, token, fingerprint and store outlive the service; settings, token and fingerprint do
// not change while it lives.
class HttpService {
 public:
  // Loads certificate and key, sets the options and registers the routes. From here on the process
  // ignores SIGPIPE and holds at most 1024 descriptors, which is what the library's select() takes.
  HttpService(const ServerSettings& settings, SpotStore& store, const std::string& token,
              const std::string& fingerprint, const ConnectionLimits& limits = {});
  ~HttpService();

  // False when the TLS context rejects the certificate or the key, or no handshake comes through.
  // The rest needs a valid service.
  bool valid() const;

  // Binds the listener; false when that fails.
  bool bind();

  // Accepts connections until stop(). `on_running` is called on this thread before the first
  // connection. Goes on when an accept fails that says nothing about the listener. Returns true
  // when the service was stopped, false when the listener is gone without that. Once only.
  // Throws std::system_error when no thread can be had.
  bool serve(std::function<void()> on_running);

  // Takes the listening socket away, which ends serve(). Async-signal-safe; a second call does
  // nothing. From on_running on it takes effect at once, before that as serve() begins.
  void stop() noexcept;

  // See Connections.
  std::size_t in_flight() const;
  bool abandoned() const;

 private:
  class Server;
  void accept_until_stopped();

  TokenThrottle throttle_;
  Connections connections_;
  std::unique_ptr<Server> server_;
  std::string host_;
  int port_;
  int runs_ = 0;  // of the library's accept loop
  std::atomic<bool> stopped_ = false;
  static_assert(std::atomic<bool>::is_always_lock_free);
};

}  // namespace spotserver
