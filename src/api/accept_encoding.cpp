#include "api/accept_encoding.hpp"

#include <algorithm>
#include <optional>

namespace spotserver {
namespace {

// member = coding [ blanks ";" blanks "q=" weight ]
// weight = "0" [ "." *3digit ] / "1" [ "." *3"0" ]
struct Member {
  std::string_view coding;
  int weight = 1000;  // thousandths
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool sameWord(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, lower, lower);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlank = " \t";
  text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
  return text.substr(0, text.find_last_not_of(kBlank) + 1);
}

// Takes what stands before the first `separator`, or all of it, off the front of `rest`.
std::string_view takeUpTo(std::string_view& rest, char separator) {
  const std::string_view taken = rest.substr(0, rest.find(separator));
  rest.remove_prefix(std::min(taken.size() + 1, rest.size()));
  return taken;
}

// "0.5" is 500.
std::optional<int> weightOf(std::string_view text) {
  if (text.empty() || text.size() > 5 || (text.size() > 1 && text[1] != '.')) return std::nullopt;
  int weight = 0;
  int unit = 1000;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i == 1) continue;  // the point
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    weight += unit * (text[i] - '0');
    unit /= 10;
  }
  return weight <= 1000 ? std::optional(weight) : std::nullopt;
}

std::optional<Member> memberOf(std::string_view text) {
  const bool weighted = text.find(';') != text.npos;
  Member member{.coding = trimmed(takeUpTo(text, ';'))};
  if (member.coding.empty()) return std::nullopt;
  if (!weighted) return member;
  text = trimmed(text);
  if (text.size() < 2 || !sameWord(text.substr(0, 2), "q=")) return std::nullopt;
  const auto weight = weightOf(text.substr(2));
  if (!weight) return std::nullopt;
  member.weight = *weight;
  return member;
}

void raise(std::optional<int>& weight, int to) { weight = std::max(weight.value_or(to), to); }

}  // namespace

bool prefersGzip(std::string_view accept_encoding) {
  std::optional<int> gzip;
  std::optional<int> identity;
  std::optional<int> others;
  while (!accept_encoding.empty()) {
    const auto member = memberOf(takeUpTo(accept_encoding, ','));
    if (!member) continue;
    const auto is = [&](std::string_view coding) { return sameWord(member->coding, coding); };
    if (is("gzip") || is("x-gzip")) raise(gzip, member->weight);
    if (is("identity")) raise(identity, member->weight);
    if (is("*")) raise(others, member->weight);
  }
  const int gzip_weight = gzip.value_or(others.value_or(0));
  return gzip_weight > 0 && gzip_weight >= identity.value_or(others.value_or(0));
}

}  // namespace spotserver
