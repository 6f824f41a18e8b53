// Lines of the decode log, as the decoding software lays them out:
//
//   250314_101530    14.074 Rx FT8    -12  0.2 1234 CQ N0CALL FN42
//   UTC              MHz    direction mode SNR  DT  audio offset, message
#pragma once

#include <string>
#include <string_view>

#include "station_draws.hpp"
#include "station_messages.hpp"
#include "station_receivers.hpp"

namespace station {

// What the lines of one slot have in common.
struct SlotStamp {
  const Receiver& receiver;
  std::string time;  // "250314_101530"
  std::string dial;  // MHz, at least three decimals, right-aligned in ten columns
};

// `start` is the first half second of the slot; the log knows whole seconds and drops the half.
SlotStamp slotStamp(const Receiver& receiver, Tick start);

// Appends the line of a received message, with its newline.
void appendDecode(std::string& out, const SlotStamp& slot, const Cast& cast, Draws& draws);

// Appends a line that says nothing about reception, with its newline: one of our own transmissions,
// a mode that is not counted, an impossible time, an unfinished or garbled line.
void appendJunk(std::string& out, const SlotStamp& slot, Draws& draws);

}  // namespace station
