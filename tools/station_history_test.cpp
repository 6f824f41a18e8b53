#include "station_history.hpp"

#include <map>
#include <tuple>

#include <gtest/gtest.h>

#include "history/history_reader.hpp"
#include "spots/mode.hpp"
#include "temp_dir.hpp"

namespace station {
namespace {

// 2025-03-14 10:15:30 UTC
constexpr std::int64_t kNow = 1'741'947'330;

class StationHistory : public testing::Test {
 protected:
  std::string path() const { return folder_.path("history.sqlite3"); }

  spotserver::TempDir folder_;
};

// Receiver, start of the slot, dial frequency; then the decodes.
using Slots = std::map<std::tuple<std::string, double, double>, std::uint64_t>;

Slots readBack(const std::string& path, std::int64_t hours) {
  Slots slots;
  const double from = static_cast<double>(kNow - hours * 3600);
  for (const auto& seen : spotserver::readHistory(path, from, static_cast<double>(kNow))) {
    slots[{seen.receiver, seen.start, seen.frequency}] = seen.count;
  }
  return slots;
}

TEST_F(StationHistory, HoldsEverySlotListenedToAndNoOther) {
  const std::int64_t hours = 3;
  Day day({.begin = (kNow - hours * 3600) * kTicksPerSecond, .end = kNow * kTicksPerSecond});
  History history(path());
  Slots expected;
  std::size_t quiet = 0;
  std::size_t switched_off = 0;
  day.run(kNow * kTicksPerSecond, [&](const Slot& slot) {
    history.record(slot);
    switched_off += !slot.listened;
    if (!slot.listened) return;
    quiet += slot.decodes == 0;
    expected[{slot.receiver.name(), static_cast<double>(slot.start) / kTicksPerSecond,
              static_cast<double>(slot.receiver.dial_hz)}] = slot.decodes;
  });
  history.commit();
  EXPECT_EQ(readBack(path(), hours), expected);
  EXPECT_GT(quiet, 0u);
  EXPECT_GT(switched_off, 0u);
}

TEST_F(StationHistory, CompletesTheCurrentMinuteSlotBySlot) {
  const Receiver& receiver = receivers()[0];
  ASSERT_EQ(receiver.mode, spotserver::kFt8);
  const Tick minute = kNow / 60 * 60 * kTicksPerSecond - 60 * kTicksPerSecond;
  History history(path());
  const auto second = [&](int s) { return static_cast<double>(minute) / kTicksPerSecond + s; };
  const auto slotAt = [&](int s, std::uint64_t decodes, bool listened = true) {
    return Slot{receiver, 0, minute + s * kTicksPerSecond, listened, decodes, {}};
  };
  const double hz = static_cast<double>(receiver.dial_hz);

  history.record(slotAt(0, 5));
  EXPECT_EQ(readBack(path(), 1), Slots{}) << "not committed yet";
  history.commit();
  EXPECT_EQ(readBack(path(), 1), (Slots{{{receiver.name(), second(0), hz}, 5}}));

  history.record(slotAt(15, 0));
  history.record(slotAt(30, 0, false));
  history.record(slotAt(45, 7));
  history.commit();
  EXPECT_EQ(readBack(path(), 1), (Slots{{{receiver.name(), second(0), hz}, 5},
                                        {{receiver.name(), second(15), hz}, 0},
                                        {{receiver.name(), second(45), hz}, 7}}));
}

TEST_F(StationHistory, ReplacesAnOldDatabase) {
  folder_.write("history.sqlite3", "not a database at all");
  folder_.write("history.sqlite3-wal", "nor this");
  History history(path());
  EXPECT_EQ(readBack(path(), 1), Slots{});
}

TEST_F(StationHistory, SaysWhatCannotBeWritten) {
  const std::string nowhere = folder_.path("missing/history.sqlite3");
  try {
    History history(nowhere);
    FAIL() << "opened " << nowhere;
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "Cannot write history: " + nowhere);
  }
}

}  // namespace
}  // namespace station
