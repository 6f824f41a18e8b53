// Which of its host's addresses the server listens on.
#pragma once

#include <string>

namespace spotserver {

// The first address of `host` that is this machine's, as numbers: the first that a socket can be
// bound to, whatever the port. A name may stand for several ("localhost" for ::1 and 127.0.0.1),
// and the HTTP library takes the first whose port is free: a second server on the same port would
// quietly begin beside the first.
//   bind_address("localhost") == "::1", where there is IPv6
//   bind_address("0.0.0.0") == "0.0.0.0"
// `host` itself when there is no such address: binding to it will fail as it should. An empty one
// is the loopback. Cost: a look-up of the name, which may ask the network.
std::string bind_address(const std::string& host);

}  // namespace spotserver
