// The JSON document of the activity endpoint.
#pragma once

#include <string>

#include "api/activity_snapshot.hpp"

namespace spotserver {

// A snapshot as one JSON object, without any whitespace. Keys and their order are fixed; times are
// whole seconds, rates have at most three decimals, and a rate that is empty is null:
//   {"generated":1763175600,"mode":"live","hours":1,"smoothing":3,"window_spots":12,
//    "window_intervals":1,"window_unique_callsigns":9,"bands":[
//     {"id":"20m","color":"#f2c40c","rate_now":2880,"spots":12,"intervals":1,
//      "unique_callsigns":9,"points":[{"t":1763172000,"rate":null},...]}]}
// (broken here to fit the page).
//
// An answer is given many times with another `generated` each time, so the document comes in two
// parts that are joined: the head, up to and including the number of "generated", and the tail.

// Cost: nothing worth mentioning.
std::string documentHead(double generated);

// All but the head; snapshot.generated is not looked at. Cost: the length of the text, some 30
// bytes and 20 nanoseconds a point.
std::string documentTail(const ActivitySnapshot& snapshot);

// Head and tail.
std::string activityDocument(const ActivitySnapshot& snapshot);

}  // namespace spotserver
