// The clients: phones that poll, change their mind, walk out of range or got the token wrong.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "e2e/station.hpp"
#include "server/mutex.hpp"
#include "soak/judge.hpp"

namespace spotserver::soak {

// What all phones met, over all servers.
struct Tally {
  std::atomic<std::uint64_t> requests = 0;
  std::atomic<std::uint64_t> documents = 0;  // compared
  std::atomic<std::uint64_t> resets = 0;
  std::atomic<std::uint64_t> refused = 0;     // wrong tokens, 401 or 429
  std::atomic<std::uint64_t> reconnects = 0;  // the server had closed an idle connection
  std::atomic<std::uint64_t> late = 0;        // right only for an earlier look at the files
  std::atomic<std::uint64_t> slow = 0;        // documents that took a second or more
  std::atomic<std::uint64_t> wrong = 0;
  std::atomic<std::uint64_t> errors = 0;

  // Keeps the first few complaints, to be printed at the end.
  void complain(const std::string& what) SPOT_EXCLUDES(mutex);
  std::vector<std::string> complaints() SPOT_EXCLUDES(mutex);

  Mutex mutex;
  std::vector<std::string> kept SPOT_GUARDED_BY(mutex);
};

// One phone, in a thread of its own. Made before the load begins: its first answer may be as old.
class Phone {
 public:
  Phone(int port, Source source, const Ledger& ledger, Judge& judge, Tally& tally,
        std::uint64_t seed);

  // One request every `period` until `end`.
  void poll(e2e::Clock::duration period, e2e::Clock::time_point end);

 private:
  void act();
  void askActivity();
  void askHealth();
  void walkOutOfRange();
  void presentWrongToken();

  // Sends on the connection at hand. One that the server closed while it was idle is replaced once.
  e2e::Response ask(const std::string& path, const e2e::Headers& headers);
  e2e::TlsClient& connection();

  int port_;
  Source source_;
  const Ledger& ledger_;
  Judge& judge_;
  Tally& tally_;
  std::mt19937_64 random_;
  // Version of the files when the activity was last asked for. Where a look at the files takes a
  // second, whoever waited for it is answered from it. It may have begun before this question, but
  // not before the last answer.
  std::size_t settled_before_;
  std::unique_ptr<e2e::TlsClient> client_;
};

}  // namespace spotserver::soak
