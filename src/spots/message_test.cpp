#include "spots/message.hpp"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "sanitizers.hpp"
#include "spots/message_reference.hpp"
#include "spots/mode.hpp"

namespace {

using namespace spotserver;
using namespace std::string_view_literals;
using testing::PrintToString;

constexpr double kDial = 14'074'000;
constexpr double kTime = 1'741'947'330;

std::optional<Sender> senderOf(int mode, std::string_view message) {
  return extractSender(mode, message, kDial, 1234, kTime, -12);
}

// "N0CALL FN42", "N0CALL" without a locator, "" without a sender.
std::string stationOf(int mode, std::string_view message) {
  const auto sender = senderOf(mode, message);
  if (!sender) return "";
  return sender->grid.empty() ? sender->callsign : sender->callsign + " " + sender->grid;
}

struct Case {
  std::string_view message;
  std::string_view station;
};

void expectStations(int mode, const std::vector<Case>& cases) {
  for (const auto& c : cases) {
    EXPECT_EQ(stationOf(mode, c.message), c.station)
        << modeName(mode) << " " << PrintToString(c.message);
  }
}

TEST(FtMessage, CallingStationIsTheSender) {
  expectStations(kFt8, {{"CQ N0CALL FN42", "N0CALL FN42"},
                        {"CQ N0CALL", "N0CALL"},
                        {"QRZ N0CALL FN42", "N0CALL FN42"},
                        {"DE N0CALL FN42", "N0CALL FN42"},
                        {"CQDX N0CALL FN42", "N0CALL FN42"},
                        {"CQX N0CALL FN42", ""},
                        {"CQ PA/N0CALL", "PA/N0CALL"},
                        {"CQ N0CALL -12", "N0CALL"},
                        {"CQ N0CALL HELLO", ""},
                        {"CQ HELLO1 FN42", ""}});
}

TEST(FtMessage, CallMayNameWhomItSeeks) {
  expectStations(kFt8, {{"CQ DX N0CALL FN42", "N0CALL FN42"},
                        {"CQ DX N0CALL", "N0CALL"},
                        {"CQ POTA N0CALL FN42", "N0CALL FN42"},
                        {"CQ 123 N0CALL FN42", "N0CALL FN42"},
                        {"CQ TESTS N0CALL FN42", ""},
                        {"CQ 12 N0CALL FN42", ""},
                        {"CQ 1234 N0CALL FN42", ""},
                        {"CQ D1 N0CALL FN42", ""},
                        {"CQ DX", ""},
                        {"CQ DX NA N0CALL", ""}});
}

TEST(FtMessage, CallEndsOneWordAfterTheSender) {
  expectStations(kFt8, {{"CQ DX N0CALL FN42 X", ""},
                        {"CQ N0CALL FN42 X", ""},
                        {"CQ N0CALL R FN42", ""},
                        {"CQ N0CALL FN42 FN42", ""}});
}

TEST(FtMessage, AnsweringStationIsTheSecondWord) {
  expectStations(kFt8, {{"N1CALL N0CALL -12", "N0CALL"},
                        {"N1CALL N0CALL R-12", "N0CALL"},
                        {"N1CALL N0CALL R -12", "N0CALL"},
                        {"N1CALL N0CALL +00", "N0CALL"},
                        {"N1CALL N0CALL RRR", "N0CALL"},
                        {"N1CALL N0CALL 73", "N0CALL"},
                        {"N1CALL N0CALL FN42", "N0CALL FN42"},
                        {"N1CALL N0CALL FN42AB", "N0CALL FN42AB"},
                        {"N1CALL N0CALL R FN42", "N0CALL FN42"},
                        {"N1CALL N0CALL 570123", "N0CALL"},
                        {"N1CALL HELLO -12", ""},
                        {"HELLO N0CALL -12", ""}});
}

TEST(FtMessage, RR73IsNoLocator) {
  expectStations(kFt8, {{"N1CALL N0CALL RR73", "N0CALL"},
                        {"CQ N0CALL RR73", "N0CALL"},
                        {"N1CALL N0CALL RR74", "N0CALL RR74"},
                        {"N1CALL N0CALL rr73", "N0CALL"}});
}

TEST(FtMessage, DirectedMessageEndsWithItsTail) {
  expectStations(kFt8, {{"N1CALL N0CALL", ""},
                        {"N1CALL N0CALL 73 X", ""},
                        {"N1CALL N0CALL R", ""},
                        {"N1CALL N0CALL R R", ""},
                        {"N1CALL N0CALL R -12 X", ""},
                        {"N1CALL N0CALL HELLO", ""},
                        {"N1CALL N0CALL FN42 -12", ""}});
}

TEST(FtMessage, ReportHasAFixedForm) {
  expectStations(kFt8, {{"N1CALL N0CALL -1", ""},
                        {"N1CALL N0CALL -123", ""},
                        {"N1CALL N0CALL 12", ""},
                        {"N1CALL N0CALL RR-12", ""},
                        {"N1CALL N0CALL R73", ""},
                        {"N1CALL N0CALL RR", ""},
                        {"N1CALL N0CALL RRRR", ""},
                        {"N1CALL N0CALL 12345", ""},
                        {"N1CALL N0CALL 1234567", ""},
                        {"N1CALL N0CALL R+1A", ""}});
}

TEST(FtMessage, HashedCallsignLosesItsBrackets) {
  expectStations(kFt8, {{"<...> N0CALL -05", "N0CALL"},
                        {"... N0CALL -05", "N0CALL"},
                        {"N1CALL <...> RR73", ""},
                        {"N1CALL <PA/N0CALL> RR73", "PA/N0CALL"},
                        {"<N1CALL> N0CALL <FN42>", "N0CALL FN42"},
                        {"<CQ> N0CALL FN42", "N0CALL FN42"},
                        {"<<N1CALL>> N0CALL 73", ""},
                        {"<> N0CALL 73", ""},
                        {"<N1CALL N0CALL 73", ""},
                        {"N1CALL> N0CALL 73", ""},
                        {".... N0CALL -05", ""}});
}

TEST(FtMessage, CombinedMessageIsReadBehindItsFirstPart) {
  expectStations(kFt8, {{"TU; N1CALL N0CALL R+02", "N0CALL"},
                        {"tu; n1call n0call r+02", "N0CALL"},
                        {"N2CALL RR73; N1CALL <N0CALL> -08", "N0CALL"},
                        {"n2call rr73; n1call <n0call> -08", "N0CALL"},
                        {"HELLO; N1CALL N0CALL -08", ""},
                        {"RR73; N1CALL N0CALL -08", ""},
                        {"XTU; N1CALL N0CALL -08", ""},
                        {"TU;N1CALL N0CALL -08", ""},
                        {"N1CALL N0CALL -08;", ""},
                        {"TU; N2CALL RR73; N1CALL N0CALL -08", ""},
                        {"HELLO; X RR73; N0CALL", ""},
                        {"HELLO; CQ N0CALL RR73; ", ""},
                        {"TU; TU; N0CALL", ""},
                        {"TU; ", ""}});
}

TEST(FtMessage, HasTwoToFiveWords) {
  expectStations(kFt8, {{"", ""},
                        {"   ", ""},
                        {"N0CALL", ""},
                        {"CQ", ""},
                        {"CQ N0CALL", "N0CALL"},
                        {"N1CALL N0CALL R -12", "N0CALL"},
                        {"CQ DX N0CALL FN42 X", ""},
                        {"N1CALL N0CALL R -12 X X", ""}});
}

TEST(FtMessage, AnyWhitespaceSeparatesWords) {
  expectStations(kFt8, {{"CQ\tN0CALL\vFN42", "N0CALL FN42"},
                        {"\f CQ \r\n N0CALL  FN42 \t", "N0CALL FN42"},
                        {"CQ\0N0CALL FN42"sv, ""},
                        {"CQ N0CALL\xA0"
                         "FN42",
                         ""}});
}

TEST(FtMessage, LettersCountAsUpperCaseInAsciiOnly) {
  expectStations(kFt8, {{"cq n0call fn42", "N0CALL FN42"},
                        {"Cq Dx n0cAll", "N0CALL"},
                        {"n1call n0call r-12", "N0CALL"},
                        {"CQ N0C\xE4LL FN42", ""}});
}

TEST(FtMessage, OverlongWordIsNothing) {
  const std::string longest = "N0CAL/ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  ASSERT_EQ(longest.size(), 32U);
  EXPECT_EQ(stationOf(kFt8, "CQ " + longest), longest);
  EXPECT_EQ(stationOf(kFt8, "CQ <" + longest + ">"), longest);
  EXPECT_EQ(stationOf(kFt8, "CQ " + longest + "A"), "");
  EXPECT_EQ(stationOf(kFt8, "CQ " + longest + std::string(1 << 20, 'A')), "");
  EXPECT_EQ(stationOf(kFt8, "CQ N0CALL" + std::string(1 << 20, ' ') + "FN42"), "N0CALL FN42");
}

TEST(FtMessage, ModeNameFollowsTheCode) {
  EXPECT_EQ(senderOf(kFt8, "CQ N0CALL FN42").value().mode, "FT8");
  EXPECT_EQ(senderOf(kFt4, "CQ N0CALL FN42").value().mode, "FT4");
}

TEST(Js8Message, FrameNamesTheSender) {
  expectStations(kJs8, {{"N0CALL: HB [frame=1 flags=0 sender=n0call grid=fn42]", "N0CALL FN42"},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=-]", "N0CALL"},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=]", "N0CALL"},
                        {"HB [frame=1 flags=0 sender=- grid=FN42]", ""},
                        {"HB [frame=1 flags=0 sender= grid=FN42]", ""},
                        {"HB [frame= flags= sender=N0CALL grid=FN42AB12]", "N0CALL FN42AB12"},
                        {" [frame=1 flags=0 sender=N0CALL grid=FN42]", "N0CALL FN42"},
                        {"HB [frame=1\tflags=0\vsender=N0CALL  grid=FN42 ]", "N0CALL FN42"},
                        {"HB [frame=1 flags=0 sender=<N0CALL> grid=FN42]", ""},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=FN4]", ""},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=FN42]]", ""}});
}

