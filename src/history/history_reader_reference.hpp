// What a history row means, written out plainly from the table of modes: the measure for expandRow.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "history/history_reader.hpp"

namespace spotserver {

// What became of a row: its observations, or the message that refused it.
struct RowOutcome {
  std::string refusal;
  std::vector<HistoryObservation> observations;
};

inline std::string describe(const RowOutcome& outcome) {
  std::string text = outcome.refusal;
  char line[160];
  for (const auto& one : outcome.observations) {
    std::snprintf(line, sizeof line, " %a Hz at %a: %llu;", one.frequency, one.start,
                  static_cast<unsigned long long>(one.count));
    text += "[" + one.receiver + " " + one.mode + line + "]";
  }
  return text;
}

inline RowOutcome expandPlainly(const HistoryRow& row, double from, double to) {
  struct Timing {
    double slot_seconds;
    int slots;
    std::int32_t greatest_mask;
    std::size_t blob_bytes;
  };
  static const std::map<std::string, Timing> timings = {
      {"FT8", {15, 4, 15, 64}},      {"FT4", {7.5, 8, 255, 64}},       {"JS8", {15, 4, 15, 64}},
      {"JS8-FAST", {10, 6, 63, 64}}, {"JS8-TURBO", {6, 10, 1023, 80}}, {"JS8-SLOW", {30, 2, 3, 64}},
      {"WSPR", {120, 1, 1, 64}},
  };
  if (!row.receiver.has_value()) return {"Invalid history text", {}};
  if (!row.mode.has_value()) return {"Invalid history text", {}};
  const auto found = timings.find(std::string(*row.mode));
  if (found == timings.end()) return {"Invalid history mode", {}};
  const Timing timing = found->second;
  if (row.mask < 0) return {"Invalid history mask", {}};
  if (row.mask > timing.greatest_mask) return {"Invalid history mask", {}};
  if (row.counts.size() != timing.blob_bytes) return {"Invalid history counts", {}};

  RowOutcome outcome;
  std::int32_t bits = row.mask;
  for (int slot = 0; slot < timing.slots; ++slot, bits /= 2) {
    if (bits % 2 == 0) continue;
    const double start = slot * timing.slot_seconds + static_cast<double>(row.minute) * 60.0;
    const double end = start + timing.slot_seconds;
    if (!(start >= from)) continue;
    if (!(end <= to + 1.0)) continue;
    std::uint64_t count = 0;
    std::uint64_t weight = 1;
    for (int byte = 0; byte < 8; ++byte, weight *= 256) {
      const auto position = static_cast<std::size_t>(slot * 8 + byte);
      count += weight * static_cast<unsigned char>(row.counts[position]);
    }
    outcome.observations.push_back({std::string(*row.receiver), std::string(*row.mode),
                                    static_cast<double>(row.frequency), start, count});
  }
  return outcome;
}

// The same through the program.
inline RowOutcome expand(const HistoryRow& row, double from, double to) {
  RowOutcome outcome;
  try {
    HistorySlots slots;
    expandRow(row, from, to, slots);
    outcome.observations = observations(slots);
  } catch (const std::runtime_error& error) {
    outcome.refusal = error.what();
  }
  return outcome;
}

}  // namespace spotserver
