// Whether a TLS server context works at all, found out before anybody connects.
#pragma once

#include <openssl/ssl.h>

namespace spotserver {

// Shakes hands once, in memory, with a client made for this: it takes any certificate (expired,
// self-signed, of a weak key or a rare curve) and any protocol version. What no such client can
// talk to nobody can: a context without a usable certificate, or one for which OpenSSL found no
// memory while it looked for its algorithms; it then takes them for missing as long as the process
// lives. Takes a few milliseconds. Leaves OpenSSL's error queue empty.
//   if (!shakes_hands(*server.ssl_context())) ...  // nobody would be heard
bool shakes_hands(SSL_CTX& server);

}  // namespace spotserver