TEST(Js8Message, FrameHoldsExactlyItsFourValues) {
  expectStations(kJs8, {{"HB [frame=1 flags=0 sender=N0CALL]", ""},
                        {"HB [frame=1 sender=N0CALL grid=FN42]", ""},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=FN42 x=1]", ""},
                        {"HB [frame=1 flags=0 grid=FN42 sender=N0CALL]", ""},
                        {"HB [frame=1 flags=0 Sender=N0CALL grid=FN42]", ""},
                        {"HB [FRAME=1 flags=0 sender=N0CALL grid=FN42]", ""},
                        {"HB [frame=]", ""}});
}

TEST(Js8Message, FrameStandsAtTheEndBehindABlank) {
  expectStations(kJs8, {{"HB [frame=1 flags=0 sender=N0CALL grid=FN42] ", ""},
                        {"HB [frame=1 flags=0 sender=N0CALL grid=FN42", ""},
                        {"HB[frame=1 flags=0 sender=N0CALL grid=FN42]", ""},
                        {"[frame=1 flags=0 sender=N0CALL grid=FN42]", ""},
                        {"N0CALL: HB FN42", ""},
                        {"CQ N0CALL FN42", ""},
                        {"", ""}});
}

TEST(Js8Message, LastFrameCounts) {
  expectStations(kJs8, {{"A [frame=1 flags=0 sender=N1CALL grid=-] "
                         "[frame=1 flags=0 sender=N0CALL grid=FN42]",
                         "N0CALL FN42"},
                        {"A [frame=1 flags=0 sender=N0CALL grid=-] [frame=1]", ""}});
}

