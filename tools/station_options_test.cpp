#include "station_options.hpp"

#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace station {
namespace {

constexpr std::int64_t kClock = 1'741'947'330;

Options read(std::vector<std::string> words) {
  std::vector<char*> arguments;
  arguments.reserve(words.size());
  for (std::string& word : words) arguments.push_back(word.data());
  return readOptions(arguments, kClock);
}

TEST(StationOptions, DefaultsAreOneDayUpToTheClock) {
  const Options options = read({"--out", "ALL.TXT"});
  EXPECT_EQ(options.out, "ALL.TXT");
  EXPECT_EQ(options.history, "");
  EXPECT_EQ(options.now, kClock);
  EXPECT_FALSE(options.follow);
  EXPECT_EQ(options.plan().seed, 1u);
  EXPECT_EQ(options.plan().begin, (kClock - 25 * 3600) * kTicksPerSecond);
  EXPECT_EQ(options.plan().end, kClock * kTicksPerSecond);
  EXPECT_EQ(options.plan().lines, std::nullopt);
}

TEST(StationOptions, ReadsEveryOption) {
  const Options options =
      read({"--out", "a", "--history", "b", "--hours", "2", "--lines", "1000", "--seed", "9",
            "--now", "1700000000", "--follow", "--parent", "42"});
  EXPECT_EQ(options.history, "b");
  EXPECT_EQ(options.hours, 2);
  EXPECT_EQ(options.lines, 1000u);
  EXPECT_EQ(options.seed, 9u);
  EXPECT_EQ(options.now, 1'700'000'000);
  EXPECT_TRUE(options.follow);
  EXPECT_EQ(options.parent, 42);
  EXPECT_TRUE(read({"--help"}).help);
}

TEST(StationOptions, SaysWhatIsWrong) {
  const struct {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{}, "--out PATH is required"},
      {{"--out"}, "--out requires a value"},
      {{"--out", "a", "--lines", "many"}, "--lines must be 0 to 100000000: many"},
      {{"--out", "a", "--lines", "-1"}, "--lines must be 0 to 100000000: -1"},
      {{"--out", "a", "--hours", "0"}, "--hours must be 1 to 8784: 0"},
      {{"--out", "a", "--hours", "2h"}, "--hours must be 1 to 8784: 2h"},
      {{"--out", "a", "--now", "946684800"}, "The log would begin before the year 2000"},
      {{"--out", "a", "--colour", "red"}, "Unknown option: --colour"},
  };
  for (const auto& c : cases) {
    try {
      read(c.words);
      ADD_FAILURE() << "accepted: " << c.message;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), c.message);
    }
  }
}

}  // namespace
}  // namespace station
