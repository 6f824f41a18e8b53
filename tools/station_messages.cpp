#include "station_messages.hpp"

#include <cstdint>
#include <string>

#include "spots/mode.hpp"

namespace station {
namespace {

constexpr MessageForm kFt8Forms[] = {
    // Calling.
    {240, true, "CQ %s %g"},
    {8, true, "CQ %s"},
    {60, true, "CQ DX %s %g"},
    {20, true, "CQ POTA %s %g"},
    {6, true, "CQ %a %s %g"},
    {12, true, "CQ %c"},
    {5, true, "QRZ %s"},
    {5, true, "DE %s %g"},
    {4, true, "CQDX %s %g"},
    {3, true, "CQ %s 73"},
    // Directed.
    {140, true, "%o %s %g"},
    {150, true, "%o %s %r"},
    {150, true, "%o %s R%r"},
    {3, true, "%o %s R %r"},
    {5, true, "%o %s R %g"},
    {4, true, "%o %s %h"},
    {3, true, "%o %s %i"},
    {4, true, "%o %s %n"},
    {6, true, "%o %s R %n"},
    {20, true, "%o %s RRR"},
    {120, true, "%o %s RR73"},
    {90, true, "%o %s 73"},
    // Hashed callsigns: in angle brackets, three points when the receiver has not met the hash.
    {12, true, "<...> %s %r"},
    {8, true, "<%d> %s RR73"},
    {8, true, "%o <%c> %r"},
    {8, false, "%o <...> RR73"},
    // Two messages in one.
    {6, true, "TU; %o %s R%r"},
    {10, true, "%t RR73; %o <%s> %r"},
    // What does not say who is speaking.
    {8, false, "TNX BOB 73 GL"},
    {4, false, "%x"},
    {3, false, "%o %s 73 GL"},
};

constexpr MessageForm kJs8Forms[] = {
    {40, true, "%s: @HB HEARTBEAT %g [frame=3 flags=0 sender=%s grid=%g]"},
    {15, true, "%s: CQ CQ CQ %g [frame=3 flags=1 sender=%l grid=%m]"},
    {20, true, "%s: %o SNR %r [frame=0 flags=2 sender=%s grid=-]"},
    {8, true, "%c: %o HW CPY? [frame=2 flags=2 sender=%c grid=-]"},
    {15, false, "QTH NR LAKE PWR 5W [frame=0 flags=0 sender=- grid=-]"},
    {6, false, "ANT DIPOLE UP 8M"},
    {4, false, "%s: AGN? [frame=0 flags=2 sender=%s]"},
};

constexpr MessageForm kWsprForms[] = {
    {75, true, "%s %g %p"},  {20, true, "%s %g %p [drift=%w]"}, {6, true, "%c %p"},
    {4, true, "<%c> %h %p"}, {3, false, "<...> %h %p"},         {2, false, "<%c> %g %p"},
};

std::string digits(int count, Draws& draws) {
  std::string text;
  for (; count > 0; --count) text += draws.letter('0', '9');
  return text;
}

std::string lower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::string report(Draws& draws) {
  const int decibels = draws.between(-24, 15);
  const int size = decibels < 0 ? -decibels : decibels;
  return {decibels < 0 ? '-' : '+', static_cast<char>('0' + size / 10),
          static_cast<char>('0' + size % 10)};
}

std::string telemetry(Draws& draws) {
  std::string text;
  for (int i = 0; i < 18; ++i) text += "0123456789ABCDEF"[draws.below(16)];
  return text;
}

// What stands for "%" and a letter; any other letter stands for itself.
constexpr struct {
  char letter;
  std::string (*value)(const Cast& cast, Draws& draws);
} kValues[] = {
    {'s', [](const Cast& cast, Draws&) { return cast.sender.callsign; }},
    {'o', [](const Cast& cast, Draws&) { return cast.other.callsign; }},
    {'t', [](const Cast& cast, Draws&) { return cast.third.callsign; }},
    {'c', [](const Cast& cast, Draws&) { return cast.sender.compound; }},
    {'d', [](const Cast& cast, Draws&) { return cast.other.compound; }},
    {'g', [](const Cast& cast, Draws&) { return cast.sender.locator.substr(0, 4); }},
    {'h', [](const Cast& cast, Draws&) { return cast.sender.locator.substr(0, 6); }},
    {'i', [](const Cast& cast, Draws&) { return cast.sender.locator; }},
    {'l', [](const Cast& cast, Draws&) { return lower(cast.sender.callsign); }},
    {'m', [](const Cast& cast, Draws&) { return lower(cast.sender.locator.substr(0, 4)); }},
    {'p', [](const Cast& cast, Draws&) { return std::to_string(cast.sender.power_dbm); }},
    {'r', [](const Cast&, Draws& draws) { return report(draws); }},
    {'n', [](const Cast&, Draws& draws) { return digits(6, draws); }},
    {'a', [](const Cast&, Draws& draws) { return digits(3, draws); }},
    {'w', [](const Cast&, Draws& draws) { return std::to_string(draws.between(-3, 3)); }},
    {'x', [](const Cast&, Draws& draws) { return telemetry(draws); }},
};

void appendValue(std::string& out, char letter, const Cast& cast, Draws& draws) {
  for (const auto& [known, value] : kValues) {
    if (known == letter) {
      out += value(cast, draws);
      return;
    }
  }
  out += letter;
}

}  // namespace

std::span<const MessageForm> messageForms(int mode) {
  if (mode == spotserver::kWspr) return kWsprForms;
  if (mode == spotserver::kFt8 || mode == spotserver::kFt4) return kFt8Forms;
  return kJs8Forms;
}

const MessageForm& drawForm(std::span<const MessageForm> forms, Draws& draws) {
  std::uint64_t total = 0;
  for (const MessageForm& form : forms) total += static_cast<std::uint64_t>(form.weight);
  auto left = static_cast<std::int64_t>(draws.below(total));
  for (const MessageForm& form : forms) {
    left -= form.weight;
    if (left < 0) return form;
  }
  return forms.back();
}

void appendMessage(std::string& out, const MessageForm& form, const Cast& cast, Draws& draws) {
  for (const char* c = form.text; *c != '\0'; ++c) {
    if (*c == '%') {
      appendValue(out, *++c, cast, draws);
    } else {
      out += *c;
    }
  }
}

}  // namespace station
