// What to do with a request's body before the library reads a byte of it. No endpoint takes one.
#pragma once

#include <cstdint>

#include <httplib.h>

namespace spotserver {

// Largest body that the library may read, in bytes.
inline constexpr std::uint64_t kMaxBody = 64 * 1024;

enum class BodyVerdict {
  kRoute,           // no body
  kRead,            // a small plain one, which the library reads before it routes
  kRouteThenClose,  // a body that the library will not read: it must not pass for the next request
  kRefuse,          // leave it unread: answer 404 and close
};

// Pure. The library reads the body of POST, PUT, PATCH and PRI, and of DELETE with a length; it
// would unpack, collect or wait for whatever it announces.
//   POST, Content-Length 10                      kRead
//   POST, Transfer-Encoding or Content-Encoding  kRefuse
//   GET, Content-Length 10                       kRouteThenClose
BodyVerdict judgeBody(const httplib::Request& request);

}  // namespace spotserver
