#include "history/history_reader.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <thread>

#include <sqlite3.h>

#include "api/rate_index.hpp"
#include "server/owned.hpp"
#include "spots/mode.hpp"

namespace spotserver {
namespace {

using Connection = std::unique_ptr<sqlite3, With<sqlite3_close>>;
using Statement = std::unique_ptr<sqlite3_stmt, With<sqlite3_finalize>>;

constexpr int kNewestSchema = 2;

// Longest text, blob or row that SQLite may build for us. Receivers have short names; a field of
// 400 MB fails the read instead.
constexpr int kMaxFieldBytes = 64 << 10;

// How often SQLite asks whether to go on: every so many steps of its virtual machine, some 50 us.
constexpr int kStepsBetweenChecks = 1000;

// Pause before a locked file is tried again.
constexpr std::chrono::milliseconds kRetryPause{5};

constexpr char kSelectWindow[] =
    "SELECT receiver,frequency,mode,minute,mask,counts FROM minutes WHERE minute BETWEEN ? AND ? "
    "ORDER BY minute,receiver";

// When a read gives up. SQLite asks it while it waits and while it works.
class Patience {
 public:
  Patience(std::stop_token stop, const HistoryLimits& limits)
      : stop_(std::move(stop)),
        deadline_(std::chrono::steady_clock::now() + limits.time),
        memory_(limits.memory) {}

  // Busy handler: sleeps a little and returns 1 to try again, or 0 to give up.
  static int afterBusy(void* self, int /*tries*/) {
    const auto& patience = *static_cast<const Patience*>(self);
    const auto left = patience.deadline_ - std::chrono::steady_clock::now();
    if (left <= left.zero() || patience.stop_.stop_requested()) return 0;
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kRetryPause));
    return 1;
  }

  // Progress handler: returns 1 to interrupt. SQLite serves nothing else in this process, so what
  // it holds is what this read holds.
  static int whileWorking(void* self) {
    const auto& patience = *static_cast<const Patience*>(self);
    return patience.stop_.stop_requested() ||
           std::chrono::steady_clock::now() >= patience.deadline_ ||
           static_cast<std::size_t>(sqlite3_memory_used()) > patience.memory_;
  }

 private:
  std::stop_token stop_;
  std::chrono::steady_clock::time_point deadline_;
  std::size_t memory_;
};

[[noreturn]] void fail(sqlite3* database) {
  const int cause = sqlite3_system_errno(database);  // of the last file that could not be opened
  if (sqlite3_errcode(database) == SQLITE_CANTOPEN && (cause == EMFILE || cause == ENFILE)) {
    throw OutOfDescriptors(sqlite3_errmsg(database));
  }
  throw std::runtime_error(sqlite3_errmsg(database));
}

// Whether SQLite can open what a writer leaves beside the database, or finds nothing there. That is
// beside the file itself where `path` is a link.
bool hasSoundCompany(const std::string& path) {
  std::error_code error;
  const auto database = std::filesystem::canonical(path, error);
  if (error) return true;  // opening it will tell
  for (const char* suffix : {"-journal", "-wal", "-shm"}) {
    auto company = database;
    company += suffix;
    const auto status = std::filesystem::status(company, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) return false;
  }
  return true;
}

Connection open(const std::string& path) {
  sqlite3* handle = nullptr;
  const int result =
      sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX, nullptr);
  Connection database(handle);  // a failed open may leave a handle as well
  if (!database) throw std::runtime_error("Cannot open history");
  if (result != SQLITE_OK) fail(database.get());
  return database;
}

void configure(sqlite3* database, Patience& patience) {
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kMaxFieldBytes);
  sqlite3_progress_handler(database, kStepsBetweenChecks, Patience::whileWorking, &patience);
  // Results are ignored: on a read-only connection these are wishes. The last two keep sorting out
  // of temporary files, and views of the file away from functions with side effects.
  for (const char* pragma : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL",
                             "PRAGMA temp_store=MEMORY", "PRAGMA trusted_schema=OFF"}) {
    sqlite3_exec(database, pragma, nullptr, nullptr, nullptr);
  }
  // Stands in for sqlite3_busy_timeout, whose wait nobody can end.
  sqlite3_busy_handler(database, Patience::afterBusy, &patience);
}

Statement prepare(sqlite3* database, const char* sql) {
  sqlite3_stmt* handle = nullptr;
  if (sqlite3_prepare_v2(database, sql, -1, &handle, nullptr) != SQLITE_OK) fail(database);
  return Statement(handle);
}

// Whether there is another row.
bool step(sqlite3* database, sqlite3_stmt* statement) {
  const int result = sqlite3_step(statement);
  if (result != SQLITE_ROW && result != SQLITE_DONE) fail(database);
  return result == SQLITE_ROW;
}

void requireKnownSchema(sqlite3* database) {
  const Statement version = prepare(database, "PRAGMA user_version");
  if (step(database, version.get()) && sqlite3_column_int(version.get(), 0) > kNewestSchema) {
    throw std::runtime_error("Unsupported history schema");
  }
}

std::optional<std::string_view> textColumn(sqlite3_stmt* statement, int column) {
  const unsigned char* text = sqlite3_column_text(statement, column);
  if (text == nullptr) return std::nullopt;
  const int size = sqlite3_column_bytes(statement, column);  // asked after the conversion to text
  return std::string_view(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
}

std::string_view blobColumn(sqlite3_stmt* statement, int column) {
  const void* bytes = sqlite3_column_blob(statement, column);
  const int size = sqlite3_column_bytes(statement, column);
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(size)};
}

