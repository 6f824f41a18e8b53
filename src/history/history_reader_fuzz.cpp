// Makes one history row and a window of the input and aborts where expandRow and the plain reading
// of the row differ.
//
// Input: a byte of choices, then 8 bytes each of minute, frequency, from, to, then 4 of mask, then
// the name of the mode up to a newline, the receiver up to a newline, and the counts.
//   choices: bits 0-2: mode 0..6 by its code, 7: by the name given; bit 3: receiver is NULL;
//   bit 4: mode is NULL; bit 5: from and to are steps of 0.25 s from the row's minute instead of
//   the bits of a double; bit 6: the mask is cut to 10 bits; bit 7: counts are cut or filled to 64
//   bytes (80 for mode 4)
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "history/history_reader_reference.hpp"
#include "spots/mode.hpp"

namespace {

using spotserver::HistoryRow;

// Takes values off the front of the input; zeros when it is used up.
class Input {
 public:
  explicit Input(std::string_view bytes) : bytes_(bytes) {}

  template <typename T>
  T value() {
    T result{};
    const std::size_t size = std::min(sizeof result, bytes_.size());
    std::memcpy(&result, bytes_.data(), size);
    bytes_.remove_prefix(size);
    return result;
  }
  std::string line() {
    const std::size_t end = bytes_.find('\n');
    std::string result(bytes_.substr(0, end));
    bytes_.remove_prefix(end == std::string_view::npos ? bytes_.size() : end + 1);
    return result;
  }
  std::string rest() const { return std::string(bytes_); }

 private:
  std::string_view bytes_;
};

double nearMinute(std::int64_t minute, double bits) {
  std::int16_t steps = 0;
  std::memcpy(&steps, &bits, sizeof steps);
  return static_cast<double>(minute) * 60.0 + steps * 0.25;
}

void check(const HistoryRow& row, double from, double to) {
  const std::string expected = describe(spotserver::expandPlainly(row, from, to));
  const std::string found = describe(spotserver::expand(row, from, to));
  if (expected == found) return;
  std::fprintf(stderr, "Row expands to \"%s\", expected \"%s\"\n", found.c_str(), expected.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(std::string_view(reinterpret_cast<const char*>(data), size));
  const auto choices = input.value<std::uint8_t>();
  HistoryRow row;
  row.minute = input.value<std::int64_t>();
  row.frequency = input.value<std::int64_t>();
  auto from = input.value<double>();
  auto to = input.value<double>();
  row.mask = input.value<std::int32_t>();
  const int code = choices & 7;
  std::string mode = input.line();
  const std::string receiver = input.line();
  std::string counts = input.rest();

  if (code < 7) mode = spotserver::modeName(code);
  if ((choices & 32) != 0) {
    from = nearMinute(row.minute, from);
    to = nearMinute(row.minute, to);
  }
  if ((choices & 64) != 0) row.mask &= 1023;
  if ((choices & 128) != 0) counts.resize(code == spotserver::kJs8Turbo ? 80 : 64, '\x7f');

  // Buffers of exactly their size, so that overruns show.
  const auto held = std::make_unique<char[]>(counts.size());
  std::copy(counts.begin(), counts.end(), held.get());
  row.counts = {held.get(), counts.size()};
  if ((choices & 8) == 0) row.receiver = receiver;
  if ((choices & 16) == 0) row.mode = mode;
  check(row, from, to);
  return 0;
}
