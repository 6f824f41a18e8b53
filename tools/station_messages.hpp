// The messages that go over the air, as the decoding software writes them down.
#pragma once

#include <span>
#include <string>

#include "station_draws.hpp"
#include "station_people.hpp"

namespace station {

// One shape a message can take. In `text`, "%" and a letter stand for a drawn value:
//   %s the sender's callsign       %o the station called    %t a third station
//   %c the sender's compound call  %d the compound call of the station called
//   %g locator (4)  %h (6)  %i (8) %r report ("-07")        %n contest serial (6 digits)
//   %a call area (3 digits)        %p power in dBm          %w drift in Hz per minute
//   %x telemetry                   %l, %m the sender's callsign and locator (4) in lower case
struct MessageForm {
  int weight = 0;             // share among the forms of the mode
  bool names_sender = false;  // whether a reader can tell who sent it
  const char* text = "";
};

// Who takes part in a message.
struct Cast {
  const Person& sender;
  const Person& other;
  const Person& third;
};

// The forms of a mode code: FT8 and FT4 share theirs, so do the four JS8 speeds.
std::span<const MessageForm> messageForms(int mode);

// Draws one of the forms by weight.
const MessageForm& drawForm(std::span<const MessageForm> forms, Draws& draws);

// Appends the form's text with every value filled in.
void appendMessage(std::string& out, const MessageForm& form, const Cast& cast, Draws& draws);

}  // namespace station
