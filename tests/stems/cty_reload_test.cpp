// When a country file is read again, and what stays when it cannot be.
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failing_memory.hpp"
#include "spots/cty.hpp"
#include "stems/cty_texts.hpp"
#include "temp_dir.hpp"

namespace cty {
namespace {

using spotserver::FailingMemory;
using spotserver::TempDir;
using ::testing::SizeIs;

// A country file whose write time the test decides.
class CountryFile {
 public:
  // Writes one entity with one prefix, K; the name tells files apart.
  void put(const std::string& name, timespec modified) {
    putText(name + ":1:1:EU::::K:\nK;\n", modified);
  }
  void putText(std::string_view text, timespec modified) {
    dir_.write("cty.dat", text);
    touch(modified);
  }
  void touch(timespec modified) const {
    const timespec times[] = {modified, modified};
    if (::utimensat(AT_FDCWD, path().c_str(), times, 0) != 0) throw std::runtime_error("utimensat");
  }
  std::string path() const { return dir_.path("cty.dat"); }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
};

// The entity that K belongs to: tells which file is in use.
std::string inUse(const Database& database) { return nameOf(database.findPrefix("K")); }

TEST(ReloadIfChanged, WithoutAFileNothingIsFound) {
  Database database;
  database.reloadIfChanged("");
  database.reloadIfChanged(TempDir().path("missing"));
  EXPECT_FALSE(database.loaded());
  EXPECT_EQ(database.countries(), nullptr);
  EXPECT_FALSE(database.findPrefix("K"));
  EXPECT_FALSE(database.findExact("K"));
}

TEST(ReloadIfChanged, ReadsAgainWhenTheWriteTimeDiffers) {
  CountryFile file;
  Database database;
  file.put("first", {1000, 500});
  database.reloadIfChanged(file.path());
  EXPECT_TRUE(database.loaded());
  EXPECT_EQ(inUse(database), "first");

  file.put("same time", {1000, 500});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "first");

  file.put("one nanosecond later", {1000, 501});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "one nanosecond later");

  file.put("one second later", {1001, 501});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "one second later");

  file.put("an older one put back", {999, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "an older one put back");
}

TEST(ReloadIfChanged, AnUnchangedFileIsNotReadAgain) {
  CountryFile file;
  Database database;
  file.put("kept", {1000, 0});
  database.reloadIfChanged(file.path());
  const Countries* const held = database.countries();
  database.reloadIfChanged(file.path());
  EXPECT_EQ(database.countries(), held);
}

TEST(ReloadIfChanged, AnotherPathIsReadWhateverItsWriteTime) {
  CountryFile first;
  CountryFile second;
  Database database;
  first.put("first", {1000, 0});
  second.put("second", {1000, 0});
  database.reloadIfChanged(first.path());
  database.reloadIfChanged(second.path());
  EXPECT_EQ(inUse(database), "second");
  database.reloadIfChanged(first.path());
  EXPECT_EQ(inUse(database), "first");
}