TEST(Js8Message, AllSpeedsAreOneMode) {
  for (const int mode : {kJs8, kJs8Fast, kJs8Turbo, kJs8Slow}) {
    const auto sender = senderOf(mode, "HB [frame=1 flags=0 sender=N0CALL grid=FN42]");
    ASSERT_TRUE(sender) << mode;
    EXPECT_EQ(sender->mode, "JS8") << mode;
    EXPECT_EQ(sender->callsign, "N0CALL") << mode;
  }
}

TEST(WsprMessage, LocatorStandsBeforeThePower) {
  expectStations(kWspr, {{"N0CALL FN42 37", "N0CALL FN42"},
                         {"N0CALL FN42", ""},
                         {"N0CALL FN42AB 37", ""},
                         {"N0CALL FN42 37 X", ""},
                         {"N0CALL FN42 37 [drift=-1]", "N0CALL FN42"},
                         {"N0CALL FN42 37 [drift=0] [drift=1]", "N0CALL FN42"},
                         {"N0CALL FN42 37[drift=0]", ""},
                         {" [drift=0]N0CALL FN42 37", ""}});
}

TEST(WsprMessage, CompoundCallsignHasNoLocator) {
  expectStations(kWspr, {{"PA/N0CALL 37", "PA/N0CALL"},
                         {"N0CALL 37", "N0CALL"},
                         {"PA/N0CALL 37 X", ""},
                         {"PA/N0CALL", ""},
                         {"", ""}});
}

