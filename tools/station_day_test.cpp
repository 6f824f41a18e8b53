#include "station_day.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>

#include "api/band_plan.hpp"
#include "spots/all_txt.hpp"
#include "spots/mode.hpp"

namespace station {
namespace {

// 2025-03-14 10:15:30 UTC
constexpr std::int64_t kNow = 1'741'947'330;

DayPlan planOf(std::int64_t hours, std::optional<std::uint64_t> lines = {},
               std::uint64_t seed = 1) {
  return {.seed = seed,
          .begin = (kNow - hours * 3600) * kTicksPerSecond,
          .end = kNow * kTicksPerSecond,
          .lines = lines};
}

std::string logOf(const DayPlan& plan) {
  std::string log;
  Day(plan).run(plan.end, [&](const Slot& slot) { log += slot.lines; });
  return log;
}

std::vector<std::string> linesOf(std::string_view log) {
  std::vector<std::string> lines;
  for (std::size_t end; (end = log.find('\n')) != log.npos; log.remove_prefix(end + 1)) {
    lines.emplace_back(log.substr(0, end));
  }
  return lines;
}

// FNV-1a, 64 bits.
std::uint64_t hashOf(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

TEST(StationDay, SameSeedAndTimeGiveTheSameBytes) {
  const std::string log = logOf(planOf(2));
  EXPECT_EQ(log, logOf(planOf(2)));
  EXPECT_NE(log, logOf(planOf(2, {}, 2)));
}

// Pinned, so that a change of compiler, library or machine shows.
TEST(StationDay, BytesAreTheSameOnEveryMachine) {
  const std::string log = logOf(planOf(25, 50'000));
  EXPECT_EQ(hashOf(log), 15'316'309'141'475'255'582u) << log.size() << " bytes";
}

TEST(StationDay, WritesExactlyTheLinesAskedFor) {
  for (const std::uint64_t lines : {0u, 1u, 7u, 1'000u, 123'457u}) {
    const std::string log = logOf(planOf(25, lines));
    EXPECT_EQ(static_cast<std::uint64_t>(std::count(log.begin(), log.end(), '\n')), lines);
  }
}

TEST(StationDay, HandsOverWholeSlotsInOrderOfTheirEnds) {
  const DayPlan plan = planOf(1);
  Tick last_end = 0;
  std::set<std::pair<std::size_t, Tick>> seen;
  Day(plan).run(plan.end, [&](const Slot& slot) {
    const Tick end = slot.start + slot.receiver.slotTicks();
    EXPECT_GE(slot.start, plan.begin);
    EXPECT_LE(end, plan.end);
    EXPECT_EQ(slot.start % slot.receiver.slotTicks(), 0);
    EXPECT_GE(end, last_end);
    EXPECT_TRUE(seen.emplace(slot.receiver_index, slot.start).second) << slot.start;
    last_end = end;
  });
  EXPECT_EQ(last_end, plan.end);
  // One hour that begins and ends on a 15 s boundary: 240 slots of the first receiver.
  EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const auto& s) { return s.first == 0; }),
            240);
}

TEST(StationDay, GoesOnWhereItStopped) {
  const DayPlan plan = planOf(2);
  Day day(plan);
  std::string log;
  const auto append = [&](const Slot& slot) { log += slot.lines; };
  for (Tick at = plan.begin; at < plan.end; at += 777) day.run(at, append);
  day.run(plan.end, append);
  day.run(plan.end, append);
  EXPECT_EQ(log, logOf(plan));
}

TEST(StationDay, LeavesOutWhatWasSkipped) {
  const DayPlan plan = planOf(2);
  const Tick middle = plan.end - 3600 * kTicksPerSecond;
  Day day(plan);
  day.skipTo(middle);
  std::size_t slots = 0;
  day.run(plan.end, [&](const Slot& slot) {
    EXPECT_GE(slot.start, middle);
    ++slots;
  });
  EXPECT_GT(slots, 0u);
}

TEST(StationDay, LogHoldsTheDecodesOfEachSlotAndNothingElseCounts) {
  const DayPlan plan = planOf(25, 100'000);
  std::uint64_t junk = 0;
  std::uint64_t switched_off = 0;
  Day(plan).run(plan.end, [&](const Slot& slot) {
    std::uint64_t accepted = 0;
    for (const std::string& line : linesOf(slot.lines)) {
      const auto record = spotserver::parseAllTxtLine(line);
      if (!record) {
        ++junk;
        continue;
      }
      ++accepted;
      ASSERT_EQ(record->time, std::floor(static_cast<double>(slot.start) / kTicksPerSecond))
          << line;
      ASSERT_EQ(std::llround(record->frequency), slot.receiver.dial_hz) << line;
      ASSERT_EQ(record->mode, slot.receiver.mode) << line;
    }
    ASSERT_EQ(accepted, slot.decodes) << slot.lines;
    if (slot.listened) return;
    ++switched_off;
    ASSERT_EQ(slot.lines, "");
  });
  EXPECT_GT(junk, 200u);
  EXPECT_LT(junk, 800u);
  EXPECT_GT(switched_off, 0u);
}

TEST(StationDay, HoldsEveryModeEveryBandAndFrequenciesOutsideThePlan) {
  std::set<int> modes;
  std::set<std::string> bands;
  bool off_plan = false;
  for (const std::string& line : linesOf(logOf(planOf(25)))) {
    const auto record = spotserver::parseAllTxtLine(line);
    if (!record) continue;
    const std::string band = launcher::bandForFrequency(record->frequency).id;
    modes.insert(record->mode);
    bands.insert(band);
    off_plan |= launcher::bandOrder(band) == launcher::kOffPlanOrder;
  }
  EXPECT_EQ(modes.size(), 7u);
  for (const auto& band : launcher::bandTable()) EXPECT_TRUE(bands.contains(band.id)) << band.id;
  EXPECT_TRUE(off_plan);
}

// An extended regular expression of POSIX that the whole text must match.
class Pattern {
 public:
  explicit Pattern(const std::string& text) {
    if (::regcomp(&pattern_, ("^(" + text + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0) {
      throw std::runtime_error("Bad pattern: " + text);
    }
  }
  ~Pattern() { ::regfree(&pattern_); }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  bool matches(const std::string& text) const {
    return ::regexec(&pattern_, text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t pattern_{};
};

// The forms are spelled out here once more, independent of the tables they are drawn from.
TEST(StationDay, HoldsEveryFormOfMessageInEveryMode) {
#define CALL "[A-Z0-9/]*[0-9][A-Z]+(/P)?"
#define GRID "[A-R]{2}[0-9]{2}"
#define REPORT "[+-][0-9]{2}"
  const char* ft8[] = {
      "CQ " CALL " " GRID,
      "CQ " CALL,
      "CQ [A-Z]{1,4} " CALL " " GRID,
      "CQ [0-9]{3} " CALL " " GRID,
      "CQ [A-Z0-9]+/[A-Z0-9]+",
      "QRZ " CALL,
      "DE " CALL " " GRID,
      "CQDX " CALL " " GRID,
      "CQ " CALL " 73",
      CALL " " CALL " " GRID,
      CALL " " CALL " " REPORT,
      CALL " " CALL " R" REPORT,
      CALL " " CALL " R " REPORT,
      CALL " " CALL " R " GRID,
      CALL " " CALL " " GRID "[A-X]{2}",
      CALL " " CALL " " GRID "[A-X]{2}[0-9]{2}",
      CALL " " CALL " [0-9]{6}",
      CALL " " CALL " R [0-9]{6}",
      CALL " " CALL " RRR",
      CALL " " CALL " RR73",
      CALL " " CALL " 73",
      "<\\.\\.\\.> " CALL " " REPORT,
      "<[A-Z0-9/]+> " CALL " RR73",
      CALL " <[A-Z0-9/]+> " REPORT,
      CALL " <\\.\\.\\.> RR73",
      "TU; " CALL " " CALL " R" REPORT,
      CALL " RR73; " CALL " <" CALL "> " REPORT,
      "TNX BOB 73 GL",
      "[0-9A-F]{18}",
      CALL " " CALL " 73 GL",
  };
  const char* js8[] = {
      CALL ": .*\\[frame=[0-9] flags=[0-9] sender=" CALL " grid=" GRID "\\]",
      CALL ": .*\\[frame=[0-9] flags=[0-9] sender=[a-z0-9]+ grid=[a-r]{2}[0-9]{2}\\]",
      CALL ": .*\\[frame=[0-9] flags=[0-9] sender=" CALL " grid=-\\]",
      "[^:]*\\[frame=[0-9] flags=[0-9] sender=- grid=-\\]",
      "ANT DIPOLE UP 8M",
      CALL ": AGN\\? \\[frame=[0-9] flags=[0-9] sender=" CALL "\\]",
  };
  const char* wspr[] = {
      CALL " " GRID " [0-9]{1,2}",
      CALL " " GRID " [0-9]{1,2} \\[drift=-?[0-9]\\]",
      "[A-Z0-9]+/[A-Z0-9]+ [0-9]{1,2}",
      "<[A-Z0-9/]+> " GRID "[A-X]{2} [0-9]{1,2}",
      "<\\.\\.\\.> " GRID "[A-X]{2} [0-9]{1,2}",
      "<[A-Z0-9/]+> " GRID " [0-9]{1,2}",
  };
#undef CALL
#undef GRID
#undef REPORT
  std::map<int, std::set<std::string>> messages;
  for (const std::string& line : linesOf(logOf(planOf(25)))) {
    const auto record = spotserver::parseAllTxtLine(line);
    // The message stands behind seven fields of fixed width, but for the mode's.
    if (record) {
      const std::size_t mode_width =
          std::max<std::size_t>(3, spotserver::modeName(record->mode).size());
      messages[record->mode].insert(line.substr(13 + 10 + 4 + mode_width + 7 + 5 + 5 + 1));
    }
  }
  const auto expect = [&](int mode, std::span<const char* const> forms) {
    for (const char* form : forms) {
      const Pattern pattern(form);
      EXPECT_TRUE(std::any_of(messages[mode].begin(), messages[mode].end(),
                              [&](const auto& m) { return pattern.matches(m); }))
          << spotserver::modeName(mode) << ": " << form;
    }
  };
  expect(spotserver::kFt8, ft8);
  expect(spotserver::kFt4, ft8);
  for (const int mode :
       {spotserver::kJs8, spotserver::kJs8Fast, spotserver::kJs8Turbo, spotserver::kJs8Slow}) {
    expect(mode, js8);
  }
  expect(spotserver::kWspr, wspr);
}

TEST(StationDay, JunkIsOfEveryKind) {
  std::vector<std::string> junk;
  for (const std::string& line : linesOf(logOf(planOf(25)))) {
    if (!spotserver::parseAllTxtLine(line)) junk.push_back(line);
  }
  using testing::AllOf;
  using testing::Contains;
  using testing::HasSubstr;
  using testing::Lt;
  using testing::SizeIs;
  using testing::StartsWith;
  EXPECT_THAT(junk, Contains(""));
  EXPECT_THAT(junk, Contains(HasSubstr(" Tx FT8 ")));
  EXPECT_THAT(junk, Contains(HasSubstr(" Rx MSK144 ")));
  EXPECT_THAT(junk, Contains(HasSubstr(" Rx ft8 ")));
  EXPECT_THAT(junk, Contains(HasSubstr("0230_")));
  EXPECT_THAT(junk, Contains(AllOf(StartsWith("250313_"), SizeIs(Lt(24)))));
  EXPECT_THAT(junk, Contains(HasSubstr(" R250314_")));
  EXPECT_THAT(junk, Contains(HasSubstr(std::string(1, '\0'))));
}

TEST(StationDay, EveryBandRisesAndFallsOnceADay) {
  for (const Receiver& receiver : receivers()) {
    const Tick midnight = 20'000 * 86'400 * kTicksPerSecond;
    const auto rate = [&](int hour) {
      return linesPerHour(receiver, midnight + (hour + 24) % 24 * 3600 * kTicksPerSecond);
    };
    const int peak = receiver.peak_hour;
    EXPECT_EQ(rate(peak), receiver.busy) << receiver.name();
    EXPECT_EQ(rate(peak + 12), receiver.quiet) << receiver.name();
    for (int hour = 0; hour < 12; ++hour) {
      EXPECT_GE(rate(peak + hour), rate(peak + hour + 1)) << receiver.name() << " +" << hour;
      EXPECT_GE(rate(peak - hour), rate(peak - hour - 1)) << receiver.name() << " -" << hour;
    }
  }
}

TEST(StationReceivers, HaveNamesAndChannelsOfTheirOwn) {
  std::set<std::string> names;
  std::set<std::pair<std::int64_t, int>> channels;
  for (const Receiver& receiver : receivers()) {
    EXPECT_TRUE(names.insert(receiver.name()).second) << receiver.name();
    EXPECT_TRUE(channels.emplace(receiver.dial_hz, receiver.mode).second) << receiver.name();
  }
}

}  // namespace
}  // namespace station
