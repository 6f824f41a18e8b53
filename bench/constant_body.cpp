// The least that the HTTP library can do: the same listener as the server's, the same two paths,
// and for each of them bytes that never change. What the server takes more than this is its own.
//   constant_body 7374 spot-server.crt spot-server.key health.json activity.json
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <httplib.h>

namespace {

std::string readFile(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(std::string("Cannot open ") + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

int serve(int port, const char* certificate, const char* key, const std::string& health,
          const std::string& activity) {
  httplib::SSLServer server(certificate, key);
  server.set_keep_alive_timeout(60);
  server.set_read_timeout(30, 0);
  server.set_write_timeout(30, 0);
  server.set_tcp_nodelay(true);
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };  // as many as the server has
  const auto route = [&server](const char* path, const std::string& body) {
    server.Get(path, [body](const auto&, auto& response) {
      response.set_content(body, "application/json");
    });
  };
  route("/api/v1/health", health);
  route("/api/v1/activity", activity);
  if (!server.bind_to_port("127.0.0.1", port)) throw std::runtime_error("Cannot bind");
  std::puts("ready");
  std::fflush(stdout);
  return server.listen_after_bind() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fputs("Usage: constant_body PORT CERT KEY HEALTH_FILE ACTIVITY_FILE\n", stderr);
    return 2;
  }
  try {
    return serve(std::atoi(argv[1]), argv[2], argv[3], readFile(argv[4]), readFile(argv[5]));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
