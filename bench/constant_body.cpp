// The least that the HTTP library can do: the same listener as the server's, the same two paths,
// and for each of them bytes that never change. What the server takes more than this is its own.
//   constant_body 7374 spot-server.crt spot-server.key health.json activity.json
#include <cstdio>
#include <cstdlib>

#include "plain_listener.hpp"
#include "tool.hpp"

int main(int argc, char** argv) {
  return spotserver::runTool(argc == 6,
                             "Usage: constant_body PORT CERT KEY HEALTH_FILE ACTIVITY_FILE\n", [&] {
                               const std::string health = spotserver::readFile(argv[4]);
                               const std::string activity = spotserver::readFile(argv[5]);
                               spotserver::servePlainly(
                                   std::atoi(argv[1]), argv[2], argv[3],
                                   [&health] { return health; }, [&activity] { return activity; });
                             });
}
