#include "history/history_window.hpp"

#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "api/rate_index_reference.hpp"
#include "failing_memory.hpp"
#include "history_file.hpp"
#include "other_process.hpp"
#include "spots/refresh.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr std::int64_t kMinute = 29'333'333;  // some minute in 2025
constexpr double kBase = kMinute * 60.0;

// Everything a history read may change, as text.
std::string describe(const SpotData& data) {
  std::ostringstream text;
  text.precision(17);
  text << (data.history_in_use ? "in use" : "not in use") << " to " << data.history_read_to
       << ", generation " << data.generation << ", " << data.spots.size() << " spots;";
  for (const auto& one : data.intervals) {
    text << " " << one.start << " " << one.band << " " << one.count << ";";
  }
  return text.str();
}

std::vector<std::uint64_t> countsOf(const SpotData& data) {
  std::vector<std::uint64_t> counts;
  for (const auto& one : data.intervals) counts.push_back(one.count);
  return counts;
}

class HistoryWindow : public testing::Test {
 protected:
  HistoryWindow() {
    data_.history_path = path_;
    data_.spots.append({.time = kBase, .frequency = 14'074'000, .band = "20m", .callsign = "W1AW"});
  }

  // The window of one minute that every row of these tests lies in.
  void readMinute() { readHistoryWindow(data_, kBase, kBase + 60); }

  TempDir dir_;
  const std::string path_ = dir_.path("history.sqlite3");
  SpotData data_;
};

// --- What a read does --------------------------------------------------------------------------

TEST_F(HistoryWindow, FirstReadFillsIntervalsAndRatesAndDropsTheSpotsOfTheLog) {
  HistoryFile(path_).add({.minute = kMinute});
  readMinute();
  EXPECT_TRUE(data_.history_in_use);
  EXPECT_EQ(data_.history_read_to, kBase + 60);
  EXPECT_EQ(data_.generation, 1u);
  EXPECT_TRUE(data_.spots.empty());
  ASSERT_THAT(data_.intervals, SizeIs(4));
  EXPECT_EQ(data_.intervals[1].start, kBase + 15);
  EXPECT_EQ(data_.intervals[1].band, "20m");
  EXPECT_THAT(countsOf(data_), ElementsAre(1, 2, 3, 4));

  ASSERT_THAT(data_.rates, SizeIs(1));
  const auto& band = data_.rates.at("20m");
  EXPECT_EQ(band.first_start, kBase);
  EXPECT_EQ(band.max_length, 15);
  const auto bucket = byMinute(band).at(kMinute);
  ASSERT_THAT(bucket, SizeIs(4));
  EXPECT_EQ(bucket.at("FT8/14.074000@45").count, 4u);
  EXPECT_EQ(bucket.at("FT8/14.074000@45").end, kBase + 60);
}

TEST_F(HistoryWindow, SpotsStayWhileTheHistoryWasInUseAlready) {
  HistoryFile(path_).add({.minute = kMinute});
  data_.history_in_use = true;
  readMinute();
  EXPECT_TRUE(data_.history_in_use);
  EXPECT_EQ(data_.spots.size(), 1u);
}

TEST_F(HistoryWindow, WindowWithoutObservationsIsASuccessAllTheSame) {
  HistoryFile file(path_);
  readMinute();
  EXPECT_EQ(describe(data_), "in use to 1760000040, generation 1, 0 spots;");
}

