#include "spots/refresh.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/band_plan.hpp"
#include "history/history_window.hpp"
#include "spots/all_txt.hpp"
#include "spots/log_reader.hpp"
#include "spots/regular_file.hpp"

namespace spotserver {
namespace {

using launcher::kRetention;

constexpr double kClockStep = 600;       // seconds back that mean: the clock was set
constexpr double kHistoryOverlap = 300;  // seconds read again
constexpr double kLogMargin = 600;       // seconds before the retention that a log is begun at
constexpr std::uint64_t kReadWhole = 1 << 20;  // bytes; a larger log is searched for its last day

// Runs one step of a refresh. A failure (no memory, in practice) ends that step only: what it did
// by then is whole, and the next refresh goes on from there.
template <typename Step>
void quietly(Step&& step) noexcept {
  try {
    step();
  } catch (...) {
  }
}

// As if neither source had ever been read. Callsigns stay until they age out; those that never
// would, because they were heard further ahead than a line may be, go.
void forgetSources(SpotData& data, double now) {
  data.log = {};
  data.left_out_from = std::numeric_limits<double>::infinity();
  data.spots.clear();
  data.intervals.clear();
  data.rates.clear();
  data.history_read_to = 0;
  data.heard.forgetAfter(now + kRetention);
}

void refreshCountries(SpotData& data) {
  const auto& candidates = data.cty_candidates;
  const auto path = std::find_if(candidates.begin(), candidates.end(), isRegularFile);
  if (path == candidates.end()) return;
  const cty::Countries* before = data.countries.countries();
  data.countries.reloadIfChanged(*path);
  if (data.countries.countries() != before) data.heard.forgetVerdicts();
}

void refreshHistory(SpotData& data, double now, const std::stop_token& stop) {
  if (data.history_path.empty()) return;
  // After a long pause, what lies before the retention is not worth reading.
  double from = now - kRetention;
  if (data.history_read_to > 0) from = std::max(from, data.history_read_to - kHistoryOverlap);
  readHistoryWindow(data, from, now, stop);
}

// Takes lines of the log in. What depends on the dial frequency alone is looked up once for as long
// as the frequency comes again and again; so it lives no longer than one reading of the log, and
// nothing is pruned meanwhile.
class LineTaker {
 public:
  LineTaker(SpotData& data, double now) : data_(data), now_(now), dials_(kDials) {}

  // Whatever can fail comes first and may be repeated, the spot and the counts come last: so a line
  // that failed half way can be taken in again and still counts once.
  void take(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    const auto record = parseAllTxtLine(line, last_);
    if (!record) return;
    if (record->time >= now_ - kRetention) hold(*record);
    ++data_.accepted_lines;
    data_.newest_decode = std::max(data_.newest_decode, record->time);
  }

 private:
  static constexpr std::size_t kDials = 256;  // more than a station listens to

  struct Dial {
    double frequency = std::numeric_limits<double>::quiet_NaN();
    std::string band;
    HeardCallsigns::Band* heard = nullptr;  // null: nobody yet
  };

  void hold(const AllTxtRecord& record) {
    if (record.time > now_ + kRetention) {
      data_.left_out_from = std::min(data_.left_out_from, record.time);
      return;
    }
    Dial& dial = dialAt(record.frequency);
    const bool counted = !record.callsign.empty() && hear(record, dial);
    if (data_.history_in_use) return;
    data_.spots.append(record.time, record.frequency, record.mode, dial.band,
                       counted ? std::string_view(record.callsign) : std::string_view());
  }

  bool hear(const AllTxtRecord& record, Dial& dial) {
    if (dial.heard == nullptr) dial.heard = &data_.heard.band(dial.band);
    return recordSender(data_, record.callsign, *dial.heard, record.time);
  }

  Dial& dialAt(double frequency) {
    const auto bits = std::bit_cast<std::uint64_t>(frequency);
    Dial& dial = dials_[hashBits(bits) % kDials];
    if (std::bit_cast<std::uint64_t>(dial.frequency) != bits) {
      dial = {frequency, launcher::bandForFrequency(frequency).id, nullptr};
    }
    return dial;
  }

  SpotData& data_;
  const double now_;
  LineHead last_;
  std::vector<Dial> dials_;  // by frequency; a new one takes the place of another
};

void readNewLines(SpotData& data, const RegularFile& log, double now, const std::stop_token& stop) {
  if (data.log.offset == 0 && log.size > kReadWhole) {
    data.log = startOfLog(log, findLogStart(log, now - kRetention - kLogMargin));
  }
  if (data.log.scanned >= log.size) return;
  LineTaker taker(data, now);
  readLogLines(
      log, data.log, [&taker](std::string_view line) { taker.take(line); }, stop);
}

// Returns whether a line was consumed or the log is another than before.
bool refreshLog(SpotData& data, double now, const std::stop_token& stop) {
  const auto log = openRegularFile(data.all_txt_path);
  if (!log) return false;
  const bool first_look = data.log.inode == 0;
  const auto continued = continuesLog(*log, data.log);
  if (!continued) return false;
  const bool start_over = !*continued || now >= data.left_out_from;
  if (start_over) {
    data.log = startOfLog(*log, 0);
    data.left_out_from = std::numeric_limits<double>::infinity();
    data.spots.clear();
  }
  const std::uint64_t before = data.log.offset;
  quietly([&] { readNewLines(data, *log, now, stop); });
  return (start_over && !first_look) || data.log.offset != before;
}

}  // namespace

void refreshSpots(SpotData& data, double now, double min_interval,
                  const std::stop_token& stop) noexcept {
  if (data.demo || stop.stop_requested()) return;
  const bool clock_was_set = now < data.last_refresh - kClockStep;
  if (!clock_was_set && now - data.last_refresh < min_interval) return;
  data.last_refresh = now;
  if (clock_was_set) forgetSources(data, now);
  refreshCountries(data);
  quietly([&] { refreshHistory(data, now, stop); });
  const bool log_moved = refreshLog(data, now, stop);
  if (log_moved || clock_was_set) ++data.generation;
  pruneSpots(data, now);
}

}  // namespace spotserver
