// What a refresh drops as too old, and what it leaves out as too far ahead.
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_lines.hpp"
#include "spots/refresh_reference.hpp"
#include "stems/refresh_fixture.hpp"

namespace spotserver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::UnorderedElementsAre;

TEST_F(Refresh, SpotOf89100SecondsIsKeptAndOneASecondOlderDropped) {
  writeLog(heard("N0OLD", 89'101) + heard("N0AT", 89'100) + heard("N0NEW", 89'099));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0AT", "N0NEW"));
  EXPECT_THAT(lastHeard(data), UnorderedElementsAre(Key("N0AT"), Key("N0NEW")));
  refresh(kNow + 1);
  EXPECT_THAT(callsigns(data), ElementsAre("N0NEW"));
}

TEST_F(Refresh, LineDatedInTheFutureHoldsBackNoPruning) {
  writeLog(heard("N0OLD", 80'000) + heard("N0FUT", -50'000) + heard("N0NEW", 10));
  refresh();
  EXPECT_THAT(callsigns(data), ElementsAre("N0OLD", "N0NEW", "N0FUT"));
  refresh(kNow + 20'000);
  EXPECT_THAT(callsigns(data), ElementsAre("N0NEW", "N0FUT"));
}

TEST_F(Refresh, WithoutALogWhatIsTooOldGoesAllTheSame) {
  writeLog(heard("N0AAA"));
  refresh();
  std::filesystem::remove(data.all_txt_path);
  refresh(kNow + 80'000);
  EXPECT_THAT(callsigns(data), ElementsAre("N0AAA"));
  refresh(kNow + 90'000);
  EXPECT_TRUE(data.spots.empty());
  EXPECT_THAT(lastHeard(data), IsEmpty());
}

TEST_F(Refresh, LineDatedFarAheadIsHeldOnceTheClockGetsThere) {
  writeLog(heard("N0FAR", -89'101) + heard("N0AHEAD", -89'100) + heard("N0NEW"));
  refresh();
  EXPECT_EQ(data.spots.size(), 2u);
  EXPECT_EQ(data.left_out_from, kNow + 89'101);
  EXPECT_EQ(data.accepted_lines, 3u);
  refresh(kNow + 89'100);
  EXPECT_EQ(data.accepted_lines, 3u);
  const auto generation = data.generation;
  refresh(kNow + 89'101);
  EXPECT_EQ(data.spots.size(), 2u);  // N0AHEAD and N0FAR; N0NEW is too old now
  EXPECT_EQ(data.left_out_from, kEver);
  EXPECT_EQ(data.generation, generation + 1);
}

TEST_F(Refresh, DecoderWhoseClockIsAYearAheadFillsNoMemory) {
  for (int look = 0; look < 50; ++look) {
    const double now = kNow + 15 * look;
    std::string lines;
    for (int i = 0; i < 20; ++i) {
      const std::string callsign = "N0" + std::string{char('A' + i), char('A' + look % 26)};
      lines += decodeLine(now + 365 * 86'400.0, "CQ " + callsign + " FN42");
    }
    appendLog(lines);
    refresh(now);
  }
  EXPECT_TRUE(data.spots.empty());
  EXPECT_EQ(heardSince(data, 0), 0u);
  EXPECT_EQ(data.accepted_lines, 1000u);
}

// A line that was left out becomes old enough when the clock is at its date, and then all are held
// that lie up to a retention ahead of that: the next time is a retention later.
TEST_F(Refresh, DecoderMoreThanADayAheadLetsTheLogBeReadAnewOnceADayOnly) {
  constexpr double kAhead = 26 * 3600;
  constexpr int kDays = 5;
  std::vector<double> read_anew;
  for (double now = kNow; now < kNow + kDays * 86'400; now += 900) {
    appendLog(decodeLine(now + kAhead, "CQ N0AAA FN42"));
    const auto lines = data.accepted_lines;
    refresh(now);
    if (data.accepted_lines > lines + 1) read_anew.push_back(now);
    ASSERT_EQ(spotsHeld(data, now - launcher::kRetention, now),
              plainSpots(data.all_txt_path, now - launcher::kRetention, now));
    ASSERT_LE(data.spots.size(), 2 * 89'100 / 900 + 1u);
  }
  ASSERT_FALSE(read_anew.empty());
  EXPECT_EQ(read_anew.front(), kNow + kAhead);
  for (std::size_t i = 1; i < read_anew.size(); ++i) {
    EXPECT_GE(read_anew[i] - read_anew[i - 1], launcher::kRetention);
  }
}

}  // namespace
}  // namespace spotserver
