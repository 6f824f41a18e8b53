// What hot paths take from memory, on lines of the sample station.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/activity.hpp"
#include "api/band_plan.hpp"
#include "counted_memory.hpp"
#include "sample_log.hpp"
#include "spots/all_txt.hpp"
#include "spots/mode.hpp"
#include "spots/spot_data.hpp"

namespace spotserver {
namespace {

std::vector<AllTxtRecord> recordsOf(const std::string& log) {
  std::vector<AllTxtRecord> records;
  for (const std::string_view line : linesOf(log)) {
    if (auto record = parseAllTxtLine(line)) records.push_back(std::move(*record));
  }
  return records;
}

// A callsign that fits into a std::string needs no memory of its own.
bool isShort(const std::string& callsign) { return callsign.size() <= 15; }

TEST(MemoryCost, AParsedLineTakesNone) {
  const std::string log = busyHour();
  LineHead last;
  std::size_t records = 0;
  for (const std::string_view line : linesOf(log)) {
    const long before = CountedMemory::now().pieces;
    const auto alone = parseAllTxtLine(line);
    const auto after_another = parseAllTxtLine(line, last);
    const long taken = CountedMemory::now().pieces - before;
    if (!alone || !isShort(alone->callsign)) continue;
    ASSERT_EQ(taken, 0) << line;
    ASSERT_TRUE(after_another) << line;
    ++records;
  }
  EXPECT_GT(records, 100'000u);
}

TEST(MemoryCost, AHeldSpotTakesSixteenBytesAtMost) {
  const std::vector<AllTxtRecord> records = recordsOf(busyHour());
  std::vector<std::string> bands;
  for (const auto& one : records) bands.push_back(launcher::bandForFrequency(one.frequency).id);
  const long before = CountedMemory::now().held;
  SpotQueue queue;
  for (std::size_t i = 0; i < records.size(); ++i) {
    const AllTxtRecord& one = records[i];
    queue.append(one.time, one.frequency, one.mode, bands[i], one.callsign);
  }
  const long held = CountedMemory::now().held - before;
  ASSERT_EQ(queue.size(), records.size());
  EXPECT_LE(held, 16 * static_cast<long>(queue.size()));
  RecordProperty("BytesASpot",
                 std::to_string(static_cast<double>(held) / static_cast<double>(queue.size())));
}

TEST(MemoryCost, ABandOfAnAnswerHoldsItsPointsAndLittleElse) {
  constexpr double kNow = 1'763'175'600;
  constexpr int kFrequencies = 500;
  SpotData data;
  for (int i = 0; i < kFrequencies; ++i) {
    const double dial = 200'000'000 + 1'000.0 * i;
    data.spots.append(kNow - 15, dial, kFt8, launcher::bandForFrequency(dial).id, "N0CALL");
  }
  const long before = CountedMemory::now().held;
  const ActivitySnapshot snapshot = buildActivity(data, 24, 3, kNow);
  const long held = CountedMemory::now().held - before;
  ASSERT_EQ(snapshot.bands.size(), 500u);
  EXPECT_LE(held, kFrequencies * static_cast<long>(1441 * sizeof(launcher::RatePoint) + 1024));
}

}  // namespace
}  // namespace spotserver