TEST(WsprMessage, HashedCallsignNeedsASixCharacterLocator) {
  expectStations(kWspr, {{"<PA/N0CALL> FN42AB 30", "PA/N0CALL FN42AB"},
                         {"<PA/N0CALL> FN42 30", ""},
                         {"<PA/N0CALL> FN42AB12 30", ""},
                         {"<PA/N0CALL> 30", ""},
                         {"<PA/N0CALL> FN42AB", ""},
                         {"<PA/N0CALL> FN42AB 30 X", ""},
                         {"<...> FN42AB 30", ""},
                         {"<> FN42AB 30", ""},
                         {"<> FN42 30", ""}});
}

TEST(WsprMessage, PowerHasOneOrTwoDigitsUpToSixty) {
  expectStations(kWspr, {{"N0CALL FN42 0", "N0CALL FN42"},
                         {"N0CALL FN42 00", "N0CALL FN42"},
                         {"N0CALL FN42 60", "N0CALL FN42"},
                         {"N0CALL FN42 61", ""},
                         {"N0CALL FN42 99", ""},
                         {"N0CALL FN42 037", ""},
                         {"N0CALL FN42 +3", ""},
                         {"N0CALL FN42 3A", ""},
                         {"N0CALL 60", "N0CALL"},
                         {"N0CALL 61", ""}});
}

TEST(WsprMessage, LowerCaseStaysLowerCase) {
  expectStations(kWspr, {{"n0call FN42 37", ""}, {"N0CALL fn42 37", ""}, {"n0call 37", ""}});
  EXPECT_EQ(senderOf(kWspr, "N0CALL 37").value().mode, "WSPR");
}

