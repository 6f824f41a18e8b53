#include "station_messages.hpp"

#include <set>

#include <gtest/gtest.h>

#include "spots/callsign.hpp"
#include "spots/message.hpp"
#include "spots/mode.hpp"

namespace station {
namespace {

const Person kSender{"DL4QX", "DL4QX/P", "JO62QM34", 37};
const Person kOther{"K1ABC", "EA8/K1ABC", "FN42AB12", 23};
const Person kThird{"JA7XYZ", "JA7XYZ/P", "QM08AA55", 30};

std::string messageOf(const MessageForm& form) {
  Draws draws(7);
  std::string out;
  appendMessage(out, form, {kSender, kOther, kThird}, draws);
  return out;
}

constexpr int kAllModes[] = {spotserver::kFt8,     spotserver::kFt4,      spotserver::kJs8,
                             spotserver::kJs8Fast, spotserver::kJs8Turbo, spotserver::kJs8Slow,
                             spotserver::kWspr};

TEST(StationMessages, SayWhoIsSendingExactlyWhenTheFormClaimsIt) {
  for (const int mode : kAllModes) {
    for (const MessageForm& form : messageForms(mode)) {
      const std::string message = messageOf(form);
      const auto sender = spotserver::extractSender(mode, message, 14'074'000, 1500, 1.7e9, -10);
      EXPECT_EQ(sender.has_value(), form.names_sender) << mode << ": " << message;
      if (!sender) continue;
      EXPECT_TRUE(sender->callsign == kSender.callsign || sender->callsign == kSender.compound)
          << mode << ": " << message << " gave " << sender->callsign;
    }
  }
}

TEST(StationMessages, FillInEveryValue) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"%o %s %g", "K1ABC DL4QX JO62"},
      {"%h %i", "JO62QM JO62QM34"},
      {"%t RR73; %c <%d>", "JA7XYZ RR73; DL4QX/P <EA8/K1ABC>"},
      {"sender=%l grid=%m %p", "sender=dl4qx grid=jo62 37"},
      {"100%%", "100%"},
  };
  for (const auto& c : cases) EXPECT_EQ(messageOf({1, true, c.text}), c.expected) << c.text;
}

TEST(StationMessages, DrawsEveryFormOfAModeByItsWeight) {
  for (const int mode : kAllModes) {
    const auto forms = messageForms(mode);
    std::set<const char*> drawn;
    Draws draws(1);
    for (int i = 0; i < 20'000; ++i) drawn.insert(drawForm(forms, draws).text);
    EXPECT_EQ(drawn.size(), forms.size()) << mode;
  }
}

TEST(StationPeople, HaveValidCallsignsAndLocators) {
  Draws draws(1);
  std::size_t from_nowhere = 0;
  const auto people = makePeople(8'000, draws);
  ASSERT_EQ(people.size(), 8'000u);
  for (const Person& person : people) {
    EXPECT_TRUE(spotserver::isValidCallsign(person.callsign)) << person.callsign;
    EXPECT_TRUE(spotserver::isValidCallsign(person.compound)) << person.compound;
    EXPECT_NE(person.compound.find(person.callsign), std::string::npos) << person.compound;
    EXPECT_TRUE(spotserver::isValidGrid(person.locator)) << person.locator;
    EXPECT_EQ(person.locator.size(), 8u) << person.locator;
    from_nowhere += person.callsign.front() == 'Q';
  }
  EXPECT_GT(from_nowhere, 0u);
  EXPECT_LT(from_nowhere, 100u);
}

}  // namespace
}  // namespace station