TEST_F(HistoryWindow, BandAndLengthComeFromFrequencyAndMode) {
  HistoryFile file(path_);
  const struct {
    const char* mode;
    std::int64_t frequency;
    const char* band;
    const char* key;
    double length;
  } cases[] = {{"FT8", 7'074'000, "40m", "FT8/7.074000@0", 15},
               {"FT4", 18'100'000, "17m", "FT4/18.100000@0", 7.5},
               {"JS8", 21'078'000, "15m", "JS8/21.078000@0", 15},
               {"JS8-FAST", 28'078'000, "10m", "JS8-FAST/28.078000@0", 10},
               {"JS8-TURBO", 3'578'000, "80m", "JS8-TURBO/3.578000@0", 6},
               {"JS8-SLOW", 13'500'000, "13.500000 MHz", "JS8-SLOW/13.500000@0", 30},
               {"WSPR", 10'138'700, "30m", "WSPR/10.138700@0", 120}};
  for (const auto& c : cases) {
    file.add({.frequency = c.frequency,
              .mode = c.mode,
              .minute = kMinute,
              .mask = 1,
              .counts = countsBlob({5}, c.mode == std::string("JS8-TURBO") ? 10 : 8)});
  }
  readHistoryWindow(data_, kBase, kBase + 120);
  ASSERT_THAT(data_.intervals, SizeIs(std::size(cases)));
  for (const auto& c : cases) {
    ASSERT_TRUE(data_.rates.contains(c.band)) << c.mode;
    const auto& band = data_.rates.at(c.band);
    EXPECT_EQ(band.max_length, c.length) << c.mode;
    EXPECT_TRUE(byMinute(band).at(kMinute).contains(c.key)) << c.key;
  }
}

TEST_F(HistoryWindow, SlotThatEndsASecondAfterTheWindowCountsInIntervalsAndRates) {
  HistoryFile(path_).add({.minute = kMinute});
  readHistoryWindow(data_, kBase, kBase + 29);
  EXPECT_THAT(countsOf(data_), ElementsAre(1, 2));
  EXPECT_EQ(launcher::heldIntervals(data_.rates), 2u);
}

TEST_F(HistoryWindow, IntervalsFromTheWindowsStartOnAreReplaced) {
  data_.intervals = {{kBase - 15, "20m", 1}, {kBase, "20m", 2}, {kBase + 15, "20m", 3}};
  HistoryFile(path_).add({.minute = kMinute, .mask = 0b0010, .counts = countsBlob({0, 30})});
  readMinute();
  EXPECT_THAT(countsOf(data_), ElementsAre(1, 30));
}

TEST_F(HistoryWindow, OverlapCorrectsIntervalsWhileRatesKeepTheFirstCount) {
  HistoryFile file(path_);
  file.add({.minute = kMinute, .mask = 0b0001, .counts = countsBlob({5})});
  readMinute();
  file.exec("DELETE FROM minutes");
  file.add({.minute = kMinute, .mask = 0b0011, .counts = countsBlob({6, 7})});
  readMinute();
  EXPECT_THAT(countsOf(data_), ElementsAre(6, 7));
  const auto bucket = byMinute(data_.rates.at("20m")).at(kMinute);
  EXPECT_EQ(bucket.at("FT8/14.074000@0").count, 5u);
  EXPECT_EQ(bucket.at("FT8/14.074000@15").count, 7u);
}

TEST_F(HistoryWindow, TwoReceiversOnOneChannelAreTwoIntervalsAndOneRateEntry) {
  HistoryFile file(path_);
  file.add({.receiver = "south", .minute = kMinute, .mask = 1, .counts = countsBlob({8})});
  file.add({.receiver = "north", .minute = kMinute, .mask = 1, .counts = countsBlob({9})});
  readMinute();
  EXPECT_THAT(countsOf(data_), ElementsAre(9, 8));
  EXPECT_EQ(byMinute(data_.rates.at("20m")).at(kMinute).at("FT8/14.074000@0").count, 9u);
}

TEST_F(HistoryWindow, ObservationOfAnUnknownModeIsPassedOver) {
  mergeHistory(
      data_,
      slotsOf({{.receiver = "RX1", .mode = "ft8", .frequency = 14'074'000, .start = kBase},
               {.receiver = "RX1", .mode = "FT8", .frequency = 14'074'000, .start = kBase + 15}}),
      kBase, kBase + 60);
  EXPECT_THAT(data_.intervals, SizeIs(1));
  EXPECT_EQ(launcher::heldIntervals(data_.rates), 1u);
}

// --- When the history cannot be read -----------------------------------------------------------

