// The end of a connection whose peer is still sending.
#pragma once

#include <chrono>

#include <openssl/ssl.h>

namespace spotserver {

// Tells the peer that nothing follows, then reads and drops what it still sends until it closes or
// `patience` is over. Closing at once would answer its next bytes with a reset, and a reset makes
// many clients lose an answer that they have not read yet. Leaves the descriptor open.
void linger(int fd, SSL* ssl, std::chrono::milliseconds patience) noexcept;

}  // namespace spotserver
