// Numbers as the C library's formatter writes them: the plain rule that json_text must agree with.
#pragma once

#include <cmath>
#include <cstdio>
#include <string>

namespace spotserver {

inline std::string plainJsonNumber(int precision, double value) {
  if (!std::isfinite(value)) return "null";
  const auto size = static_cast<std::size_t>(std::snprintf(nullptr, 0, "%.*f", precision, value));
  std::string text(size, '\0');
  std::snprintf(text.data(), size + 1, "%.*f", precision, value);
  if (text.find('.') == std::string::npos) return text;
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

}  // namespace spotserver
