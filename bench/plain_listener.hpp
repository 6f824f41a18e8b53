// The server's listener without anything behind it: the HTTP library set up as the server sets it
// up, and two paths.
#pragma once

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>

#include <httplib.h>

namespace spotserver {

inline std::string readFile(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(std::string("Cannot open ") + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Answers on 127.0.0.1 with what the functions return, until a signal ends the process. Prints
// "ready" once it listens. Throws std::runtime_error "Cannot bind".
inline void servePlainly(int port, const char* certificate, const char* key,
                         const std::function<std::string()>& health,
                         const std::function<std::string()>& activity) {
  httplib::SSLServer server(certificate, key);
  server.set_keep_alive_timeout(60);
  server.set_read_timeout(30, 0);
  server.set_write_timeout(30, 0);
  server.set_tcp_nodelay(true);
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };  // as many as the server has
  const auto route = [&server](const char* path, const std::function<std::string()>& body) {
    server.Get(path, [body](const auto&, auto& response) {
      response.set_content(body(), "application/json");
    });
  };
  route("/api/v1/health", health);
  route("/api/v1/activity", activity);
  if (!server.bind_to_port("127.0.0.1", port)) throw std::runtime_error("Cannot bind");
  std::puts("ready");
  std::fflush(stdout);
  server.listen_after_bind();
}

}  // namespace spotserver
