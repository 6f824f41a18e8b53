#include "soak/ledger.hpp"

#include <set>

namespace spotserver::soak {
namespace {

template <typename T>
std::vector<T> slice(const std::vector<T>& all, std::size_t begin, std::size_t end) {
  return {all.begin() + static_cast<std::ptrdiff_t>(begin),
          all.begin() + static_cast<std::ptrdiff_t>(end)};
}

}  // namespace

void Ledger::announceLine(const e2e::Heard& line, bool counts) {
  const MutexLock held(mutex_);
  lines_.push_back(line);
  counted_.push_back(counts);
  if (counts) heard_.push_back(line);
  announce(versions_.back().log_begin);
}

void Ledger::announceSlots(const std::vector<e2e::Slot>& slots) {
  const MutexLock held(mutex_);
  slots_.insert(slots_.end(), slots.begin(), slots.end());
  announce(versions_.back().log_begin);
}

void Ledger::announceEmptyLog() {
  const MutexLock held(mutex_);
  announce(lines_.size());
}

void Ledger::announceWholeLog(const std::function<bool(const std::string& callsign)>& counts) {
  const MutexLock held(mutex_);
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    if (counted_[i] || !counts(lines_[i].callsign)) continue;
    counted_[i] = true;
    heard_.push_back(lines_[i]);
  }
  announce(0);
}

void Ledger::settle() {
  const MutexLock held(mutex_);
  settled_ = versions_.size() - 1;
}

std::size_t Ledger::settled() const {
  const MutexLock held(mutex_);
  return settled_;
}

std::size_t Ledger::announced() const {
  const MutexLock held(mutex_);
  return versions_.size() - 1;
}

Contents Ledger::at(std::size_t number) const {
  const MutexLock held(mutex_);
  const Version& version = versions_.at(number);
  return {slice(lines_, version.log_begin, version.log_end), slice(heard_, 0, version.heard_end),
          slice(slots_, 0, version.slots_end)};
}

Stock Ledger::stockAt(std::size_t number) const {
  const MutexLock held(mutex_);
  const Version& version = versions_.at(number);
  std::set<std::string> callsigns;
  for (std::size_t i = 0; i < version.heard_end; ++i) callsigns.insert(heard_[i].callsign);
  return {version.log_end, callsigns.size(), version.slots_end};
}

std::vector<e2e::Heard> Ledger::lines() const {
  const MutexLock held(mutex_);
  return lines_;
}

void Ledger::announce(std::size_t log_begin) {
  versions_.push_back({log_begin, lines_.size(), heard_.size(), slots_.size()});
}

}  // namespace spotserver::soak
