#include "api/token_gate.hpp"

#include <utility>

#include <openssl/crypto.h>

namespace spotserver {
namespace {

void countWrongToken(ThrottleEntry& entry, SteadyTime now) {
  if (++entry.wrong_count < kWrongTokensToLockOut) return;
  entry.wrong_count = 0;
  entry.blocked_until = now + kLockOut;
}

}  // namespace

std::string presentedToken(std::optional<std::string> authorization,
                           std::optional<std::string> spot_token) {
  constexpr std::string_view kBearer = "Bearer ";
  if (authorization && authorization->starts_with(kBearer)) {
    return authorization->substr(kBearer.size());
  }
  return std::move(spot_token).value_or("");
}

bool tokensEqual(std::string_view presented, std::string_view expected) {
  if (presented.size() != expected.size()) return false;
  // Ors up the differences of all bytes, where no compiler can make it stop at the first.
  return CRYPTO_memcmp(presented.data(), expected.data(), expected.size()) == 0;
}

TokenVerdict TokenThrottle::check(std::string_view address, std::string_view presented,
                                  std::string_view expected, SteadyTime now) {
  const MutexLock held(mutex_);
  const auto client = find(address);
  const bool known = client != clients_.end();
  // Before the token is looked at: a lock-out tells nothing about it.
  if (known && client->entry.blocked_until > now) return TokenVerdict::kLockedOut;
  if (tokensEqual(presented, expected)) {
    if (known) forget(client);
    return TokenVerdict::kAllowed;
  }
  countWrongToken(known ? client->entry : add(address)->entry, now);
  return TokenVerdict::kUnauthorized;
}

std::size_t TokenThrottle::size() const {
  const MutexLock held(mutex_);
  return clients_.size();
}

TokenThrottle::Clients::iterator TokenThrottle::find(std::string_view address) {
  const auto found = by_address_.find(address);
  if (found == by_address_.end()) return clients_.end();
  clients_.splice(clients_.end(), clients_, found->second);
  return found->second;
}

TokenThrottle::Clients::iterator TokenThrottle::add(std::string_view address) {
  // Built aside and moved over in a step that cannot fail, so that list and map always agree.
  Clients fresh;
  fresh.push_back({std::string(address), {}});
  const auto client = fresh.begin();
  by_address_.emplace(client->address, client);
  clients_.splice(clients_.end(), fresh);
  if (clients_.size() > kMaxThrottleEntries) forget(clients_.begin());
  return client;
}

void TokenThrottle::forget(Clients::iterator client) {
  by_address_.erase(client->address);
  clients_.erase(client);
}

}  // namespace spotserver
