// OpenSSL's random generator broken for the length of a scope: RAND_bytes reports failure.
#pragma once

#include <openssl/rand.h>

namespace spotserver {

// OpenSSL 3 calls these functions deprecated, but has no newer way to put a generator in their
// place while the program runs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

class FailingRandom {
 public:
  FailingRandom() { RAND_set_rand_method(&kBroken); }
  ~FailingRandom() { RAND_set_rand_method(before_); }
  FailingRandom(const FailingRandom&) = delete;
  FailingRandom& operator=(const FailingRandom&) = delete;

 private:
  static int fail(unsigned char* /*buffer*/, int /*size*/) { return 0; }
  static constexpr RAND_METHOD kBroken{nullptr, fail, nullptr, nullptr, fail, nullptr};
  const RAND_METHOD* const before_ = RAND_get_rand_method();
};

#pragma GCC diagnostic pop

}  // namespace spotserver
