// The history database that the receivers of the station keep: one row per receiver and minute.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "server/owned.hpp"
#include "station_day.hpp"

namespace station {

// Writes table `minutes` (schema version 2) in write-ahead mode, so that others can read meanwhile.
//
//   History history("history.sqlite3");
//   history.record(slot);  // as slots end, in that order
//   history.commit();      // readers see everything recorded so far
//
// A slot that was not listened to leaves its mask bit clear; a quiet one sets it with a count of 0.
// Throws std::runtime_error with SQLite's own text.
class History {
 public:
  // Makes the database anew; one that lies at `path` is removed.
  explicit History(const std::string& path);

  void record(const Slot& slot);
  void commit();

 private:
  // The minute that a receiver is in.
  struct Row {
    std::int64_t minute = 0;
    std::int64_t mask = 0;
    std::vector<std::uint64_t> counts;  // per slot, at least eight
    bool unsaved = false;
  };

  void execute(const char* sql);
  void save(const Receiver& receiver, Row& row);
  void check(int result, int expected) const;

  using Connection = std::unique_ptr<sqlite3, spotserver::With<sqlite3_close>>;
  using Statement = std::unique_ptr<sqlite3_stmt, spotserver::With<sqlite3_finalize>>;

  Connection database_;
  Statement insert_;
  bool in_transaction_ = false;
  std::vector<Row> rows_;  // by position in receivers()
};

}  // namespace station
