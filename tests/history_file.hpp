// Writes history databases the way the receivers do.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "server/owned.hpp"

namespace spotserver {

// Decode counts as stored: little-endian, padded with zeros to `entries`.
inline std::string countsBlob(std::vector<std::uint64_t> counts, std::size_t entries = 8) {
  counts.resize(entries);
  std::string blob;
  for (std::uint64_t count : counts) {
    for (int byte = 0; byte < 8; ++byte, count >>= 8) blob += static_cast<char>(count & 0xff);
  }
  return blob;
}

struct MinuteRow {
  std::string receiver = "RX1";
  std::int64_t frequency = 14'074'000;
  std::string mode = "FT8";
  std::int64_t minute = 0;
  std::int64_t mask = 0b1111;
  std::string counts = countsBlob({1, 2, 3, 4});
};

//   HistoryFile history(dir.path("history.sqlite3"));
//   history.add({.minute = 100, .mask = 0b0101, .counts = countsBlob({3, 0, 7, 9})});
//   history.exec("INSERT INTO minutes VALUES('RX1',NULL,...)");
class HistoryFile {
 public:
  // Creates the table, or opens the file that is there.
  explicit HistoryFile(const std::string& path, int user_version = 2,
                       const std::string& journal_mode = "DELETE") {
    sqlite3* handle = nullptr;
    const int result = sqlite3_open(path.c_str(), &handle);
    database_.reset(handle);
    if (result != SQLITE_OK) throw std::runtime_error(sqlite3_errmsg(handle));
    sqlite3_busy_timeout(handle, 60'000);
    exec("PRAGMA journal_mode=" + journal_mode);
    exec("PRAGMA synchronous=OFF");
    exec("PRAGMA user_version=" + std::to_string(user_version));
    exec(
        "CREATE TABLE IF NOT EXISTS minutes(receiver TEXT,frequency INTEGER,mode TEXT,"
        "minute INTEGER,mask INTEGER,counts BLOB)");
  }

  void exec(const std::string& sql) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) return;
    throw std::runtime_error(sql + ": " + sqlite3_errmsg(database_.get()));
  }

  void add(const MinuteRow& row) {
    sqlite3_stmt* handle = nullptr;
    sqlite3_prepare_v2(database_.get(), "INSERT INTO minutes VALUES(?,?,?,?,?,?)", -1, &handle,
                       nullptr);
    const std::unique_ptr<sqlite3_stmt, With<sqlite3_finalize>> insert(handle);
    bindText(handle, 1, row.receiver);
    sqlite3_bind_int64(handle, 2, row.frequency);
    bindText(handle, 3, row.mode);
    sqlite3_bind_int64(handle, 4, row.minute);
    sqlite3_bind_int64(handle, 5, row.mask);
    sqlite3_bind_blob(handle, 6, row.counts.data(), static_cast<int>(row.counts.size()),
                      SQLITE_TRANSIENT);
    if (sqlite3_step(handle) != SQLITE_DONE) {
      throw std::runtime_error(sqlite3_errmsg(database_.get()));
    }
  }

 private:
  static void bindText(sqlite3_stmt* statement, int position, const std::string& text) {
    sqlite3_bind_text(statement, position, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
  }

  std::unique_ptr<sqlite3, With<sqlite3_close>> database_;
};

}  // namespace spotserver