HistoryRow currentRow(sqlite3_stmt* statement) {
  return {.receiver = textColumn(statement, 0),
          .frequency = sqlite3_column_int64(statement, 1),
          .mode = textColumn(statement, 2),
          .minute = sqlite3_column_int64(statement, 3),
          .mask = sqlite3_column_int(statement, 4),
          .counts = blobColumn(statement, 5)};
}

bool startsEarlier(const HistorySlot& a, const HistorySlot& b) { return a.start < b.start; }

// Sorts slots, appended minute by minute, by start. Stable: of two receivers on one channel the
// same one comes first at every read.
void sortFrom(std::vector<HistorySlot>& slots, std::size_t first) {
  const auto begin = slots.begin() + static_cast<std::ptrdiff_t>(first);
  std::stable_sort(begin, slots.end(), startsEarlier);
}

HistorySlots readWindow(sqlite3* database, double from, double to, std::size_t memory) {
  const Statement rows = prepare(database, kSelectWindow);
  sqlite3_bind_int64(rows.get(), 1, launcher::minuteOf(from));
  sqlite3_bind_int64(rows.get(), 2, launcher::minuteOf(to));
  HistorySlots found;
  std::size_t text = 0;  // bytes
  std::int64_t minute = 0;
  std::size_t minute_begin = 0;  // of the slots of that minute
  while (step(database, rows.get())) {
    const HistoryRow row = currentRow(rows.get());
    if (row.minute != minute) {
      sortFrom(found.slots, minute_begin);
      minute = row.minute;
      minute_begin = found.slots.size();
    }
    const std::size_t channels = found.channels();
    expandRow(row, from, to, found);
    if (found.channels() > channels) text += sizeof(HistoryChannel) + row.receiver->size();
    if (text + found.slots.size() * sizeof(HistorySlot) > memory) {
      throw std::runtime_error("History window too large");
    }
  }
  sortFrom(found.slots, minute_begin);
  return found;
}

int slotsPerMinute(double slot_seconds) {
  return std::max(1, static_cast<int>(60.0 / slot_seconds));
}

std::uint64_t littleEndian64(std::string_view bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = 8; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

// The mode, its row checked.
int checkedMode(const HistoryRow& row) {
  if (!row.receiver || !row.mode) throw std::runtime_error("Invalid history text");
  const auto mode = modeFromName(*row.mode);
  if (!mode) throw std::runtime_error("Invalid history mode");
  const int slots = slotsPerMinute(slotSeconds(*mode));
  if (row.mask < 0 || row.mask >= 1 << slots) throw std::runtime_error("Invalid history mask");
  if (row.counts.size() != static_cast<std::size_t>(std::max(slots, 8)) * 8) {
    throw std::runtime_error("Invalid history counts");
  }
  return *mode;
}

}  // namespace

std::uint32_t HistorySlots::ChannelTraits::hash(const Key& key) {
  return hashText(key.receiver) ^ hashBits(std::bit_cast<std::uint64_t>(key.frequency));
}

bool HistorySlots::ChannelTraits::same(const HistoryChannel& channel, const Key& key) {
  return channel.frequency == key.frequency && channel.receiver == key.receiver &&
         channel.mode == key.mode;
}

HistoryChannel HistorySlots::ChannelTraits::make(const Key& key) {
  return {std::string(key.receiver), std::string(key.mode), key.frequency};
}

void expandRow(const HistoryRow& row, double from, double to, HistorySlots& out) {
  const double length = slotSeconds(checkedMode(row));
  const double base = static_cast<double>(row.minute) * 60.0;
  std::optional<std::uint32_t> channel;
  for (int i = 0; row.mask >> i != 0; ++i) {
    const double start = i * length + base;
    if ((row.mask >> i & 1) == 0 || !(start >= from && start + length <= to + 1.0)) continue;
    if (!channel) {
      channel = out.channel(*row.receiver, *row.mode, static_cast<double>(row.frequency));
    }
    const auto place = static_cast<std::size_t>(i) * 8;
    out.slots.push_back({start, littleEndian64(row.counts.substr(place, 8)), *channel});
  }
}

HistorySlots readHistorySlots(const std::string& path, double from, double to, std::stop_token stop,
                              const HistoryLimits& limits) {
  std::error_code ignored;
  const auto type = std::filesystem::status(path, ignored).type();
  if (type == std::filesystem::file_type::not_found) return {};
  // SQLite would block in opening a FIFO.
  if (type != std::filesystem::file_type::regular || !hasSoundCompany(path)) {
    throw std::runtime_error("Cannot open history");
  }
  if (stop.stop_requested()) throw std::runtime_error("interrupted");

  Patience patience(std::move(stop), limits);  // outlives the connection that asks it
  const Connection database = open(path);
  configure(database.get(), patience);
  requireKnownSchema(database.get());
  return readWindow(database.get(), from, to, limits.memory);
}

std::vector<HistoryObservation> observations(const HistorySlots& seen) {
  std::vector<HistoryObservation> all;
  all.reserve(seen.slots.size());
  for (const HistorySlot& slot : seen.slots) {
    const HistoryChannel& channel = seen[slot.channel];
    all.push_back({channel.receiver, channel.mode, channel.frequency, slot.start, slot.count});
  }
  return all;
}

HistorySlots slotsOf(const std::vector<HistoryObservation>& observations) {
  HistorySlots seen;
  seen.slots.reserve(observations.size());
  for (const HistoryObservation& one : observations) {
    const std::uint32_t channel = seen.channel(one.receiver, one.mode, one.frequency);
    seen.slots.push_back({one.start, one.count, channel});
  }
  return seen;
}

std::vector<HistoryObservation> readHistory(const std::string& path, double from, double to,
                                            std::stop_token stop, const HistoryLimits& limits) {
  return observations(readHistorySlots(path, from, to, std::move(stop), limits));
}

}  // namespace spotserver
