// What a client says about compression (RFC 9110, 12.5.3).
#pragma once

#include <string_view>

namespace spotserver {

// Whether a gzip body suits the client best; otherwise it gets the body as it is, which any client
// can read. `accept_encoding` is the header's value, several of them joined by commas, empty
// without one. Gzip ("x-gzip" is the same) must be named, or meant by "*", with a weight above 0
// and none below that of "identity". Members that break the grammar are passed over.
//   "gzip, deflate, br"    true        ""               false
//   "GZIP;q=0.5"           true        "gzip;q=0, *"    false
//   "*"                    true        "br"             false
//   "gzip;q=0.5, *;q=0.1"  true        "gzip;q=0.5, identity"  false
// Pure; cost: the length of the value.
bool prefersGzip(std::string_view accept_encoding);

}  // namespace spotserver
