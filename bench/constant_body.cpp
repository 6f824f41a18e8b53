// The least that the HTTP library can do: the same listener as the server's, the same two paths,
// and for each of them bytes that never change. What the server takes more than this is its own.
//   constant_body 7374 spot-server.crt spot-server.key health.json activity.json
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "plain_listener.hpp"

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fputs("Usage: constant_body PORT CERT KEY HEALTH_FILE ACTIVITY_FILE\n", stderr);
    return 2;
  }
  try {
    const std::string health = spotserver::readFile(argv[4]);
    const std::string activity = spotserver::readFile(argv[5]);
    spotserver::servePlainly(
        std::atoi(argv[1]), argv[2], argv[3], [&health] { return health; },
        [&activity] { return activity; });
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
