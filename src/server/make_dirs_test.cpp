#include "server/make_dirs.hpp"

#include <filesystem>

#include <gtest/gtest.h>

#include "file_facts.hpp"
#include "scoped_limits.hpp"
#include "temp_dir.hpp"

namespace spotserver {
namespace {

TEST(MakeDirs, MakesEveryMissingDirectoryPrivate) {
  const ScopedUmask umask(0);
  const TempDir dir;
  make_dirs(dir.path("a/b/c"));
  for (const char* made : {"a", "a/b", "a/b/c"}) EXPECT_EQ(modeOf(dir.path(made)), 0700) << made;
}

TEST(MakeDirs, TheUmaskMayTakeMoreAway) {
  const TempDir dir;
  const ScopedUmask umask(0200);
  make_dirs(dir.path("a"));
  EXPECT_EQ(modeOf(dir.path("a")), 0500);
}

TEST(MakeDirs, WhatExistsStaysAsItIs) {
  const TempDir dir;
  std::filesystem::create_directory(dir.path("a"));
  std::filesystem::permissions(dir.path("a"), std::filesystem::perms{0755});
  dir.write("a/file", "text");
  make_dirs(dir.path("a/b"));
  make_dirs(dir.path("a/b"));
  EXPECT_EQ(modeOf(dir.path("a")), 0755);
  EXPECT_EQ(contentOf(dir.path("a/file")), "text");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path("a/b")));
}

TEST(MakeDirs, DoubledAndTrailingSlashesAreTaken) {
  const TempDir dir;
  make_dirs(dir.path("a//b/"));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path("a/b")));
}

TEST(MakeDirs, RelativePathsBeginAtTheWorkingDirectory) {
  const TempDir dir;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  make_dirs("x/y");
  make_dirs("z");
  std::filesystem::current_path(before);
  EXPECT_TRUE(std::filesystem::is_directory(dir.path("x/y")));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path("z")));
}

TEST(MakeDirs, ErrorsAreSilent) {
  const TempDir dir;
  dir.write("file", "text");
  make_dirs(dir.path("file/below"));
  make_dirs("");
  make_dirs("/");
  EXPECT_EQ(contentOf(dir.path("file")), "text");
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"file"});
}

}  // namespace
}  // namespace spotserver
