// The station's files in states that a decoder or a receiver does not leave them in, for the tests
// and for the measurements.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <sys/stat.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "history_file.hpp"

namespace spotserver::hostile {

inline std::string historyPathOf(const e2e::Station& station) {
  return station.stateDir() + "/history.sqlite3";
}

// Nobody writes to a FIFO where the log, the country file and the history should be.
inline void placeFifos(const e2e::Station& station) {
  std::filesystem::create_directories(station.stateDir());
  std::filesystem::remove(station.countryFile());
  for (const std::string& path : {station.log(), station.countryFile(), historyPathOf(station)}) {
    if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("Cannot make FIFO " + path);
  }
}

// Lets the log end in a hole of so many bytes, which read as zeros and take no room on the disk.
inline void appendHole(const e2e::Station& station, std::uintmax_t bytes) {
  const auto size = std::filesystem::file_size(station.log());
  std::filesystem::resize_file(station.log(), size + bytes);
}

// A history whose table is a view that never ends.
inline void makeEndlessHistory(const e2e::Station& station) {
  HistoryFile history(historyPathOf(station));
  history.exec("DROP TABLE minutes");
  history.exec(
      "CREATE VIEW minutes AS WITH RECURSIVE endless(n) AS (SELECT 1 UNION ALL SELECT n+1 FROM "
      "endless) SELECT 'RX' || n AS receiver, 14074000 AS frequency, 'FT8' AS mode, "
      "CAST(strftime('%s','now') AS INTEGER)/60-5 AS minute, 1 AS mask, zeroblob(64) AS counts "
      "FROM endless");
}

// Adds a row of two minutes ago whose receiver has a name of so many bytes.
inline void addHugeField(HistoryFile& history, std::int64_t bytes) {
  history.exec("INSERT INTO minutes VALUES(CAST(zeroblob(" + std::to_string(bytes) +
               ") AS TEXT),14074000,'FT8'," + std::to_string(e2e::wallClock() / 60 - 2) +
               ",15,zeroblob(64))");
}

// Bytes of all files without a name that the process holds open: temporary ones.
inline std::uintmax_t temporaryBytes(pid_t pid) {
  std::uintmax_t bytes = 0;
  std::error_code gone;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
    struct stat status {};
    if (::stat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
    if (status.st_nlink == 0) bytes += static_cast<std::uintmax_t>(status.st_blocks) * 512;
  }
  return bytes;
}

}  // namespace spotserver::hostile
