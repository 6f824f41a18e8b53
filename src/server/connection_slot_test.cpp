#include "server/connection_slot.hpp"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace spotserver {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Time = ConnectionSlot::Time;

const Time kStart{1h};

ConnectionSlot slotIn(Phase phase, Time since = kStart) {
  ConnectionSlot slot;
  enter(slot, phase, since);
  return slot;
}

// Slots side by side, as the workers have them.
struct Row {
  std::vector<ConnectionSlot> slots;
  std::vector<ConnectionSlot*> pointers;
  explicit Row(std::vector<ConnectionSlot> given) : slots(std::move(given)) {
    for (auto& slot : slots) pointers.push_back(&slot);
  }
  // The numbers of those that were cut.
  std::vector<std::size_t> cut() const {
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < slots.size(); ++i) {
      if (slots[i].cut) numbers.push_back(i);
    }
    return numbers;
  }
};

TEST(ConnectionLimits, AStopLeavesTimeToARequestAndTakesLessThanThreeSeconds) {
  const ConnectionLimits limits;
  EXPECT_GE(limits.drain, 2s);
  EXPECT_GT(limits.release, limits.drain);
  EXPECT_LT(limits.release, 3s);
}

TEST(ConnectionDeadline, EachPhaseHasItsOwn) {
  const ConnectionLimits limits;
  EXPECT_EQ(deadline_of(slotIn(Phase::kHandshake), limits), kStart + 10s);
  EXPECT_EQ(deadline_of(slotIn(Phase::kReading), limits), kStart + 30s);
  EXPECT_EQ(deadline_of(slotIn(Phase::kFree), limits), std::nullopt);
}

TEST(ConnectionDeadline, HeadAndBodyHaveOneTogether) {
  auto slot = slotIn(Phase::kReading);
  enter(slot, Phase::kBody, kStart + 20s);
  EXPECT_EQ(deadline_of(slot, {}), kStart + 30s);
}

TEST(ConnectionDeadline, AnIdleConnectionIsTheLibrarysAffair) {
  EXPECT_EQ(deadline_of(slotIn(Phase::kIdle), ConnectionLimits{}), std::nullopt);
}

TEST(ConnectionDeadline, AnAnswerMayTakeLongWhileThePeerTakesBytes) {
  const ConnectionLimits limits;
  auto slot = slotIn(Phase::kServing);
  EXPECT_EQ(deadline_of(slot, limits), std::nullopt);
  slot.writing_since = kStart + 100s;
  EXPECT_EQ(deadline_of(slot, limits), kStart + 130s);
}

