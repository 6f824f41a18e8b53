#include "server/json_text.hpp"

#include <cmath>
#include <cstdio>

namespace spotserver {
namespace {

void appendEscaped(std::string& out, char c) {
  constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      break;
  }
  const auto byte = static_cast<unsigned char>(c);
  if (byte >= 0x20) {
    out += c;
    return;
  }
  out += "\\u00";
  out += kHex[byte >> 4];
  out += kHex[byte & 0x0f];
}

std::string fixedNotation(int precision, double value) {
  // Every number of a sane answer fits here; 1e300 written out in full does not.
  char buffer[64];
  const int length = std::snprintf(buffer, sizeof buffer, "%.*f", precision, value);
  const auto size = static_cast<std::size_t>(length);
  if (size < sizeof buffer) return {buffer, size};
  std::string text(size, '\0');
  std::snprintf(text.data(), size + 1, "%.*f", precision, value);
  return text;
}

}  // namespace

void json_quote(std::string& out, std::string_view value) {
  out += '"';
  for (const char c : value) appendEscaped(out, c);
  out += '"';
}

std::string json_number(int precision, double value) {
  if (!std::isfinite(value)) return "null";
  std::string text = fixedNotation(precision, value);
  if (text.find('.') == std::string::npos) return text;
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

}  // namespace spotserver
