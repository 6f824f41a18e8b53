#include "soak/living_station.hpp"

#include <filesystem>
#include <thread>

namespace spotserver::soak {
namespace {

using e2e::Heard;

constexpr std::int64_t kDay = 25 * 3600;  // seconds of reception at the start
constexpr std::int64_t kBetweenSlots = 45;

struct Channel {
  const char* mhz;
  const char* mode;
};
constexpr Channel kChannels[] = {{"14.074", "FT8"},      {"7.074", "FT8"}, {"14.080", "FT4"},
                                 {"7.078", "JS8-TURBO"}, {"1.840", "FT8"}, {"10.1387", "WSPR"},
                                 {"50.313", "FT8"},      {"13.5", "FT8"}};

constexpr const char* kQuizland =
    "Quizland:                 14:  28:  EU:   51.00:   -10.00:    -1.0:  Q:\n    Q;\n";

// Makes a server search for the day's start: more than it reads as a whole, two days old.
std::string oldLines(std::int64_t now) {
  const std::string line = e2e::logLine({now - 172'800, "3.573", "FT8", "K1OLD"});
  std::string text;
  while (text.size() < 1'100'000) text += line;
  return text;
}

std::string nameOf(std::uint64_t drawn) {
  static constexpr const char* kPrefixes[] = {"K", "N", "W", "G", "M", "DL", "2E", "Q"};
  std::string name = kPrefixes[drawn % 8];
  name += static_cast<char>('0' + drawn / 8 % 10);
  for (int letter = 0; letter < 2; ++letter) {
    name += static_cast<char>('A' + drawn / (letter == 0 ? 80 : 480) % 6);
  }
  return name;
}

}  // namespace

LivingStation::LivingStation(const e2e::Station& station, std::uint64_t seed)
    : station_(station),
      random_(seed),
      history_((std::filesystem::create_directories(station.stateDir()), historyPath()), 2, "WAL"),
      plain_countries_(e2e::readFile(station.countryFile())) {
  writeDay();
}

std::size_t LivingStation::live(const std::function<void()>& caught_up,
                                std::chrono::milliseconds pause, std::stop_token stop) {
  std::size_t step = 0;
  for (auto next = e2e::Clock::now(); !stop.stop_requested(); next += pause) {
    std::this_thread::sleep_until(next);
    change(step++, caught_up);
  }
  return step;
}

// The story that repeats.
void LivingStation::change(std::size_t step, const std::function<void()>& caught_up) {
  switch (step % 12) {
    case 2:
    case 8:
      addMinute(e2e::wallClock() / 60 - 2);
      return caught_up();
    case 3:
      writeCountries(!quizland_);
      return caught_up();
    case 5:
      caught_up();
      return step % 24 == 5 ? rotate() : cutShort();
    case 6:
      return appendJunk();
    case 10:
      caught_up();
      return bringBackWholeLog();
    default:
      return appendLine();
  }
}

void LivingStation::writeDay() {
  const std::int64_t now = e2e::wallClock();
  std::string text = oldLines(now);
  for (std::int64_t time = (now - kDay) / 30 * 30; time < now - 60; time += kBetweenSlots) {
    for (std::uint64_t decode = random_() % 3; decode <= 2; ++decode) {
      const Heard line = lineAt(time);
      ledger_.announceLine(line, counts(line.callsign));
      text += e2e::logLine(line);
    }
  }
  station_.writeLog(text);
  history_.exec("BEGIN");
  for (std::int64_t minute = (now - kDay) / 60; minute < now / 60 - 2; minute += 3) {
    addMinute(minute);
  }
  history_.exec("COMMIT");
  ledger_.settle();
}

// Every slot on one channel, one sender in twelve unnamed.
Heard LivingStation::lineAt(std::int64_t time) {
  const Channel& channel = kChannels[static_cast<std::size_t>(time / kBetweenSlots) % 8];
  const std::uint64_t drawn = random_();
  return {time, channel.mhz, channel.mode, drawn % 12 == 0 ? "" : nameOf(drawn / 12)};
}

bool LivingStation::counts(const std::string& callsign) const {
  return !callsign.empty() && (quizland_ || callsign[0] != 'Q');
}

void LivingStation::appendLine() {
  const Heard line = lineAt(e2e::wallClock() / 15 * 15);
  const std::string text = e2e::logLine(line);
  const std::size_t half = random_() % 3 == 0 ? text.size() / 2 : 0;
  station_.appendLog(text.substr(0, half));
  ledger_.announceLine(line, counts(line.callsign));
  station_.appendLog(text.substr(half));
  ledger_.settle();
}

// Lines that say nothing: a reader passes them over.
void LivingStation::appendJunk() {
  std::string transmitted = e2e::logLine(lineAt(e2e::wallClock()));
  transmitted.replace(transmitted.find(" Rx "), 4, " Tx ");
  station_.appendLog(transmitted + "\n" + std::string(2000, '#') + "\n\r\n");
}

void LivingStation::rotate() {
  std::filesystem::rename(station_.log(), station_.log() + ".1");
  ledger_.announceEmptyLog();
  station_.writeLog("");
  ledger_.settle();
}

// The same file, empty.
void LivingStation::cutShort() {
  ledger_.announceEmptyLog();
  std::filesystem::resize_file(station_.log(), 0);
  ledger_.settle();
}

void LivingStation::bringBackWholeLog() {
  std::string text = oldLines(e2e::wallClock());
  for (const Heard& line : ledger_.lines()) text += e2e::logLine(line);
  e2e::writeFile(station_.log() + ".new", text);
  ledger_.announceWholeLog([this](const std::string& callsign) { return counts(callsign); });
  std::filesystem::rename(station_.log() + ".new", station_.log());
  ledger_.settle();
}

// A minute of one receiver, on a channel that no other receiver has in these minutes.
void LivingStation::addMinute(std::int64_t minute) {
  const std::int64_t hertz = (channels_ % 2 == 0 ? 14'070'000 : 7'010'000) + channels_ % 1000 * 100;
  ++channels_;
  std::vector<std::uint64_t> decodes(4);
  std::vector<e2e::Slot> slots;
  const auto mask = static_cast<std::int64_t>(random_() % 15 + 1);
  for (std::size_t slot = 0; slot < 4; ++slot) {
    decodes[slot] = random_() % 30;
    if ((mask >> slot & 1) == 0) continue;
    slots.push_back({static_cast<double>(minute * 60) + 15.0 * static_cast<double>(slot), 15,
                     std::to_string(static_cast<double>(hertz) / 1e6), decodes[slot]});
  }
  ledger_.announceSlots(slots);
  history_.add({.frequency = hertz, .minute = minute, .mask = mask, .counts = countsBlob(decodes)});
  ledger_.settle();
}

void LivingStation::writeCountries(bool with_quizland) {
  const std::string fresh = station_.countryFile() + ".new";
  e2e::writeFile(fresh, plain_countries_ + (with_quizland ? kQuizland : ""));
  std::filesystem::last_write_time(fresh, std::filesystem::file_time_type::clock::now() +
                                              std::chrono::seconds(++country_writes_));
  std::filesystem::rename(fresh, station_.countryFile());
  quizland_ = with_quizland;
}

}  // namespace spotserver::soak
