// Log lines for the tests of spots/all_txt, each read by the production and the plain form.
#pragma once

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "edge_of_memory.hpp"
#include "spots/all_txt.hpp"
#include "spots/all_txt_reference.hpp"

namespace spotserver {

inline constexpr double kTime = 1'741'947'330;  // 250314_101530

// Production and plain form read the line alike; returns what they read. A blank in front changes
// nothing but takes the line out of its usual shape: so both readers of the production form see it.
// Nor does it matter which lines were read before. No byte beyond the line is looked at.
inline std::optional<AllTxtRecord> parseAlike(const std::string& line) {
  static LineHead last;
  static const EdgeOfMemory memory;
  const auto end = memory.atEnd(line);
  auto record = parseAllTxtLine(end);
  for (const auto& other : {parseAllTxtLine(" " + line), parseAllTxtLine(end, last)}) {
    EXPECT_TRUE(reference::same(record, other)) << testing::PrintToString(line);
  }
  const auto plain = reference::parseAllTxtLine(line);
  EXPECT_TRUE(reference::same(record, plain))
      << testing::PrintToString(line) << "\n  found " << reference::describe(record) << "\n  plain "
      << reference::describe(plain);
  return record;
}

inline void expectAlike(const std::string& line) {
  if (!testing::Test::HasFailure()) parseAlike(line);
}

inline std::string withFrequency(const std::string& text) {
  return "250314_101530 " + text + " Rx FT8 -12 0.2 1234 CQ N0CALL FN42";
}
inline std::string withSnr(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 " + text + " 0.2 1234 CQ N0CALL FN42";
}
inline std::string withTimeOffset(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 " + text + " 1234 CQ N0CALL FN42";
}
inline std::string withAudioOffset(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 0.2 " + text + " CQ N0CALL FN42";
}
inline std::string withMessage(const std::string& text) {
  return "250314_101530 14.074 Rx FT8 -12 0.2 1234" + text;
}
inline std::string withTime(const std::string& text) {
  return text + " 14.074 Rx FT8 -12 0.2 1234 CQ N0CALL FN42";
}

}  // namespace spotserver
