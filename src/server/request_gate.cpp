#include "server/request_gate.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace spotserver {
namespace {

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return text;
}

// Plain decimal digits; empty for anything else and for numbers beyond the type.
std::optional<std::uint64_t> plain_number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// The one length announced; empty when there is none, several or an odd one.
std::optional<std::uint64_t> announced_length(const httplib::Request& request) {
  if (request.get_header_value_count("Content-Length") != 1) return std::nullopt;
  return plain_number(request.get_header_value("Content-Length"));
}

bool library_reads_body(const httplib::Request& request) {
  const auto& method = request.method;
  return method == "POST" || method == "PUT" || method == "PATCH" || method == "PRI" ||
         method == "DELETE";
}

bool is_plain(const httplib::Request& request) {
  return !request.has_header("Transfer-Encoding") && !request.has_header("Content-Encoding") &&
         lowered(request.get_header_value("Content-Type")).rfind("multipart/", 0) != 0;
}

}  // namespace

BodyVerdict judge_body(const httplib::Request& request) {
  const bool has_length = request.has_header("Content-Length");
  const bool has_coding = request.has_header("Transfer-Encoding");
  if (!library_reads_body(request)) {
    const bool announced = has_coding || (has_length && announced_length(request) != 0u);
    return announced ? BodyVerdict::kRouteThenClose : BodyVerdict::kRoute;
  }
  if (request.method == "DELETE" && !has_length && !has_coding) return BodyVerdict::kRoute;
  const auto length = announced_length(request);
  const bool small = length && *length <= kMaxBody;
  return small && is_plain(request) ? BodyVerdict::kRead : BodyVerdict::kRefuse;
}

bool are_modest(const httplib::Ranges& ranges) {
  if (ranges.size() <= 2) return true;
  if (ranges.size() > kMaxRanges) return false;
  constexpr auto kOpen = std::numeric_limits<ssize_t>::max();
  ssize_t end = -1;                           // of the ranges so far
  for (const auto& [first, last] : ranges) {  // -1: not given
    if (end == kOpen || (first >= 0 && first <= end)) return false;
    end = first < 0 || last < 0 ? kOpen : last;
  }
  return true;
}

}  // namespace spotserver
