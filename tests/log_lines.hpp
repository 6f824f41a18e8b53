// Lines of a decode log, made up for tests.
#pragma once

#include <string>
#include <string_view>

#include <time.h>

namespace spotserver {

// "YYMMDD_HHMMSS" of a time in UTC epoch seconds.
//   timestamp(1'741'947'330)  // "250314_101530"
inline std::string timestamp(double t) {
  const time_t seconds = static_cast<time_t>(t);
  struct tm utc {};
  gmtime_r(&seconds, &utc);
  char text[32];
  return {text, strftime(text, sizeof text, "%y%m%d_%H%M%S", &utc)};
}

// One received FT8 line with its newline.
//   decodeLine(1'741'947'330, "CQ N0CALL FN42")
//       // "250314_101530 14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42\n"
inline std::string decodeLine(double t, std::string_view message,
                              std::string_view megahertz = "14.074") {
  return timestamp(t) + " " + std::string(megahertz) + " Rx FT8 -12 0.2 1234 " +
         std::string(message) + "\n";
}

}  // namespace spotserver
