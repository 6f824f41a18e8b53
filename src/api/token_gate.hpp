// Who may ask: the access token a client presents, and the lock-out after repeated wrong ones.
// Knows nothing of HTTP; the endpoint hands it header values and the time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "server/mutex.hpp"

namespace spotserver {

// The monotonic clock: a change of the wall clock neither shortens nor lengthens a lock-out.
using SteadyTime = std::chrono::steady_clock::time_point;

// Wrong tokens in a row that lock an address out, and for how long.
inline constexpr std::int32_t kWrongTokensToLockOut = 5;
inline constexpr std::chrono::seconds kLockOut{60};

// Addresses remembered at most. Some 20 MB when full, which takes as many addresses with wrong
// tokens: no household has them, but an IPv6 network lends them to anyone.
inline constexpr std::size_t kMaxThrottleEntries = 100'000;

// The token a request presents, from the first value of its Authorization and its X-Spot-Token
// header (nullopt: no such header). What follows exactly "Bearer " in Authorization, untrimmed;
// where that does not begin so, X-Spot-Token as it stands; else the empty string.
//   presentedToken("Bearer 12345678", "x") == "12345678"
//   presentedToken("Basic eDp5", "x") == "x"    presentedToken("Bearer", {}) == ""
std::string presentedToken(std::optional<std::string> authorization,
                           std::optional<std::string> spot_token);

// Whether the two are the same bytes. The time taken depends on the lengths alone, never on where
// the first difference lies.
bool tokensEqual(std::string_view presented, std::string_view expected);

enum class TokenVerdict {
  kAllowed,
  kUnauthorized,  // wrong token; the one that starts a lock-out too
  kLockedOut,     // whatever the token
};

struct ThrottleEntry {
  std::int32_t wrong_count = 0;  // wrong tokens since the last lock-out or success
  SteadyTime blocked_until{};    // locked out while now is earlier
};

// Counts wrong tokens by client address. Safe to share between threads: every check is one step
// under the throttle's own lock.
//
//   TokenThrottle throttle;
//   switch (throttle.check("192.0.2.7", presented, access_token, std::chrono::steady_clock::now()))
class TokenThrottle {
 public:
  // Judges one request of `address` at `now` (taken before the call). An address locked out stays
  // so until the minute is over, and its requests neither count nor extend it. The right token
  // wipes the address's record, a wrong one is counted. When more than kMaxThrottleEntries
  // addresses are on record, the one that has asked for nothing the longest is forgotten. Cost:
  // logarithmic in the addresses on record.
  TokenVerdict check(std::string_view address, std::string_view presented,
                     std::string_view expected, SteadyTime now) SPOT_EXCLUDES(mutex_);

  // Addresses on record.
  std::size_t size() const SPOT_EXCLUDES(mutex_);

 private:
  struct Client {
    std::string address;
    ThrottleEntry entry;
  };
  using Clients = std::list<Client>;

  // The client on record, moved to the end as the one that asked last; clients_.end() when unknown.
  Clients::iterator find(std::string_view address) SPOT_REQUIRES(mutex_);
  Clients::iterator add(std::string_view address) SPOT_REQUIRES(mutex_);
  void forget(Clients::iterator client) SPOT_REQUIRES(mutex_);

  mutable Mutex mutex_;
  Clients clients_ SPOT_GUARDED_BY(mutex_);  // the one that asked last stands last
  // Keys are views of the addresses in clients_.
  std::map<std::string_view, Clients::iterator> by_address_ SPOT_GUARDED_BY(mutex_);
};

}  // namespace spotserver
