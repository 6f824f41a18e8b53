// The one HTTPS listener: its options, routes, life and end.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "api/token_gate.hpp"
#include "server/connections.hpp"
#include "server/settings.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {

// The health document. All but the time stays the same while the service lives.
//   {"service":"corvane-spot-server","version":"0.3.0","mode":"live","server_time":...,
//    "fingerprint_sha256":"AB:..."}   in one line without blanks
class HealthDocument {
 public:
  HealthDocument(bool demo, const std::string& fingerprint);

  // `now` in whole UTC epoch seconds.
  std::string at(double now) const;

 private:
  std::string head_;  // up to the time
  std::string tail_;
};

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

  // Runs the accept loop until stop(). `on_running` is called on this thread once stop() takes
  // effect and before the first connection. Returns true when the service was stopped, false when
  // the accept loop failed by itself.
  bool serve(std::function<void()> on_running);

  // Takes the listening socket away, which ends the accept loop. Async-signal-safe; a second call
  // does nothing, nor does one before the loop runs.
  void stop() noexcept;

  // See Connections.
  std::size_t inFlight() const;
  bool abandoned() const;

 private:
  class Server;
  TokenThrottle throttle_;
  Connections connections_;
  std::unique_ptr<Server> server_;
  std::string bind_address_;
  int port_;
};

}  // namespace spotserver