TEST_F(HistoryWindow, WithoutAPathTheHistoryIsNotInUse) {
  data_.history_path.clear();
  data_.history_in_use = true;
  readMinute();
  EXPECT_EQ(describe(data_), "not in use to 0, generation 0, 1 spots;");
}

TEST_F(HistoryWindow, MissingFileOnlyClearsTheFlag) {
  for (const std::string& path : {path_, dir_.path("no/folder"), std::string(5000, 'x')}) {
    data_.history_path = path;
    data_.history_in_use = true;
    readMinute();
    EXPECT_EQ(describe(data_), "not in use to 0, generation 0, 1 spots;") << path.substr(0, 100);
  }
}

TEST_F(HistoryWindow, OneBadRowLeavesTheIntervalsAsTheyWere) {
  HistoryFile file(path_);
  for (int i = 0; i < 5; ++i) file.add({.minute = kMinute + i});
  readHistoryWindow(data_, kBase, kBase + 300);
  const auto indexed = launcher::heldIntervals(data_.rates);
  const std::string before = describe(data_);
  for (const char* damage : {"mode='ft8'", "mask=16", "counts=zeroblob(32)", "receiver=NULL"}) {
    data_.history_in_use = true;
    file.exec(std::string("UPDATE minutes SET counts=zeroblob(64),") + damage + " WHERE rowid=5");
    readHistoryWindow(data_, kBase + 60, kBase + 300);
    EXPECT_EQ(describe(data_), "not " + before) << damage;
    EXPECT_EQ(launcher::heldIntervals(data_.rates), indexed) << damage;
    file.exec("UPDATE minutes SET receiver='RX1',mode='FT8',mask=15,counts=zeroblob(64)");
  }
}

TEST_F(HistoryWindow, NewerSchemaIsNotUsed) {
  HistoryFile file(path_, 3);
  file.add({.minute = kMinute});
  readMinute();
  EXPECT_FALSE(data_.history_in_use);
  file.exec("PRAGMA user_version=2");
  readMinute();
  EXPECT_TRUE(data_.history_in_use);
}

TEST_F(HistoryWindow, StopCountsAsAFailedRead) {
  HistoryFile(path_).add({.minute = kMinute});
  data_.history_in_use = true;
  std::stop_source stop;
  stop.request_stop();
  readHistoryWindow(data_, kBase, kBase + 60, stop.get_token());
  EXPECT_EQ(describe(data_), "not in use to 0, generation 0, 1 spots;");
}

