#include "station_day.hpp"

#include <algorithm>

#include "station_lines.hpp"

namespace station {
namespace {

constexpr std::size_t kPeople = 8'000;
// So many of them are on the air at a time, and so many leave and come every half hour.
constexpr std::uint64_t kOnAir = 1'500;
constexpr Tick kChange = 1'800 * kTicksPerSecond;
constexpr Tick kLeaving = 120;

constexpr std::uint64_t kJunkOneIn = 250;
constexpr std::uint64_t kSwitchedOffOneIn = 200;
// Average of the draw that a slot's weight is multiplied with, see slotWeight.
constexpr std::uint64_t kAverageJitter = 100;
constexpr std::uint64_t kTicksPerHour = 3'600 * kTicksPerSecond;

// Calls fn(receiver index, slot start) for every slot that ends in (after, until] and starts at or
// after `begin`, in the order of their ends.
template <typename Fn>
void forEachSlot(Tick begin, Tick after, Tick until, const Fn& fn) {
  const auto all = receivers();
  std::vector<Tick> lengths;
  for (const Receiver& receiver : all) lengths.push_back(receiver.slotTicks());
  for (Tick end = Day::nextSlotEnd(after); end <= until; end = Day::nextSlotEnd(end)) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (end % lengths[i] == 0 && end - lengths[i] >= begin) fn(i, end - lengths[i]);
    }
  }
}

}  // namespace

Day::Day(const DayPlan& plan)
    : begin_(plan.begin),
      at_(plan.begin),
      pace_{.draws = Draws(plan.seed)},
      draws_(plan.seed + 1),
      people_(makePeople(kPeople, draws_)) {
  pace_.weight = kAverageJitter * kTicksPerHour;
  if (plan.lines) {
    pace_.lines = *plan.lines;
    pace_.weight = std::max<std::uint64_t>(1, totalWeight(plan, pace_.draws));
  }
}

Tick Day::nextSlotEnd(Tick tick) {
  const auto ends = [](Tick at) {
    return std::any_of(receivers().begin(), receivers().end(),
                       [at](const Receiver& receiver) { return at % receiver.slotTicks() == 0; });
  };
  do {
    ++tick;
  } while (!ends(tick));
  return tick;
}

void Day::skipTo(Tick tick) {
  begin_ = tick;
  at_ = tick;
}

void Day::run(Tick until, const SlotHandler& handle) {
  forEachSlot(begin_, at_, until,
              [&](std::size_t index, Tick start) { runSlot(index, start, handle); });
  at_ = std::max(at_, until);
}

// 0 for a slot that the receiver did not listen to.
std::uint64_t Day::slotWeight(const Receiver& receiver, Tick start, Draws& draws) {
  const bool switched_off = draws.oneIn(kSwitchedOffOneIn);
  const auto jitter = static_cast<std::uint64_t>(draws.between(50, 150));
  if (switched_off) return 0;
  return static_cast<std::uint64_t>(linesPerHour(receiver, start) * receiver.slotTicks()) * jitter;
}

std::uint64_t Day::totalWeight(const DayPlan& plan, Draws draws) {
  std::uint64_t total = 0;
  forEachSlot(plan.begin, plan.begin, plan.end, [&](std::size_t index, Tick start) {
    total += slotWeight(receivers()[index], start, draws);
  });
  return total;
}

void Day::runSlot(std::size_t receiver_index, Tick start, const SlotHandler& handle) {
  Slot slot{
      .receiver = receivers()[receiver_index], .receiver_index = receiver_index, .start = start};
  const std::uint64_t weight = slotWeight(slot.receiver, start, pace_.draws);
  slot.listened = weight > 0;
  pace_.carry += weight * pace_.lines;
  const std::uint64_t count = pace_.carry / pace_.weight;
  pace_.carry %= pace_.weight;
  buffer_.clear();
  if (count > 0) appendLines(count, slot);
  slot.lines = buffer_;
  handle(slot);
}

void Day::appendLines(std::uint64_t count, Slot& slot) {
  const SlotStamp stamp = slotStamp(slot.receiver, slot.start);
  for (; count > 0; --count) {
    if (draws_.oneIn(kJunkOneIn)) {
      appendJunk(buffer_, stamp, draws_);
      continue;
    }
    const Person& sender = personOnAir(slot.start);
    const Person& other = personOnAir(slot.start);
    const Person& third = personOnAir(slot.start);
    appendDecode(buffer_, stamp, {sender, other, third}, draws_);
    ++slot.decodes;
  }
}

// A window of the people is on the air and moves on through the day; those in front talk most.
const Person& Day::personOnAir(Tick tick) {
  const auto window = static_cast<std::uint64_t>(tick / kChange * kLeaving);
  const std::uint64_t place = std::min(draws_.below(kOnAir), draws_.below(kOnAir));
  return people_[static_cast<std::size_t>((window + place) % kPeople)];
}

}  // namespace station
