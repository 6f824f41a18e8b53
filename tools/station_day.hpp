// The sample station at work: its receivers slot by slot, in the order in which the slots end.
//
//   station::Day day({.seed = 1, .begin = begin, .end = now});
//   day.run(now, [&](const station::Slot& slot) { log.append(slot.lines); });
//
// Everything is drawn from the seed; the same seed and times give the same bytes on every machine.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "station_draws.hpp"
#include "station_people.hpp"
#include "station_receivers.hpp"

namespace station {

// One slot of one receiver.
struct Slot {
  const Receiver& receiver;
  std::size_t receiver_index = 0;  // position in receivers()
  Tick start = 0;                  // the slot is [start, start + receiver.slotTicks())
  bool listened = true;            // false: the receiver was switched off, nothing was heard
  std::uint64_t decodes = 0;       // received messages among the lines
  std::string_view lines{};        // the slot's lines with their newlines, junk included
};

using SlotHandler = std::function<void(const Slot&)>;

struct DayPlan {
  std::uint64_t seed = 1;
  Tick begin = 0;  // no slot starts before it
  Tick end = 0;    // with `lines`: where the counted day ends
  // Exactly so many lines, junk included, in the slots from begin to end. Empty: as many as a
  // station of this kind hears.
  std::optional<std::uint64_t> lines{};
};

class Day {
 public:
  explicit Day(const DayPlan& plan);

  // Hands over every slot that ends up to and including `until`, from where the last call ended.
  void run(Tick until, const SlotHandler& handle);

  // The first tick after `tick` at which a slot ends.
  static Tick nextSlotEnd(Tick tick);

  // Leaves out everything up to `tick`, as if the station had been switched off.
  void skipTo(Tick tick);

 private:
  // How many lines the slots get. A slot weighs the lines per hour of its receiver, times its
  // length in ticks, times a draw around 100; `lines` lines are worth `weight` of that. What is
  // left over after whole lines is carried to the next slot, so the total comes out exactly.
  struct Pace {
    Draws draws;
    std::uint64_t lines = 1;
    std::uint64_t weight = 1;
    std::uint64_t carry = 0;
  };
  static std::uint64_t slotWeight(const Receiver& receiver, Tick start, Draws& draws);
  static std::uint64_t totalWeight(const DayPlan& plan, Draws draws);

  void runSlot(std::size_t receiver_index, Tick start, const SlotHandler& handle);
  void appendLines(std::uint64_t count, Slot& slot);
  const Person& personOnAir(Tick tick);

  Tick begin_;
  Tick at_;  // every slot that ends up to here was handed over
  Pace pace_;
  Draws draws_;
  std::vector<Person> people_;
  std::string buffer_;
};

}  // namespace station
