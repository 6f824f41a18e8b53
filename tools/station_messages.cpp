#include "station_messages.hpp"

#include <cstdint>
#include <string_view>

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

constexpr char kHex[] = "0123456789ABCDEF";

void appendDigits(std::string& out, int count, Draws& draws) {
  for (; count > 0; --count) out += draws.letter('0', '9');
}

void appendLower(std::string& out, std::string_view text) {
  for (const char c : text) out += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

void appendReport(std::string& out, Draws& draws) {
  const int report = draws.between(-24, 15);
  out += report < 0 ? '-' : '+';
  const int size = report < 0 ? -report : report;
  out += static_cast<char>('0' + size / 10);
  out += static_cast<char>('0' + size % 10);
}

void appendTelemetry(std::string& out, Draws& draws) {
  for (int i = 0; i < 18; ++i) out += kHex[draws.below(16)];
}

void appendValue(std::string& out, char letter, const Cast& cast, Draws& draws) {
  const std::string_view locator = cast.sender.locator;
  switch (letter) {
    case 's':
      out += cast.sender.callsign;
      break;
    case 'o':
      out += cast.other.callsign;
      break;
    case 't':
      out += cast.third.callsign;
      break;
    case 'c':
      out += cast.sender.compound;
      break;
    case 'd':
      out += cast.other.compound;
      break;
    case 'g':
      out += locator.substr(0, 4);
      break;
    case 'h':
      out += locator.substr(0, 6);
      break;
    case 'i':
      out += locator;
      break;
    case 'r':
      appendReport(out, draws);
      break;
    case 'n':
      appendDigits(out, 6, draws);
      break;
    case 'a':
      appendDigits(out, 3, draws);
      break;
    case 'p':
      out += std::to_string(cast.sender.power_dbm);
      break;
    case 'w':
      out += std::to_string(draws.between(-3, 3));
      break;
    case 'x':
      appendTelemetry(out, draws);
      break;
    case 'l':
      appendLower(out, cast.sender.callsign);
      break;
    case 'm':
      appendLower(out, locator.substr(0, 4));
      break;
    default:
      out += letter;
  }
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
