#include "station_lines.hpp"

#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "spots/mode.hpp"

namespace station {
namespace {

constexpr std::string_view kOtherModes[] = {"MSK144", "Q65", "FST4", "FST4W", "JT65", "ft8"};

// Right-aligned in `width` columns.
void appendNumber(std::string& out, int value, std::size_t width) {
  char digits[12];
  const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const auto length = static_cast<std::size_t>(end - digits);
  if (length < width) out.append(width - length, ' ');
  out.append(digits, length);
}

void appendTwoDigits(std::string& out, unsigned value) {
  out += static_cast<char>('0' + value / 10 % 10);
  out += static_cast<char>('0' + value % 10);
}

// "YYMMDD_HHMMSS", UTC.
std::string timeText(std::int64_t seconds) {
  const std::chrono::sys_seconds at{std::chrono::seconds(seconds)};
  const auto midnight = std::chrono::floor<std::chrono::days>(at);
  const std::chrono::year_month_day date(midnight);
  const std::chrono::hh_mm_ss clock(at - midnight);
  std::string out;
  appendTwoDigits(out, static_cast<unsigned>(static_cast<int>(date.year()) % 100));
  appendTwoDigits(out, static_cast<unsigned>(date.month()));
  appendTwoDigits(out, static_cast<unsigned>(date.day()));
  out += '_';
  appendTwoDigits(out, static_cast<unsigned>(clock.hours().count()));
  appendTwoDigits(out, static_cast<unsigned>(clock.minutes().count()));
  appendTwoDigits(out, static_cast<unsigned>(clock.seconds().count()));
  return out;
}

std::string dialText(std::int64_t dial_hz) {
  std::string decimals = std::to_string(1'000'000 + dial_hz % 1'000'000).substr(1);
  while (decimals.size() > 3 && decimals.back() == '0') decimals.pop_back();
  const std::string text = std::to_string(dial_hz / 1'000'000) + "." + decimals;
  return std::string(text.size() < 10 ? 10 - text.size() : 0, ' ') + text;
}

void appendHead(std::string& out, const SlotStamp& slot, std::string_view direction,
                std::string_view mode) {
  out += slot.time;
  out += slot.dial;
  out += ' ';
  out += direction;
  out += ' ';
  out += mode;
  if (mode.size() < 3) out.append(3 - mode.size(), ' ');
}

// Signal-to-noise ratio in dB, time offset in tenths of a second, audio offset in Hz.
void appendMeasurements(std::string& out, int snr, int tenths, int audio) {
  appendNumber(out, snr, 7);
  out += tenths < 0 ? " -" : "  ";
  appendNumber(out, std::abs(tenths) / 10, 1);
  out += '.';
  appendNumber(out, std::abs(tenths) % 10, 1);
  appendNumber(out, audio, 5);
  out += ' ';
}

void drawMeasurements(std::string& out, int mode, Draws& draws) {
  const bool wspr = mode == spotserver::kWspr;
  // Two draws and the lower one: weak signals are heard more often than strong ones.
  const int strongest = wspr ? 5 : 19;
  const int first = draws.between(wspr ? -31 : -24, strongest);
  const int second = draws.between(wspr ? -31 : -24, strongest);
  const int tenths = draws.between(-8, 19);
  const int audio = wspr ? draws.between(1400, 1600) : draws.between(200, 2900);
  appendMeasurements(out, first < second ? first : second, tenths, audio);
}

void appendOwnTransmission(std::string& out, const SlotStamp& slot) {
  appendHead(out, slot, "Tx", spotserver::modeName(slot.receiver.mode));
  appendMeasurements(out, 0, 0, 1500);
  out += "CQ N0CALL FN42";
}

void appendOtherMode(std::string& out, const SlotStamp& slot, Draws& draws) {
  appendHead(out, slot, "Rx", draws.pick(kOtherModes));
  drawMeasurements(out, slot.receiver.mode, draws);
  out += "CQ K1ABC FN42";
}

void appendImpossibleTime(std::string& out, const SlotStamp& slot, Draws& draws) {
  SlotStamp wrong = slot;
  wrong.time.replace(2, 4, "0230");  // 30 February
  appendHead(out, wrong, "Rx", spotserver::modeName(slot.receiver.mode));
  drawMeasurements(out, slot.receiver.mode, draws);
  out += "CQ K1ABC FN42";
}

// The decoder was stopped while it wrote: the line ends somewhere before its SNR.
void appendHalfLine(std::string& out, const SlotStamp& slot, Draws& draws) {
  std::string line;
  appendHead(line, slot, "Rx", spotserver::modeName(slot.receiver.mode));
  out.append(line, 0, static_cast<std::size_t>(draws.below(line.size())));
}

// Two programs wrote at once: a second line begins inside the first.
void appendRunIntoEachOther(std::string& out, const SlotStamp& slot, Draws& draws) {
  out += slot.time;
  out += slot.dial;
  out += " R";
  appendHead(out, slot, "Rx", spotserver::modeName(slot.receiver.mode));
  drawMeasurements(out, slot.receiver.mode, draws);
}

// What a power cut leaves in a file: bytes of anything but a newline.
void appendGarbage(std::string& out, Draws& draws) {
  for (int length = draws.between(1, 60); length > 0; --length) {
    const char byte = static_cast<char>(draws.below(256));
    out += byte == '\n' ? '\0' : byte;
  }
}

}  // namespace

SlotStamp slotStamp(const Receiver& receiver, Tick start) {
  return {receiver, timeText(start / kTicksPerSecond), dialText(receiver.dial_hz)};
}

void appendDecode(std::string& out, const SlotStamp& slot, const Cast& cast, Draws& draws) {
  const int mode = slot.receiver.mode;
  appendHead(out, slot, "Rx", spotserver::modeName(mode));
  drawMeasurements(out, mode, draws);
  appendMessage(out, drawForm(messageForms(mode), draws), cast, draws);
  out += '\n';
}

void appendJunk(std::string& out, const SlotStamp& slot, Draws& draws) {
  switch (draws.below(8)) {
    case 0:
    case 1:
      appendOwnTransmission(out, slot);
      break;
    case 2:
      appendOtherMode(out, slot, draws);
      break;
    case 3:
      appendImpossibleTime(out, slot, draws);
      break;
    case 4:
      appendHalfLine(out, slot, draws);
      break;
    case 5:
      appendRunIntoEachOther(out, slot, draws);
      break;
    case 6:
      appendGarbage(out, draws);
      break;
    default:
      break;  // an empty line
  }
  out += '\n';
}

}  // namespace station