TEST(ConnectionDeadline, WhoHasOverstayedIsCut) {
  Row row({slotIn(Phase::kHandshake), slotIn(Phase::kReading), slotIn(Phase::kIdle)});
  cut_overstayed(row.pointers, {}, kStart + 9'999ms);
  EXPECT_THAT(row.cut(), IsEmpty());
  cut_overstayed(row.pointers, {}, kStart + 10s);
  EXPECT_THAT(row.cut(), ElementsAre(0));
  cut_overstayed(row.pointers, {}, kStart + 30s);
  EXPECT_THAT(row.cut(), ElementsAre(0, 1));
}

TEST(StoppingService, RequestsInFlightAreCutLast) {
  Row row({slotIn(Phase::kFree), slotIn(Phase::kHandshake), slotIn(Phase::kIdle),
           slotIn(Phase::kReading), slotIn(Phase::kBody), slotIn(Phase::kServing)});
  cut_all(row.pointers, Phase::kIdle);
  EXPECT_THAT(row.cut(), ElementsAre(1, 2));
  cut_all(row.pointers, Phase::kServing);
  EXPECT_THAT(row.cut(), ElementsAre(1, 2, 3, 4, 5));
}

TEST(RoomForOthers, TheOneIdleLongestGivesWay) {
  Row row({slotIn(Phase::kIdle, kStart + 2s), slotIn(Phase::kIdle, kStart),
           slotIn(Phase::kIdle, kStart + 1s)});
  make_room(row.pointers, {}, kStart + 5s, 0);
  EXPECT_THAT(row.cut(), IsEmpty());
  make_room(row.pointers, {}, kStart + 5s, 1);
  EXPECT_THAT(row.cut(), ElementsAre(1));
  make_room(row.pointers, {}, kStart + 5s, 1);
  EXPECT_THAT(row.cut(), ElementsAre(1)) << "which is about to be free";
  make_room(row.pointers, {}, kStart + 5s, 2);
  EXPECT_THAT(row.cut(), ElementsAre(1, 2));
}

TEST(RoomForOthers, OnlyIdleConnectionsGiveWayAndNotAtOnce) {
  Row row({slotIn(Phase::kHandshake), slotIn(Phase::kReading), slotIn(Phase::kServing),
           slotIn(Phase::kIdle, kStart + 1ms)});
  make_room(row.pointers, {}, kStart + 1s, 4);
  EXPECT_THAT(row.cut(), IsEmpty());
  make_room(row.pointers, {}, kStart + 1'001ms, 4);
  EXPECT_THAT(row.cut(), ElementsAre(3));
}

TEST(RoomForOthers, WhenNobodyIsIdleTheLongestAnswerGivesWay) {
  Row row({slotIn(Phase::kServing, kStart + 1s), slotIn(Phase::kServing), slotIn(Phase::kServing),
           slotIn(Phase::kIdle, kStart + 28s)});
  row.slots[0].writing_since = row.slots[1].writing_since = kStart + 29s;  // 2 still computes
  make_room(row.pointers, {}, kStart + 29'999ms, 2);
  EXPECT_THAT(row.cut(), ElementsAre(3));
  make_room(row.pointers, {}, kStart + 30s, 2);
  EXPECT_THAT(row.cut(), ElementsAre(1, 3));
  make_room(row.pointers, {}, kStart + 100s, 4);
  EXPECT_THAT(row.cut(), ElementsAre(0, 1, 3));
}

TEST(RoomForOthers, AFreeWorkerIsRoom) {
  Row row({slotIn(Phase::kFree), slotIn(Phase::kIdle)});
  make_room(row.pointers, {}, kStart + 5s, 1);
  EXPECT_THAT(row.cut(), IsEmpty());
}

TEST(RequestSize, ARequestBeginsWithItsFirstByteAndHasItsBound) {
  Row row({slotIn(Phase::kIdle)});
  auto& slot = row.slots[0];
  note_received(row.pointers, slot, {}, kStart + 1s, 256 * 1024);
  EXPECT_EQ(slot.phase, Phase::kReading);
  EXPECT_EQ(slot.since, kStart + 1s);
  EXPECT_FALSE(slot.cut);
  note_received(row.pointers, slot, {}, kStart + 2s, 1);
  EXPECT_EQ(slot.since, kStart + 1s);
  EXPECT_TRUE(slot.cut);
}

TEST(RequestSize, WhatComesInAHandshakeOrBesideAnAnswerIsNoRequestHead) {
  Row row({slotIn(Phase::kHandshake), slotIn(Phase::kBody), slotIn(Phase::kServing)});
  for (auto& slot : row.slots) {
    note_received(row.pointers, slot, {}, kStart, 1 << 20);
    EXPECT_EQ(slot.received, 0u);
  }
  EXPECT_THAT(row.cut(), IsEmpty());
}

TEST(RequestSize, TheLargestGoesWhenAllTogetherAreTooLarge) {
  ConnectionLimits limits;
  limits.workers = 4;
  limits.all_request_bytes = 4000;
  Row row(std::vector<ConnectionSlot>(4, slotIn(Phase::kIdle)));
  note_received(row.pointers, row.slots[2], limits, kStart, 3000);
  note_received(row.pointers, row.slots[0], limits, kStart, 1000);
  EXPECT_THAT(row.cut(), IsEmpty());
  note_received(row.pointers, row.slots[0], limits, kStart, 1);
  EXPECT_THAT(row.cut(), ElementsAre(2));
}

TEST(RequestSize, WithinItsShareNobodyIsTheCause) {
  ConnectionLimits limits;
  limits.workers = 2;
  limits.all_request_bytes = 2000;
  limits.request_bytes = 1500;
  Row row(std::vector<ConnectionSlot>(2, slotIn(Phase::kIdle)));
  note_received(row.pointers, row.slots[0], limits, kStart, 1501);  // is cut, but still holds it
  note_received(row.pointers, row.slots[1], limits, kStart, 1000);
  EXPECT_THAT(row.cut(), ElementsAre(0));
}

TEST(RequestSize, DeepBeginsBeyondTheLimit) {
  auto slot = slotIn(Phase::kReading);
  slot.received = 512;
  EXPECT_FALSE(is_deep(slot, {}));
  slot.received = 513;
  EXPECT_TRUE(is_deep(slot, {}));
  enter(slot, Phase::kIdle, kStart);
  EXPECT_FALSE(is_deep(slot, {}));
}

TEST(InFlight, FromTheFirstByteToTheAnswer) {
  Row row({slotIn(Phase::kFree), slotIn(Phase::kHandshake), slotIn(Phase::kIdle),
           slotIn(Phase::kReading), slotIn(Phase::kBody), slotIn(Phase::kServing)});
  EXPECT_EQ(in_flight(row.pointers), 3u);
}

}  // namespace
}  // namespace spotserver
