// What the tests open with that preload the faults into the server.
#pragma once

#include <gtest/gtest.h>

#include "faults/fault_walk.hpp"
#include "faults/made_identity.hpp"
#include "sanitizers.hpp"

namespace spotserver::faults {

using e2e::exists;
using e2e::readFile;
using e2e::ServerProcess;
using e2e::Station;

class FaultTest : public testing::Test {
 protected:
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "the sanitizers' own library takes the place of ours";
  }
};

// A station whose servers have the faults preloaded.
struct FaultyStation {
  const Station station;
  FaultSwitch faults{station.home() + "/faults"};

  e2e::Launch launch(const std::vector<std::string>& extra) const {
    return faults.under(station.usualLaunch(extra));
  }
  // What came of the run that ended so.
  FaultedRun run(Ending ending) const { return {ending, faults.struck(), faults.seen()}; }
};

}  // namespace spotserver::faults
