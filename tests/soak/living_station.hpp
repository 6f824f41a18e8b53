// A station whose files change all the time: the log grows, ends in half a line, is rotated,
// replaced and cut; the history gets new minutes; the country file learns and forgets a country.
#pragma once

#include <chrono>
#include <functional>
#include <random>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

#include "e2e/station.hpp"
#include "history_file.hpp"
#include "soak/ledger.hpp"

namespace spotserver::soak {

// Holds a day of reception from the start.
class LivingStation {
 public:
  // `caught_up`: returns once every server has read all of the files. Some changes wait for it:
  // lines that nobody read would be gone with a rotated log, and a server reads the history and the
  // country file before the log, so that a line written after a change of these could be read
  // without it.
  LivingStation(const e2e::Station& station, std::uint64_t seed);

  const Ledger& ledger() const { return ledger_; }
  std::string historyPath() const { return station_.stateDir() + "/history.sqlite3"; }

  // One change after another, each `pause` after the last, until `stop`. Returns their number.
  std::size_t live(const std::function<void()>& caught_up, std::chrono::milliseconds pause,
                   std::stop_token stop);

 private:
  void writeDay();
  void change(std::size_t step, const std::function<void()>& caught_up);
  void appendLine();
  void appendJunk();
  void rotate();
  void cutShort();
  void bringBackWholeLog();
  void addMinute(std::int64_t minute);
  void writeCountries(bool with_quizland);

  e2e::Heard lineAt(std::int64_t time);
  bool counts(const std::string& callsign) const;

  const e2e::Station& station_;
  Ledger ledger_;
  std::mt19937_64 random_;
  HistoryFile history_;
  std::string plain_countries_;
  bool quizland_ = false;
  int country_writes_ = 0;
  int channels_ = 0;
};

}  // namespace spotserver::soak
