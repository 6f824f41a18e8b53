#include "server/linger.hpp"

#include <array>

#include <poll.h>
#include <sys/socket.h>

namespace spotserver {

void linger(int fd, SSL* ssl, std::chrono::milliseconds patience) noexcept {
  using Clock = std::chrono::steady_clock;
  SSL_shutdown(ssl);
  ::shutdown(fd, SHUT_WR);
  const auto end = Clock::now() + patience;
  std::array<char, 16384> dropped;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return;
    pollfd waiting{fd, POLLIN, 0};
    if (::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return;
    if (::recv(fd, dropped.data(), dropped.size(), MSG_DONTWAIT) <= 0) return;
  }
}

}  // namespace spotserver
