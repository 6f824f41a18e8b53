// The JSON document of the health endpoint.
#pragma once

#include <string>

namespace spotserver {

// One JSON object, without any whitespace; keys and their order are fixed:
//   {"service":"corvane-spot-server","version":"0.3.0","mode":"live",
//    "server_time":1763175600,"fingerprint_sha256":"AB:..."}
// (broken here to fit the page). All but the time is written once. Constant afterwards: any number
// of threads may ask.
class HealthDocument {
 public:
  // `fingerprint` is shown as it stands, quoted.
  HealthDocument(bool demo, const std::string& fingerprint);

  // `now` in UTC epoch seconds, shown rounded to whole ones. Cost: a copy.
  std::string at(double now) const;

 private:
  std::string head_;  // up to the time
  std::string tail_;
};

}  // namespace spotserver
