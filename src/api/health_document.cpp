#include "api/health_document.hpp"

#include "server/json_text.hpp"
#include "server/version.hpp"

namespace spotserver {

HealthDocument::HealthDocument(bool demo, const std::string& fingerprint) {
  head_ = "{\"service\":\"corvane-spot-server\",\"version\":";
  json_quote(head_, kVersion);
  head_ += ",\"mode\":";
  json_quote(head_, demo ? "demo" : "live");
  head_ += ",\"server_time\":";
  tail_ = ",\"fingerprint_sha256\":";
  json_quote(tail_, fingerprint);
  tail_ += '}';
}

std::string HealthDocument::at(double now) const {
  const std::string time = json_number(0, now);
  std::string body;
  body.reserve(head_.size() + time.size() + tail_.size());
  body += head_;
  body += time;
  body += tail_;
  return body;
}

}  // namespace spotserver
