// What a request asks of the library beyond its head: to read a body, which no endpoint takes, and
// to cut ranges out of the answer.
#pragma once

#include <cstddef>
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
BodyVerdict judge_body(const httplib::Request& request);

// Most ranges that are served of one document.
inline constexpr std::size_t kMaxRanges = 16;

// Whether the ranges together are at most twice the document, whatever its size: one or two of any
// kind, or up to kMaxRanges in ascending order and apart. The library would make a part of each,
// four thousand times the whole document for 8 KB of header. Pure.
//   bytes=-500   bytes=10-,0-9   bytes=0-0,5-9,20-     true
//   bytes=-,-,-  bytes=0-9,5-9,7-9                     false
bool are_modest(const httplib::Ranges& ranges);

}  // namespace spotserver
