// The station's directories under their former name, with settings that point into them.
#pragma once

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/station.hpp"
#include "file_facts.hpp"

namespace spotserver::faults {

class FormerHome {
 public:
  explicit FormerHome(const e2e::Station& station) : home_(station.home()) {}

  void make() const {
    e2e::writeFile(old("/.config") + "/velkor-tuner.conf", settings(old("/.local/state")));
    e2e::writeFile(old("/.config") + "/other.ini", settings(old("/.local/state")));
    e2e::writeFile(old("/.local/share") + "/data", "data\n");
    e2e::writeFile(old("/.local/state") + "/ALL.TXT", "log\n");
  }

  // However far the move has come: every file is there and whole, with its old text or its new one.
  void expectNothingLost() const {
    EXPECT_EQ(e2e::readFile(place("/.local/share") + "/data"), "data\n");
    EXPECT_EQ(e2e::readFile(place("/.local/state") + "/ALL.TXT"), "log\n");
    const std::string config = place("/.config");
    const bool renamed = e2e::exists(config + "/corvane.conf");
    EXPECT_NE(renamed, e2e::exists(config + "/velkor-tuner.conf"));
    for (const std::string& file :
         {config + (renamed ? "/corvane.conf" : "/velkor-tuner.conf"), config + "/other.ini"}) {
      EXPECT_THAT(e2e::readFile(file),
                  testing::AnyOf(settings(old("/.local/state")), settings(now("/.local/state"))));
    }
  }

  // After a whole run. Where a run before could neither rename nor remove a file that it had
  // written in place of another, that one may still be there.
  void expectMoved(bool may_leave_copies = false) const {
    expectNothingLost();
    for (const std::string& name : namesIn(now("/.config"))) {
      if (name == "corvane.conf" || name == "velkor-tuner.conf" || name == "other.ini") continue;
      EXPECT_TRUE(may_leave_copies && name.ends_with(".rename")) << name;
      EXPECT_EQ(e2e::readFile(now("/.config") + "/" + name), settings(now("/.local/state")))
          << name;
    }
    namespace fs = std::filesystem;
    for (const char* base : {"/.config", "/.local/share", "/.local/state"}) {
      EXPECT_TRUE(fs::is_directory(fs::symlink_status(now(base)))) << base;
    }
  }

 private:
  std::string old(const char* base) const { return home_ + base + "/velkor-tuner"; }
  std::string now(const char* base) const { return home_ + base + "/corvane"; }
  // Where `base` is now. Both names lead there once it has moved.
  std::string place(const char* base) const {
    return e2e::exists(now(base)) ? now(base) : old(base);
  }
  static std::string settings(const std::string& state) {
    return "all-txt = " + state + "/ALL.TXT\n";
  }

  std::string home_;
};

}  // namespace spotserver::faults
