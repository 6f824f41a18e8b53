// The view that a query string asks for, against strtoll and a plain reading of the string.
// Input: what stands behind the "?".
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "api/activity_endpoint.hpp"

namespace spotserver {
namespace {

int plainParameter(const std::string& text, std::span<const int> allowed, int fallback) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, 10);
  for (const int one : allowed) {
    if (value == one && end != text.c_str() && errno == 0) return one;
  }
  return fallback;
}

// The value of the first parameter called `name`; nullopt where the library's own rules for blanks,
// escapes and odd equals signs decide.
std::optional<std::string> plainValue(const std::string& query, const std::string& name) {
  if (query.find_first_of("%+ \t") != std::string::npos) return std::nullopt;
  std::optional<std::string> value;
  std::istringstream in(query);
  for (std::string pair; std::getline(in, pair, '&');) {
    const std::size_t equals = pair.find('=');
    if (equals == 0 || equals != pair.rfind('=')) return std::nullopt;
    if (value || pair.substr(0, equals) != name) continue;
    value = equals == std::string::npos ? "" : pair.substr(equals + 1);
  }
  return value.value_or("");
}

[[noreturn]] void disagree(std::string_view about, const std::string& text, int found, int plain) {
  std::fprintf(stderr, "%.*s of \"%s\": %d, plain form %d\n", static_cast<int>(about.size()),
               about.data(), text.c_str(), found, plain);
  std::abort();
}

struct Parameter {
  const char* name;
  std::span<const int> allowed;
  int fallback;
};

const Parameter kParameters[] = {{"hours", kHours, kDefaultHours},
                                 {"smoothing", kSmoothings, kDefaultSmoothing}};

// The whole text as one value, cut to exactly its size, so that overruns show.
void checkValue(const std::string& text, const Parameter& parameter) {
  const std::vector<char> exact(text.begin(), text.end());
  const int found =
      viewParameter({exact.data(), exact.size()}, parameter.allowed, parameter.fallback);
  const int plain = plainParameter(text, parameter.allowed, parameter.fallback);
  if (found != plain) disagree(parameter.name, text, found, plain);
}

}  // namespace
}  // namespace spotserver

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace spotserver;
  const std::string query(data, data + size);
  httplib::Request request;
  httplib::detail::parse_query_text(query, request.params);
  for (const Parameter& parameter : kParameters) {
    checkValue(query, parameter);
    const std::string value = request.get_param_value(parameter.name);
    checkValue(value, parameter);
    const auto plain = plainValue(query, parameter.name);
    if (!plain || value == *plain) continue;
    std::fprintf(stderr, "%s in \"%s\": \"%s\", plain form \"%s\"\n", parameter.name, query.c_str(),
                 value.c_str(), plain->c_str());
    std::abort();
  }
  return 0;
}
