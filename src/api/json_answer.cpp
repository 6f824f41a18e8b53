#include "api/json_answer.hpp"

#include <utility>

namespace spotserver {
namespace {

constexpr const char* kType = "Content-Type";
constexpr const char* kJson = "application/json";
constexpr const char* kFinishedJson = "application/json; finished";  // no type that is compressed

void setType(httplib::Response& response, const char* type) {
  response.headers.erase(kType);
  response.set_header(kType, type);
}

}  // namespace

void setJson(const httplib::Request& request, httplib::Response& response, std::string body) {
  response.body = std::move(body);
  // Of several ranges the library makes one body with the type in each part, and compresses none.
  setType(response, request.ranges.size() > 1 ? kJson : kFinishedJson);
}

void finishJson(httplib::Response& response) {
  if (response.get_header_value(kType) == kFinishedJson) setType(response, kJson);
}

}  // namespace spotserver