// The lock goes only after the read has returned: it gave up by itself, after five seconds.
TEST_F(HistoryWindow, LockedHistoryIsGivenUpAfterFiveSeconds) {
  OtherProcess writer([&](const Peer& test) {
    HistoryFile file(path_);
    file.add({.minute = kMinute});
    file.exec("BEGIN EXCLUSIVE");
    test.signal();
    test.wait();
    file.exec("COMMIT");
  });
  writer.peer().wait();
  data_.history_in_use = true;
  const auto begun = std::chrono::steady_clock::now();
  readMinute();
  const auto waited = std::chrono::steady_clock::now() - begun;
  EXPECT_FALSE(data_.history_in_use);
  EXPECT_GE(waited, std::chrono::milliseconds(5000));
  EXPECT_LT(waited, std::chrono::milliseconds(50'000));
  writer.peer().signal();
  EXPECT_EQ(writer.join(), 0);
  readMinute();
  EXPECT_TRUE(data_.history_in_use);
  EXPECT_THAT(data_.intervals, SizeIs(4));
}

// The undefined-behaviour sanitizer opens a pipe when it meets a type of object for the first time,
// and takes the object for broken when it cannot. So it meets this one beforehand.
void showSanitizerTheError() {
  try {
    throw OutOfDescriptors("");
  } catch (const OutOfDescriptors& error) {
    EXPECT_STREQ(error.what(), "");
  }
}

TEST_F(HistoryWindow, LackOfDescriptorsChangesNothing) {
  showSanitizerTheError();
  OtherProcess reader([&](const Peer&) {
    HistoryFile(path_).add({.minute = kMinute});
    readMinute();
    const std::string before = describe(data_);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    readMinute();
    if (describe(data_) != before) throw std::runtime_error(describe(data_));
    if (!data_.history_in_use) throw std::runtime_error("Not in use");
  });
  EXPECT_EQ(reader.join(), 0);
}

// Fails the n-th allocation of a read, for every n: the store is as before or as after.
void runOutOfMemory(const std::string& path, bool for_good) {
  SpotData before;
  before.history_path = path;
  before.history_in_use = true;
  before.history_read_to = kBase + 30;
  for (int i = -3; i < 4; ++i) before.intervals.push_back({kBase + 15 * i, "20m", 77});
  before.spots.append({.time = kBase, .frequency = 14'074'000, .band = "20m", .callsign = "W1AW"});
  const std::string untouched = "not " + describe(before);
  SpotData after = before;
  readHistoryWindow(after, kBase, kBase + 600);
  ASSERT_TRUE(after.history_in_use);

  bool enough = false;
  for (long n = 0; !enough; ++n) {
    SpotData data = before;
    {
      const FailingMemory memory(n, !for_good);
      readHistoryWindow(data, kBase, kBase + 600);
      enough = !memory.failed();
    }
    // Sorting does without memory, so some refusals are overcome.
    ASSERT_EQ(describe(data), data.history_in_use ? describe(after) : untouched) << n;
    readHistoryWindow(data, kBase, kBase + 600);
    ASSERT_EQ(countsOf(data), countsOf(after)) << n;
    ASSERT_EQ(launcher::heldIntervals(data.rates), launcher::heldIntervals(after.rates)) << n;
  }
}

TEST_F(HistoryWindow, MemoryThatRunsOutLeavesNothingTorn) {
  HistoryFile file(path_);
  for (int i = 0; i < 10; ++i) {
    file.add({.receiver = "a receiver with a long name", .minute = kMinute + i});
  }
  runOutOfMemory(path_, false);
  runOutOfMemory(path_, true);
}

// --- Over time -----------------------------------------------------------------------------------

TEST_F(HistoryWindow, HistoryThatComesAndGoesIsTakenUpAgainEachTime) {
  const auto make = [&](std::uint64_t count) {
    std::filesystem::remove_all(path_);
    HistoryFile(path_).add({.minute = kMinute, .mask = 1, .counts = countsBlob({count})});
  };
  const struct {
    const char* stage;
    std::function<void()> change;
    bool in_use;
    std::vector<std::uint64_t> counts;
  } stages[] = {
      {"not there yet", [] {}, false, {}},
      {"appears", [&] { make(1); }, true, {1}},
      {"vanishes", [&] { std::filesystem::remove(path_); }, false, {1}},
      {"comes back", [&] { make(2); }, true, {2}},
      {"is replaced by garbage",
       [&] {
         std::filesystem::remove(path_);
         dir_.write("history.sqlite3", std::string(9999, '#'));
       },
       false,
       {2}},
      {"is whole again", [&] { make(3); }, true, {3}},
      {"is overwritten in place",
       [&] { dir_.write("history.sqlite3", "not a database"); },
       false,
       {3}},
      {"is emptied", [&] { dir_.write("history.sqlite3", ""); }, false, {3}},
      {"is whole once more", [&] { make(4); }, true, {4}},
      {"is a folder",
       [&] {
         std::filesystem::remove(path_);
         std::filesystem::create_directory(path_);
       },
       false,
       {4}},
      {"is a pipe",
       [&] {
         std::filesystem::remove(path_);
         ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
       },
       false,
       {4}},
      {"is a history in the end", [&] { make(5); }, true, {5}},
  };
  std::uint64_t reads = 0;
  for (const auto& s : stages) {
    data_.spots.clear();
    data_.spots.append({.time = kBase, .frequency = 14'074'000, .band = "20m", .callsign = "K1A"});
    s.change();
    readMinute();
    reads += s.in_use ? 1 : 0;
    EXPECT_EQ(data_.history_in_use, s.in_use) << s.stage;
    EXPECT_EQ(countsOf(data_), s.counts) << s.stage;
    EXPECT_EQ(data_.generation, reads) << s.stage;
    EXPECT_EQ(data_.spots.empty(), s.in_use) << s.stage;  // what the log told in between goes
  }
}

TEST_F(HistoryWindow, GapIsReadOnceTheHistoryIsBack) {
  {
    HistoryFile file(path_);
    for (int i = 0; i < 120; ++i) file.add({.minute = kMinute + i, .mask = 1});
  }
  refreshSpots(data_, kBase + 600, 0);
  EXPECT_THAT(data_.intervals, SizeIs(10));
  std::filesystem::rename(path_, dir_.path("away"));
  for (int i = 11; i < 100; ++i) refreshSpots(data_, kBase + 60 * i, 0);
  EXPECT_FALSE(data_.history_in_use);
  EXPECT_EQ(data_.history_read_to, kBase + 600);
  EXPECT_THAT(data_.intervals, SizeIs(10));
  std::filesystem::rename(dir_.path("away"), path_);
  refreshSpots(data_, kBase + 6000, 0);
  EXPECT_TRUE(data_.history_in_use);
  EXPECT_THAT(data_.intervals, SizeIs(100));
  EXPECT_EQ(launcher::heldIntervals(data_.rates), 100u);
}

// The window a refresh reads: the retention at first, then 300 s before where the last one ended.
TEST_F(HistoryWindow, RefreshReadsWhatIsNewAndFiveMinutesMore) {
  HistoryFile file(path_);
  const double now = kBase + 60;
  const auto minuteBack = [](double seconds) {
    return kMinute - static_cast<std::int64_t>(seconds) / 60;
  };
  file.add({.minute = minuteBack(launcher::kRetention), .mask = 1});      // starts at now - 89,160
  file.add({.minute = minuteBack(launcher::kRetention) + 2, .mask = 1});  // starts at now - 89,040
  refreshSpots(data_, now, 15);
  EXPECT_THAT(data_.intervals, SizeIs(1));

  file.add({.minute = kMinute - 5, .mask = 1});  // late, 360 s before the end of the last read
  file.add({.minute = kMinute - 4, .mask = 1});  // late, 300 s before it
  refreshSpots(data_, now + 15, 15);
  ASSERT_THAT(data_.intervals, SizeIs(2));
  EXPECT_EQ(data_.intervals[1].start, now - 300);
}

// Rows come up to five minutes late and some are corrected, in any order; after every refresh the
// intervals are what one read of the whole day gives.
TEST_F(HistoryWindow, RefreshesInAnyRhythmGiveTheWholeDay) {
  std::mt19937 random(7);
  HistoryFile file(path_);
  file.exec("CREATE INDEX by_minute ON minutes(minute,receiver)");
  double now = kBase;
  for (int round = 0; round < 300; ++round) {
    file.exec("BEGIN");
    for (auto rows = random() % 4; rows > 0; --rows) {
      // A row of these minutes is read again by the next refresh, whenever that comes.
      const auto minute = static_cast<std::int64_t>(now / 60) - static_cast<int>(random() % 4);
      file.exec("DELETE FROM minutes WHERE minute=" + std::to_string(minute) +
                " AND frequency=14074000");
      file.add({.minute = minute,
                .mask = static_cast<std::int64_t>(random() % 16),
                .counts = countsBlob({random() % 9, random() % 9, random() % 9, random() % 9})});
    }
    file.exec("COMMIT");
    now += random() % 50 == 0 ? 20'000 : static_cast<double>(random() % 60);
    refreshSpots(data_, now, 0);

    std::vector<std::pair<double, std::uint64_t>> expected;
    for (const auto& one : readHistory(path_, now - launcher::kRetention, now)) {
      expected.emplace_back(one.start, one.count);
    }
    std::vector<std::pair<double, std::uint64_t>> held;
    for (const auto& one : data_.intervals) held.emplace_back(one.start, one.count);
    ASSERT_EQ(held, expected) << "round " << round << " at " << now - kBase;
  }
}

}  // namespace
}  // namespace spotserver
