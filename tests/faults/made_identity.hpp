// Certificate and key for stations that need not make their own: making them takes most of a start.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "e2e/station.hpp"

namespace spotserver::faults {

class MadeIdentity {
 public:
  MadeIdentity() { maker_.serve(); }

  void giveTo(const e2e::Station& station) const {
    namespace fs = std::filesystem;
    fs::create_directories(station.configDir());
    fs::copy_file(maker_.certificate(), station.certificate());
    fs::copy_file(maker_.key(), station.key());
  }
  void expectUntouched(const e2e::Station& station) const {
    EXPECT_EQ(e2e::readFile(station.key()), e2e::readFile(maker_.key()));
    EXPECT_EQ(e2e::readFile(station.certificate()), e2e::readFile(maker_.certificate()));
    EXPECT_EQ(e2e::permissionsOf(station.key()), 0600u);
  }

 private:
  e2e::Station maker_;
};

}  // namespace spotserver::faults
