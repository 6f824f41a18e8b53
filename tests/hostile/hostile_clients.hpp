// Clients that mean harm, for the tests and for the measurements.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "e2e/tls_client.hpp"

namespace spotserver::hostile {

using Milliseconds = std::chrono::duration<double, std::milli>;

// Connections that hold a worker each and ask for nothing. They stay as long as the crowd.
class Crowd {
 public:
  enum class Kind {
    kSilent,     // connected, no handshake
    kIdle,       // one request answered, then kept open
    kTrickling,  // in a request, one byte of a header every five seconds
    kDeep,       // the same in a request of a kilobyte, which must wait for its turn
    kBody,       // the same in a body
  };
  Crowd(Kind kind, int port, std::size_t peers);

  std::size_t size() const { return sockets_.size() + clients_.size(); }

 private:
  std::deque<Fd> sockets_;
  std::deque<e2e::TlsClient> clients_;
  std::jthread trickle_;  // ends before its clients
};

const char* nameOf(Crowd::Kind kind);

// Range headers about as long as the library takes a header, where a recursive expression matches
// them: one range with a number of 8,100 digits, and the same short one over and over.
//   manyRanges("0-0")  // "bytes=0-0,0-0,0-0,..."; "-" is the whole document
std::string longRange();
std::string manyRanges(const std::string& range);

// A request whose body would cost memory.
struct HarmfulBody {
  std::string name;
  std::string head;
  std::string body;  // as much of it as is sent
};

// One of each kind that the HTTP library would unpack, collect or wait for. In bytes: what the
// compressed ones unpack to, and what the others carry.
std::vector<HarmfulBody> harmfulBodies(std::size_t unpacked, std::size_t plain);

// Sends it and takes the answer. The server may close while the body is still under way: not all
// of it needs to get through.
e2e::Response send(const HarmfulBody& request, int port);

// How long a GET of the health path takes on a connection of its own, handshake included. Throws
// when the answer is not a 200.
Milliseconds timeOfHealth(int port, const e2e::Headers& headers = {});

// The value that `share` of the samples do not exceed, e.g. 0.99. There is at least one sample.
Milliseconds quantile(std::vector<Milliseconds> samples, double share);

}  // namespace spotserver::hostile
