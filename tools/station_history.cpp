#include "station_history.hpp"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include <unistd.h>

#include "spots/mode.hpp"

namespace station {
namespace {

constexpr Tick kTicksPerMinute = 60 * kTicksPerSecond;

constexpr char kSchema[] =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=NORMAL;"
    "CREATE TABLE minutes("
    "  receiver TEXT NOT NULL,"
    "  frequency INTEGER NOT NULL,"
    "  mode TEXT NOT NULL,"
    "  minute INTEGER NOT NULL,"
    "  mask INTEGER NOT NULL,"
    "  counts BLOB NOT NULL,"
    "  PRIMARY KEY(minute, receiver)) WITHOUT ROWID;"
    "PRAGMA user_version=2;";

constexpr char kInsert[] =
    "INSERT OR REPLACE INTO minutes(receiver,frequency,mode,minute,mask,counts)"
    " VALUES(?,?,?,?,?,?)";

void removeDatabase(const std::string& path) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    const std::string file = path + suffix;
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
      throw std::runtime_error("Cannot replace history: " + file);
    }
  }
}

// A slot longer than a minute stands alone in the row of the minute it starts in.
std::size_t slotsPerMinute(const Receiver& receiver) {
  return static_cast<std::size_t>(std::max<Tick>(1, kTicksPerMinute / receiver.slotTicks()));
}

std::string littleEndian(const std::vector<std::uint64_t>& counts) {
  std::string blob;
  for (const std::uint64_t count : counts) {
    for (int shift = 0; shift < 64; shift += 8) blob += static_cast<char>(count >> shift & 0xff);
  }
  return blob;
}

}  // namespace

History::History(const std::string& path) : rows_(receivers().size()) {
  removeDatabase(path);
  sqlite3* raw = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  database_.reset(raw);
  if (result != SQLITE_OK) throw std::runtime_error("Cannot write history: " + path);
  sqlite3_busy_timeout(raw, 5'000);
  execute(kSchema);
  sqlite3_stmt* statement = nullptr;
  check(sqlite3_prepare_v2(raw, kInsert, -1, &statement, nullptr), SQLITE_OK);
  insert_.reset(statement);
}

void History::record(const Slot& slot) {
  Row& row = rows_[slot.receiver_index];
  const std::int64_t minute = slot.start / kTicksPerMinute;
  if (minute != row.minute) {
    save(slot.receiver, row);
    row.minute = minute;
    row.mask = 0;
    row.counts.assign(std::max<std::size_t>(8, slotsPerMinute(slot.receiver)), 0);
  }
  if (!slot.listened) return;
  const Tick place = slot.start % kTicksPerMinute / slot.receiver.slotTicks();
  row.mask |= std::int64_t{1} << place;
  row.counts[static_cast<std::size_t>(place)] = slot.decodes;
  row.unsaved = true;
}

void History::commit() {
  for (std::size_t i = 0; i < rows_.size(); ++i) save(receivers()[i], rows_[i]);
  if (in_transaction_) execute("COMMIT");
  in_transaction_ = false;
}

void History::save(const Receiver& receiver, Row& row) {
  if (!row.unsaved) return;
  if (!in_transaction_) execute("BEGIN");
  in_transaction_ = true;
  const std::string name = receiver.name();
  const std::string mode(spotserver::modeName(receiver.mode));
  const std::string counts = littleEndian(row.counts);
  sqlite3_stmt* insert = insert_.get();
  const auto text = [&](int column, const std::string& value) {
    check(sqlite3_bind_text(insert, column, value.data(), static_cast<int>(value.size()),
                            SQLITE_STATIC),
          SQLITE_OK);
  };
  text(1, name);
  check(sqlite3_bind_int64(insert, 2, receiver.dial_hz), SQLITE_OK);
  text(3, mode);
  check(sqlite3_bind_int64(insert, 4, row.minute), SQLITE_OK);
  check(sqlite3_bind_int64(insert, 5, row.mask), SQLITE_OK);
  check(sqlite3_bind_blob(insert, 6, counts.data(), static_cast<int>(counts.size()), SQLITE_STATIC),
        SQLITE_OK);
  check(sqlite3_step(insert), SQLITE_DONE);
  check(sqlite3_reset(insert), SQLITE_OK);
  sqlite3_clear_bindings(insert);
  row.unsaved = false;
}

void History::execute(const char* sql) {
  check(sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr), SQLITE_OK);
}

void History::check(int result, int expected) const {
  if (result == expected) return;
  throw std::runtime_error(std::string("Cannot write history: ") + sqlite3_errmsg(database_.get()));
}

}  // namespace station
