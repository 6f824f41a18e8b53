#include "server/bind_address.hpp"

#include <array>
#include <memory>
#include <optional>

#include <netdb.h>
#include <sys/socket.h>

#include "server/owned.hpp"

namespace spotserver {
namespace {

using Addresses = std::unique_ptr<addrinfo, With<freeaddrinfo>>;

// As the HTTP library looks a host up; with port 0, which stands for any free one.
Addresses addresses_of(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const char* name = host.empty() ? nullptr : host.c_str();
  return Addresses(::getaddrinfo(name, "0", &hints, &found) == 0 ? found : nullptr);
}

bool is_ours(const addrinfo& address) {
  const Fd socket(::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, 0));
  return socket && ::bind(socket.get(), address.ai_addr, address.ai_addrlen) == 0;
}

// None without memory for it. Never an empty text, which would stand for the loopback.
std::optional<std::string> numbers_of(const addrinfo& address) {
  std::array<char, NI_MAXHOST> text{};
  const int failed = ::getnameinfo(address.ai_addr, address.ai_addrlen, text.data(), text.size(),
                                   nullptr, 0, NI_NUMERICHOST);
  if (failed != 0) return std::nullopt;
  return text.data();
}

}  // namespace

std::string bind_address(const std::string& host) {
  const Addresses addresses = addresses_of(host);
  for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
    if (is_ours(*address)) return numbers_of(*address).value_or(host);
  }
  return host;
}

}  // namespace spotserver
