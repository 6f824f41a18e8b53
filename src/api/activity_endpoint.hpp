// GET /api/v1/activity: the thin HTTP adapter around token gate, spot store and document.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>

#include <httplib.h>

#include "api/token_gate.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {

// The views on offer.
inline constexpr std::array kHours{1, 6, 24};
inline constexpr int kDefaultHours = 6;
inline constexpr std::array kSmoothings{1, 3, 5};  // minutes
inline constexpr int kDefaultSmoothing = 3;

// What the endpoint works with; all of it outlives the server it is registered on.
struct ActivityEndpoint {
  TokenThrottle& throttle;
  const std::string& access_token;
  SpotStore& store;
  double reload_interval = 15;  // seconds between two looks at the station's files
};

// A query value as a decimal integer: leading blanks and a sign, then digits up to the first other
// character. `fallback` when that is not one of `allowed`, holds no number or is beyond the type.
//   viewParameter(" +6h", kHours, 6) == 6    viewParameter("2", kHours, 6) == 6
int viewParameter(std::string_view text, std::span<const int> allowed, int fallback);

// True when the request may proceed; otherwise `response` is complete: 401 after a wrong token,
// 429 while the client's address is locked out.
bool authorize(const httplib::Request& request, httplib::Response& response,
               TokenThrottle& throttle, const std::string& access_token);

// Answers one request, with gzip for a client that prefers it. Locks one thing at a time: the
// throttle, then the store for refresh and answer; none while the text is written.
// The answer needs finishJson before it leaves, a refusal too.
void handleActivity(const ActivityEndpoint& endpoint, const httplib::Request& request,
                    httplib::Response& response);

}  // namespace spotserver
