#include "api/json_answer.hpp"

#include <utility>

namespace spotserver {
namespace {

constexpr const char* kType = "Content-Type";
constexpr const char* kJson = "application/json";
constexpr const char* kFinishedJson = "application/json; finished";  // no type that is compressed

}  // namespace

void setJson(const httplib::Request& request, httplib::Response& response, std::string body) {
  if (response.status >= 400) dropRanges(request);
  response.body = std::move(body);
  response.headers.erase(kType);
  // Of several ranges the library makes one body with the type in each part, and compresses none.
  response.headers.emplace(kType, request.ranges.size() > 1 ? kJson : kFinishedJson);
}

void dropRanges(const httplib::Request& request) {
  // The library only hides that its request may be changed by a handler.
  const_cast<httplib::Request&>(request).ranges.clear();
}

void finishJson(httplib::Response& response) {
  // A look at the few values is cheaper than a search for the name in any case of letters.
  for (auto& [name, value] : response.headers) {
    if (value == kFinishedJson) value = kJson;
  }
}

}  // namespace spotserver