TEST(ReloadIfChanged, ReplacesTheCountriesAsAWhole) {
  CountryFile file;
  Database database;
  file.putText("first:1:1:EU::::K:\nK,KH6,=N0CALL;", {1000, 0});
  database.reloadIfChanged(file.path());
  file.put("second", {2000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(nameOf(database.findPrefix("KH6")), "second");
  EXPECT_FALSE(database.findExact("N0CALL"));
  EXPECT_THAT(database.countries()->entities, SizeIs(1));
}

TEST(ReloadIfChanged, AMalformedFileIsNotParsedAgainUntilItChanges) {
  CountryFile file;
  Database database;
  file.put("good", {1000, 0});
  database.reloadIfChanged(file.path());
  // The fault comes last: nothing that stands before it is used.
  file.putText("bad:1:1:EU::::K:\nK;\nno header", {2000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "good");

  file.put("mended at the same time", {2000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "good");

  file.touch({2000, 1});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "mended at the same time");
}

TEST(ReloadIfChanged, AMalformedFirstFileIsNotParsedAgainEither) {
  CountryFile file;
  Database database;
  file.putText("", {1000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_FALSE(database.loaded());
  file.put("same time", {1000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_FALSE(database.loaded());
  file.touch({1001, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "same time");
}

TEST(ReloadIfChanged, WhateverTakesTheFilesPlaceTheCountriesStay) {
  CountryFile file;
  Database database;
  file.put("kept", {1000, 0});
  database.reloadIfChanged(file.path());

  const auto replaceBy = [&](auto make) {
    std::filesystem::remove(file.path());
    make(file.path().c_str());
    database.reloadIfChanged(file.path());
    EXPECT_EQ(inUse(database), "kept");
  };
  replaceBy([](const char*) {});
  replaceBy([](const char* name) { ASSERT_EQ(::mkfifo(name, 0600), 0); });
  replaceBy([](const char* name) { ASSERT_EQ(::mkdir(name, 0700), 0); });
  replaceBy([](const char* name) { ASSERT_EQ(::symlink("nowhere", name), 0); });
  replaceBy([](const char* name) { ASSERT_EQ(::symlink("/dev/zero", name), 0); });

  std::filesystem::remove(file.path());
  file.put("back", {1001, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "back");
}

TEST(ReloadIfChanged, ReadsFourMebibytesButNotOneByteMore) {
  constexpr std::size_t kLimit = 4 * 1024 * 1024;
  CountryFile file;
  Database database;
  file.put("small", {1000, 0});
  database.reloadIfChanged(file.path());

  std::string text = "large:1:1:EU::::K:\nK;";
  text.resize(kLimit + 1, '\n');
  file.putText(text, {2000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "small");

  text.resize(kLimit);
  file.putText(text, {2000, 0});  // the larger one was never parsed: its write time is not known
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "large");
}

TEST(ReloadIfChanged, ASparseTebibyteIsNotRead) {
  CountryFile file;
  Database database;
  file.put("kept", {1000, 0});
  database.reloadIfChanged(file.path());
  ASSERT_EQ(::truncate(file.path().c_str(), off_t{1} << 40), 0);
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "kept");
}

// Reloads with only the first `allowed` allocations granted. Returns whether they were enough.
bool reloadWith(long allowed, bool for_good, Database& database, const std::string& path) {
  const FailingMemory memory(allowed, !for_good);
  database.reloadIfChanged(path);
  return !memory.failed();
}

// Fails every allocation of a reload in turn.
TEST(ReloadIfChanged, WithoutMemoryTheCountriesStayAndTheNextCallTriesAgain) {
  constexpr const char* kSecond = "The second and last one";
  CountryFile file;
  const std::string path = file.path();
  for (const bool for_good : {false, true}) {
    long allowed = 0;
    for (bool enough = false; !enough; ++allowed) {
      Database database;
      file.put("first", {1000, 0});
      database.reloadIfChanged(path);
      file.putText(std::string(kSecond) + ":1:1:EU::::K:\nK,A/PREFIX/THAT/NEEDS/AN/ALLOCATION;",
                   {2000, 0});
      enough = reloadWith(allowed, for_good, database, path);
      EXPECT_EQ(inUse(database), enough ? kSecond : "first") << allowed;
      database.reloadIfChanged(path);
      EXPECT_EQ(inUse(database), kSecond) << allowed;
    }
    EXPECT_GT(allowed, 5);
  }
}

TEST(ReloadIfChanged, WithoutMemoryAMalformedFileLeavesTheCountriesToo) {
  CountryFile file;
  const std::string path = file.path();
  for (const bool for_good : {false, true}) {
    long allowed = 0;
    for (bool enough = false; !enough; ++allowed) {
      Database database;
      file.put("kept", {1000, 0});
      database.reloadIfChanged(path);
      file.putText("A rather long name for a country:1:1:EU::::K:\nK,not-a-prefix;", {2000, 0});
      enough = reloadWith(allowed, for_good, database, path);
      EXPECT_EQ(inUse(database), "kept") << allowed;
    }
    EXPECT_GT(allowed, 5);
  }
}

TEST(ReloadIfChanged, AFileReplacesCountriesThatCameFromNone) {
  CountryFile file;
  Database database{parseCountries("built in:1:1:EU::::K:\nK;")};
  EXPECT_TRUE(database.loaded());
  database.reloadIfChanged(file.dir().path("missing"));
  EXPECT_EQ(inUse(database), "built in");
  file.put("from the file", {1000, 0});
  database.reloadIfChanged(file.path());
  EXPECT_EQ(inUse(database), "from the file");
}

}  // namespace
}  // namespace cty
