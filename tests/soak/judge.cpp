#include "soak/judge.hpp"

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace spotserver::soak {
namespace {

constexpr std::size_t kMaxKept = 200;  // documents; the largest have half a megabyte

std::string behindGenerated(const std::string& document) {
  return document.substr(std::min(document.find(",\"mode\""), document.size()));
}

// The second at which the bands were computed: where each of their curves ends.
std::optional<std::int64_t> computedAt(const std::string& body) {
  static const std::string kPoint = "{\"t\":";
  const std::size_t last = body.rfind(kPoint);
  if (last == std::string::npos) return std::nullopt;
  return std::strtoll(body.c_str() + last + kPoint.size(), nullptr, 10);
}

std::string firstDifference(const std::string& got, const std::string& right) {
  const auto at = static_cast<std::size_t>(
      std::mismatch(got.begin(), got.end(), right.begin(), right.end()).first - got.begin());
  const std::size_t from = at < 100 ? 0 : at - 100;
  return "got      ..." + got.substr(from, 200) + "\n  expected ..." + right.substr(from, 200);
}

}  // namespace

std::string Judge::complaint(const std::string& body, const Circumstances& about) {
  const std::int64_t generated = e2e::generatedAt(body);
  if (generated < about.asked || generated > about.answered) return "generated at another time";
  const std::int64_t minute = generated / 60;
  const auto computed = computedAt(body);
  if (computed && (*computed / 60 != minute || *computed > about.answered)) {
    return "bands of another minute";
  }
  const std::string got = behindGenerated(body);
  // An answer without bands does not tell its second.
  for (std::int64_t now = computed.value_or(about.answered); now >= computed.value_or(minute * 60);
       --now) {
    for (std::size_t version = about.newest + 1; version-- > about.oldest;) {
      if (got == expected(about, version, now)) return "";
    }
  }
  return firstDifference(got, expected(about, about.newest, computed.value_or(generated)));
}

std::string Judge::expected(const Circumstances& about, std::size_t version, std::int64_t now) {
  const Key key{version, now, about.view.hours, about.view.smoothing, about.source};
  {
    const MutexLock held(mutex_);
    const auto found = computed_.find(key);
    if (found != computed_.end()) return found->second;
  }
  const Contents files = ledger_.at(version);
  const auto slots =
      about.source == Source::kHistory ? files.slots : e2e::slotsOfLog(files.log, about.view, now);
  std::string document =
      behindGenerated(e2e::expectedDocument(about.view, now, slots, files.heard));
  const MutexLock held(mutex_);
  // By version, then time: the first is the oldest.
  while (computed_.size() >= kMaxKept) computed_.erase(computed_.begin());
  return computed_.emplace(key, std::move(document)).first->second;
}

}  // namespace spotserver::soak
