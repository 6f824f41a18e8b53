#include "station_options.hpp"

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace station {

const char kHelp[] =
    "Usage: corvane-sample-station --out PATH [options]\n"
    "Writes the decode log of an invented station: all modes, many bands, the last day up to now.\n"
    "  --out PATH      the log; what the file holds is replaced\n"
    "  --history PATH  also write the receivers' history database; an old one is replaced\n"
    "  --hours H       length of the log (default 25)\n"
    "  --lines N       a day of exactly N lines (default: as many as are heard)\n"
    "  --seed N        another station (default 1); same seed, same time: same bytes\n"
    "  --now EPOCH     the log ends at this time, UTC seconds (default: the clock)\n"
    "  --follow        then go on as the clock does, slot by slot, until SIGTERM or SIGINT\n"
    "  --parent PID    with --follow: end also when the parent process, PID, ends\n"
    "  --help          this help\n";

namespace {

// Times that the log's two-digit years can say.
constexpr std::int64_t kEarliest = 946'684'800;  // 2000-01-01
constexpr std::int64_t kLatest = 4'102'444'799;  // 2099-12-31 23:59:59
constexpr std::int64_t kLongest = 24 * 366;      // hours
constexpr std::int64_t kMostLines = 100'000'000;

std::int64_t wholeNumber(const std::string& name, const std::string& text, std::int64_t low,
                         std::int64_t high) {
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || value < low || value > high) {
    throw std::runtime_error(name + " must be " + std::to_string(low) + " to " +
                             std::to_string(high) + ": " + text);
  }
  return value;
}

void applyOption(Options& options, const std::string& name, const std::string& value) {
  const auto number = [&](std::int64_t low, std::int64_t high) {
    return wholeNumber(name, value, low, high);
  };
  if (name == "--out") {
    options.out = value;
  } else if (name == "--history") {
    options.history = value;
  } else if (name == "--hours") {
    options.hours = number(1, kLongest);
  } else if (name == "--lines") {
    options.lines = static_cast<std::uint64_t>(number(0, kMostLines));
  } else if (name == "--seed") {
    options.seed = static_cast<std::uint64_t>(number(0, INT64_MAX));
  } else if (name == "--now") {
    options.now = number(kEarliest, kLatest);
  } else if (name == "--parent") {
    options.parent = number(1, INT32_MAX);
  } else {
    throw std::runtime_error("Unknown option: " + name);
  }
}

}  // namespace

DayPlan Options::plan() const {
  return {.seed = seed,
          .begin = (now - hours * 3600) * kTicksPerSecond,
          .end = now * kTicksPerSecond,
          .lines = lines};
}

Options readOptions(std::span<char* const> arguments, std::int64_t clock) {
  Options options;
  options.now = clock;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string name = arguments[i];
    if (name == "--help") {
      options.help = true;
      return options;
    }
    if (name == "--follow") {
      options.follow = true;
      continue;
    }
    if (i + 1 == arguments.size()) throw std::runtime_error(name + " requires a value");
    applyOption(options, name, arguments[++i]);
  }
  if (options.out.empty()) throw std::runtime_error("--out PATH is required");
  if (options.now - options.hours * 3600 < kEarliest) {
    throw std::runtime_error("The log would begin before the year 2000");
  }
  return options;
}

}  // namespace station
