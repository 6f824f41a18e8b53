#include "api/activity_endpoint.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <optional>

#include "api/accept_encoding.hpp"
#include "api/activity_cache.hpp"
#include "api/json_answer.hpp"

namespace spotserver {
namespace {

// The library's own look-up ends at a NUL, and so would a token.
std::optional<std::string> firstHeader(const httplib::Request& request, const char* name) {
  const auto [begin, end] = request.headers.equal_range(name);
  return begin == end ? std::nullopt : std::optional(begin->second);
}

struct Refusal {
  int status;
  const char* header;
  const char* value;
  const char* body;
};

constexpr Refusal kUnauthorized{401, "WWW-Authenticate", "Bearer", "{\"error\":\"unauthorized\"}"};
constexpr Refusal kLockedOut{429, "Retry-After", "60",
                             "{\"error\":\"too many wrong tokens, try again in a minute\"}"};

void refuse(const httplib::Request& request, httplib::Response& response, const Refusal& refusal) {
  response.status = refusal.status;
  response.set_header(refusal.header, refusal.value);
  setJson(request, response, refusal.body);
}

// The token a request presents. The library has taken what looks like a percent escape in a header
// value for one; a token of ours that holds such characters is known in that form too.
std::string presentedTo(const std::string& access_token, const httplib::Request& request) {
  auto presented =
      presentedToken(firstHeader(request, "Authorization"), firstHeader(request, "X-Spot-Token"));
  const bool has_escape = access_token.find('%') != access_token.npos;
  if (has_escape && tokensEqual(presented, httplib::detail::decode_url(access_token, false))) {
    return access_token;
  }
  return presented;
}

// All values of a header that is a list, which may come in several lines.
std::string joinedHeader(const httplib::Request& request, const char* name) {
  std::string joined;
  const auto [begin, end] = request.headers.equal_range(name);
  for (auto line = begin; line != end; ++line) {
    if (line != begin) joined += ',';
    joined += line->second;
  }
  return joined;
}

// A range is one of the document as it is.
bool wantsGzip(const httplib::Request& request) {
  return !request.has_header("Range") && prefersGzip(joinedHeader(request, "Accept-Encoding"));
}

void sendAnswer(const ActivityAnswer& answer, double now, const httplib::Request& request,
                httplib::Response& response) {
  auto gzipped = wantsGzip(request) ? answer.gzippedDocument(now) : std::nullopt;
  if (gzipped) {
    response.set_header("Content-Encoding", "gzip");
    response.set_header("Vary", "Accept-Encoding");
  }
  setJson(request, response, gzipped ? *std::move(gzipped) : answer.document(now));
}

}  // namespace

int viewParameter(std::string_view text, std::span<const int> allowed, int fallback) {
  constexpr std::string_view kBlank = " \t\n\v\f\r";
  text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  // from_chars would take a second sign.
  if (text.empty() || text.front() < '0' || text.front() > '9') return fallback;
  int value = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc{}) {
    return fallback;
  }
  if (negative) value = -value;
  return std::find(allowed.begin(), allowed.end(), value) != allowed.end() ? value : fallback;
}

bool authorize(const httplib::Request& request, httplib::Response& response,
               TokenThrottle& throttle, const std::string& access_token) {
  const auto now = std::chrono::steady_clock::now();
  const auto presented = presentedTo(access_token, request);
  switch (throttle.check(request.remote_addr, presented, access_token, now)) {
    case TokenVerdict::kAllowed:
      return true;
    case TokenVerdict::kUnauthorized:
      refuse(request, response, kUnauthorized);
      return false;
    case TokenVerdict::kLockedOut:
      break;
  }
  refuse(request, response, kLockedOut);
  return false;
}

void handleActivity(const ActivityEndpoint& endpoint, const httplib::Request& request,
                    httplib::Response& response) {
  if (!authorize(request, response, endpoint.throttle, endpoint.access_token)) return;
  const auto now = static_cast<double>(std::time(nullptr));
  const int hours = viewParameter(request.get_param_value("hours"), kHours, kDefaultHours);
  const int smoothing =
      viewParameter(request.get_param_value("smoothing"), kSmoothings, kDefaultSmoothing);
  const auto answer =
      activityAt(*endpoint.store.refresh(now, endpoint.reload_interval), hours, smoothing, now);
  sendAnswer(*answer, now, request, response);
}

}  // namespace spotserver