TEST(Sender, CarriesTheNumbersOfItsLine) {
  const auto sender = senderOf(kFt8, "CQ N0CALL FN42");
  ASSERT_TRUE(sender);
  EXPECT_EQ(sender->frequency, 14'075'234U);
  EXPECT_EQ(sender->time, 1'741'947'330U);
  EXPECT_EQ(sender->snr, -12);
}

TEST(Sender, FrequencyLiesInRangeBeforeRounding) {
  const auto infinity = std::numeric_limits<double>::infinity();
  const struct {
    double dial_hz;
    std::int32_t audio_offset_hz;
    std::optional<std::uint32_t> frequency;
  } cases[] = {
      {0, 0, std::nullopt},
      {-1, 0, std::nullopt},
      {0, 1, 1U},
      {0.75, 0, std::nullopt},
      {-1'233, 1'234, 1U},
      {1'234, -1'234, std::nullopt},
      {1'235, -1'234, 1U},
      {1.25, 0, 1U},
      {1.5, 0, 2U},
      {2.5, 0, 3U},
      {4'294'967'294.5, 0, 4'294'967'295U},
      {4'294'967'295, 0, 4'294'967'295U},
      {4'294'967'295.25, 0, std::nullopt},
      {4'294'967'294, 1, 4'294'967'295U},
      {4'294'967'295, 1, std::nullopt},
      {4'294'967'296, -1, 4'294'967'295U},
      {infinity, 0, std::nullopt},
      {-infinity, 0, std::nullopt},
      {std::numeric_limits<double>::quiet_NaN(), 0, std::nullopt},
  };
  for (const auto& c : cases) {
    const auto sender =
        extractSender(kFt8, "CQ N0CALL FN42", c.dial_hz, c.audio_offset_hz, kTime, -12);
    EXPECT_EQ(sender ? std::optional(sender->frequency) : std::nullopt, c.frequency)
        << PrintToString(c.dial_hz) << " " << c.audio_offset_hz;
  }
}

TEST(Sender, TimeFitsThirtyTwoBits) {
  const struct {
    double time;
    std::optional<std::uint32_t> kept;
  } cases[] = {
      {0, 0U},
      {-0.5, std::nullopt},
      {1.75, 1U},
      {4'294'967'295, 4'294'967'295U},
      {4'294'967'295.5, std::nullopt},
      {4'294'967'296, std::nullopt},
      {std::numeric_limits<double>::infinity(), std::nullopt},
      {std::numeric_limits<double>::quiet_NaN(), std::nullopt},
  };
  for (const auto& c : cases) {
    const auto sender = extractSender(kFt8, "CQ N0CALL FN42", kDial, 0, c.time, -12);
    EXPECT_EQ(sender ? std::optional(sender->time) : std::nullopt, c.kept) << c.time;
  }
}

TEST(Sender, RangesHoldInEveryMode) {
  const struct {
    int mode;
    std::string_view message;
  } cases[] = {{kFt8, "CQ N0CALL FN42"},
               {kFt4, "CQ N0CALL FN42"},
               {kJs8, "HB [frame=1 flags=0 sender=N0CALL grid=FN42]"},
               {kWspr, "N0CALL FN42 37"}};
  for (const auto& c : cases) {
    EXPECT_TRUE(extractSender(c.mode, c.message, kDial, 0, kTime, 0)) << c.message;
    EXPECT_FALSE(extractSender(c.mode, c.message, 0, 0, kTime, 0)) << c.message;
    EXPECT_FALSE(extractSender(c.mode, c.message, 0, -5, kTime, 0)) << c.message;
    EXPECT_FALSE(extractSender(c.mode, c.message, kDial, 0, -1, 0)) << c.message;
    EXPECT_EQ(senderCallsign(c.mode, c.message, kDial, 0, kTime), "N0CALL") << c.message;
    EXPECT_EQ(senderCallsign(c.mode, c.message, 0, 0, kTime), "") << c.message;
    EXPECT_EQ(senderCallsign(c.mode, c.message, 5, -5, kTime), "") << c.message;
    EXPECT_EQ(senderCallsign(c.mode, c.message, kDial, 0, -1), "") << c.message;
  }
}

TEST(Sender, UnknownModeHasNone) {
  for (const int mode : {-1, 7, 100}) EXPECT_FALSE(senderOf(mode, "CQ N0CALL FN42")) << mode;
}

TEST(TakeWord, LeavesWhatFollows) {
  std::string_view rest = " \t CQ  N0CALL\v";
  EXPECT_EQ(takeWord(rest), "CQ");
  EXPECT_EQ(rest, "  N0CALL\v");
  EXPECT_EQ(takeWord(rest), "N0CALL");
  EXPECT_EQ(rest, "\v");
  EXPECT_EQ(takeWord(rest), "");
  EXPECT_EQ(rest, "");
  EXPECT_EQ(takeWord(rest), "");
}

// Against the plain form
// ---------------------------------------------------------------------------

void expectSameSender(int mode, const std::string& message) {
  if (testing::Test::HasFailure()) return;
  const auto found = senderOf(mode, message);
  const auto plain = reference::extractSender(mode, message, kDial, 1234, kTime, -12);
  ASSERT_TRUE(reference::same(found, plain))
      << modeName(mode) << " " << PrintToString(message) << "\n  found "
      << reference::describe(found) << "\n  plain " << reference::describe(plain);
  ASSERT_EQ(senderCallsign(mode, message, kDial, 1234, kTime), plain ? plain->callsign : "")
      << modeName(mode) << " " << PrintToString(message);
}

using Words = std::vector<std::string>;

// Every message of up to `longest` words of `vocabulary`.
void expectSameForAllMessages(int mode, const Words& vocabulary, std::size_t longest,
                              const std::string& start = "") {
  expectSameSender(mode, start);
  if (longest == 0) return;
  const std::string gap = start.empty() ? "" : " ";
  for (const auto& word : vocabulary) {
    std::string message = start;
    message.append(gap).append(word);
    expectSameForAllMessages(mode, vocabulary, longest - 1, message);
  }
}

TEST(MessageReference, AgreesOnEveryCqModifier) {
  const auto check = [](const std::string& word) {
    expectSameSender(kFt8, "CQ " + word + " N0CALL");
  };
  reference::forEachText("AZ09-", 5, check);
}

TEST(MessageReference, AgreesOnEveryReport) {
  const auto check = [](const std::string& word) {
    expectSameSender(kFt8, "N1CALL N0CALL " + word);
  };
  reference::forEachText("R+-730", kSanitized ? 5 : 6, check);
  reference::forEachText("09", 8, check);
  reference::forEachText("R73", 6, check);
}

TEST(MessageReference, AgreesOnEveryShortFtMessage) {
  const Words words = {"CQ", "dx",   "N0CALL", "<N1CALL>", "<...>",
                       "R",  "FN42", "R-12",   "RR73",     "HELLO"};
  expectSameForAllMessages(kFt8, words, 4);
  const Words few = {"CQ", "DX", "N0CALL", "R", "73"};
  expectSameForAllMessages(kFt4, few, 6);
}

TEST(MessageReference, AgreesOnEveryCombinedMessage) {
  const Words words = {"TU;", "tu;", "RR73;", "HELLO;", ";", "N0CALL", "N1CALL", "-08"};
  expectSameForAllMessages(kFt8, words, 5);
}

TEST(MessageReference, AgreesOnEveryShortJs8Message) {
  const Words words = {"HB",     "[frame=1",   "[frame=1]", "flags=0",   "sender=n0call",
                       "grid=-", "grid=fn42]", "sender=-",  "grid=fn42", "]"};
  expectSameForAllMessages(kJs8, words, 5);
  for (const auto& first : {"HB ", "HB [frame=2 ", ""}) {
    for (const auto& last : words) {
      expectSameForAllMessages(kJs8Slow, {first + last, "flags=0", "sender=n0call", "grid=fn42]"},
                               5);
    }
  }
}

TEST(MessageReference, AgreesOnEveryShortWsprMessage) {
  const Words words = {"N0CALL", "<N0CALL>", "<...>", "<>",       "FN42",
                       "FN42AB", "37",       "61",    "FN42AB12", "[drift=1]"};
  expectSameForAllMessages(kWspr, words, 4);
}

TEST(MessageReference, AgreesOnEveryWsprPower) {
  const auto check = [](const std::string& word) {
    expectSameSender(kWspr, "N0CALL FN42 " + word);
  };
  reference::forEachText("0123456789", 3, check);
  reference::forEachText("06+- A", 4, check);
}

TEST(MessageReference, AgreesOnDamagedMessages) {
  const Words messages = {"CQ N0CALL FN42",
                          "CQ DX PA/N0CALL FN42",
                          "N1CALL N0CALL R -12",
                          "<...> N0CALL/P RR73",
                          "TU; N1CALL N0CALL R+02",
                          "N2CALL RR73; N1CALL <N0CALL> -08",
                          "N0CALL: HB [frame=1 flags=0 sender=n0call grid=fn42]",
                          "A [frame=9] [frame=1 flags=0 sender=PA/N0CALL grid=-]",
                          "N0CALL FN42 37 [drift=-1]",
                          "<PA/N0CALL> FN42AB 30",
                          "PA/N0CALL 37"};
  reference::Mutator mutator(3);
  const int rounds = kSanitized ? 100'000 : 600'000;
  for (int i = 0; i < rounds; ++i) {
    const int mode = static_cast<int>(mutator.below(7));
    expectSameSender(mode, mutator.damage(mutator.pick(messages)));
  }
}

}  // namespace
