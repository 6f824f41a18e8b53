// What becomes of one row of a history, right or wrong.
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history/history_reader_reference.hpp"
#include "history_file.hpp"
#include "spots/mode.hpp"
#include "stems/history_reading.hpp"

namespace spotserver {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OneRow : public testing::Test {
 protected:
  OneRow() {
    row_.receiver = "RX1";
    row_.frequency = 14'074'000;
    row_.mode = "FT8";
    row_.minute = kMinute;
    row_.mask = 1;
    row_.counts = counts_;
  }

  std::vector<HistoryObservation> expandIn(double from, double to) const {
    HistorySlots out;
    expandRow(row_, from, to, out);
    return observations(out);
  }

  const std::string counts_ = countsBlob({3, 0, 7, 9, 0, 0, 0, 0});
  HistoryRow row_;
};

TEST_F(OneRow, EverySetBitOfTheMaskIsOneObservation) {
  row_.mask = 0b0101;
  const auto out = expandIn(kBase, kBase + 59);
  ASSERT_THAT(out, SizeIs(2));
  EXPECT_EQ(out[0].receiver, "RX1");
  EXPECT_EQ(out[0].mode, "FT8");
  EXPECT_EQ(out[0].frequency, 14'074'000.0);
  EXPECT_THAT(starts(out), ElementsAre(kBase, kBase + 30));
  EXPECT_THAT(countsOf(out), ElementsAre(3, 7));
}

TEST_F(OneRow, ListeningWithoutADecodeIsAnObservation) {
  row_.mask = 0b0010;
  const auto out = expandIn(kBase, kBase + 59);
  EXPECT_THAT(starts(out), ElementsAre(kBase + 15));
  EXPECT_THAT(countsOf(out), ElementsAre(0));
}

TEST_F(OneRow, WithoutBitsThereIsNothing) {
  row_.mask = 0;
  EXPECT_THAT(expandIn(kBase, kBase + 59), IsEmpty());
}

TEST_F(OneRow, CountsAreLittleEndianWith64Bits) {
  const std::string counts = countsBlob({0x0102030405060708, ~std::uint64_t{0}});
  EXPECT_EQ(counts.substr(0, 8), "\x08\x07\x06\x05\x04\x03\x02\x01");
  row_.counts = counts;
  row_.mask = 0b0011;
  EXPECT_THAT(countsOf(expandIn(kBase, kBase + 59)),
              ElementsAre(0x0102030405060708, ~std::uint64_t{0}));
}

TEST_F(OneRow, SlotMayEndOneSecondAfterTheWindowButNotMore) {
  EXPECT_THAT(starts(expandIn(kBase, kBase + 14)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase, kBase + 13.5), IsEmpty());
}

TEST_F(OneRow, SlotMayStartAtTheWindowsStartButNotBefore) {
  EXPECT_THAT(starts(expandIn(kBase, kBase + 59)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase + 0.5, kBase + 59), IsEmpty());
}

TEST_F(OneRow, WsprIsOneSlotOf120SecondsFromItsMinuteOn) {
  row_.mode = "WSPR";
  EXPECT_THAT(starts(expandIn(kBase, kBase + 119)), ElementsAre(kBase));
  EXPECT_THAT(expandIn(kBase, kBase + 118.5), IsEmpty());
}

TEST_F(OneRow, WindowWithoutBoundsOrWithBoundsThatAreNoNumbers) {
  EXPECT_THAT(expandIn(-kInfinity, kInfinity), SizeIs(1));
  EXPECT_THAT(expandIn(kNoNumber, kInfinity), IsEmpty());
  EXPECT_THAT(expandIn(-kInfinity, kNoNumber), IsEmpty());
  row_.minute = std::numeric_limits<std::int64_t>::max();
  EXPECT_THAT(expandIn(-kInfinity, kInfinity), SizeIs(1));
}

TEST_F(OneRow, RefusalsNameTheFirstThingThatIsWrong) {
  using namespace std::string_view_literals;
  const std::string bytes(96, '\0');
  const std::string_view blob = bytes;
  constexpr auto kNull = std::nullopt;
  const struct {
    std::optional<std::string_view> receiver;
    std::optional<std::string_view> mode;
    std::int32_t mask;
    std::size_t blob_bytes;
    const char* message;
  } cases[] = {
      {kNull, "FT8", 1, 64, "Invalid history text"},
      {"RX1", kNull, 1, 64, "Invalid history text"},
      {kNull, "no mode", -1, 0, "Invalid history text"},
      {"RX1", "ft8", 1, 64, "Invalid history mode"},
      {"RX1", "FT8 ", 1, 64, "Invalid history mode"},
      {"RX1", " FT8", 1, 64, "Invalid history mode"},
      {"RX1", "FT8\0"sv, 1, 64, "Invalid history mode"},
      {"RX1", "", 1, 64, "Invalid history mode"},
      {"RX1", "unknown", 1, 64, "Invalid history mode"},
      {"RX1", "FST4", -1, 0, "Invalid history mode"},
      {"RX1", "FT8", 16, 64, "Invalid history mask"},
      {"RX1", "FT8", -1, 64, "Invalid history mask"},
      {"RX1", "FT8", std::numeric_limits<std::int32_t>::min(), 64, "Invalid history mask"},
      {"RX1", "FT8", std::numeric_limits<std::int32_t>::max(), 64, "Invalid history mask"},
      {"RX1", "WSPR", 2, 64, "Invalid history mask"},
      {"RX1", "JS8-TURBO", 1024, 0, "Invalid history mask"},
      {"RX1", "FT8", 1, 32, "Invalid history counts"},
      {"RX1", "FT8", 1, 63, "Invalid history counts"},
      {"RX1", "FT8", 1, 65, "Invalid history counts"},
      {"RX1", "FT8", 1, 80, "Invalid history counts"},
      {"RX1", "FT8", 0, 0, "Invalid history counts"},
      {"RX1", "JS8-TURBO", 1, 64, "Invalid history counts"},
      {"RX1", "JS8-TURBO", 1, 88, "Invalid history counts"},
      {"", "FT8", 1, 64, ""},
      {"RX1", "JS8-TURBO", 1023, 80, ""},
  };
  for (const auto& c : cases) {
    row_.receiver = c.receiver;
    row_.mode = c.mode;
    row_.mask = c.mask;
    row_.counts = blob.substr(0, c.blob_bytes);
    EXPECT_EQ(expand(row_, kBase, kBase + 200).refusal, c.message)
        << c.mode.value_or("NULL") << " mask " << c.mask << ", " << c.blob_bytes << " bytes";
  }
}

TEST_F(OneRow, RefusedRowAddsNothing) {
  HistorySlots out = slotsOf(std::vector<HistoryObservation>(1));
  row_.mask = 16;
  EXPECT_THROW(expandRow(row_, kBase, kBase + 59, out), std::runtime_error);
  EXPECT_THAT(out.slots, SizeIs(1));
  EXPECT_EQ(out.channels(), 1u);
}

TEST_F(OneRow, EveryModeAndMaskExpandsLikeThePlainReading) {
  std::mt19937 random(1);
  for (int mode = kFt8; mode <= kWspr; ++mode) {
    row_.mode = modeName(mode);
    for (std::int32_t mask = -2; mask <= 1025; ++mask) {
      row_.mask = mask;
      std::vector<std::uint64_t> counts(10);
      for (auto& count : counts) count = random();
      const std::string blob = countsBlob(counts, mode == kJs8Turbo ? 10 : 8);
      row_.counts = blob;
      const double from = kBase - 10 + static_cast<double>(random() % 300) / 4;
      const double to = from + static_cast<double>(random() % 600) / 4;
      EXPECT_EQ(describe(expand(row_, from, to)), describe(expandPlainly(row_, from, to)))
          << *row_.mode << " mask " << mask << " in " << from - kBase << ".." << to - kBase;
    }
  }
}

}  // namespace
}  // namespace spotserver
