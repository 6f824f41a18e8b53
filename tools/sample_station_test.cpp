// The built program: what it writes, prints and returns, and when it ends.
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "history/history_reader.hpp"
#include "server/owned.hpp"
#include "spots/all_txt.hpp"
#include "spots/mode.hpp"
#include "temp_dir.hpp"

namespace {

using spotserver::Fd;

struct Pipe {
  Fd read_end;
  Fd write_end;

  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    read_end = Fd(ends[0]);
    write_end = Fd(ends[1]);
  }
};

[[noreturn]] void execStation(std::vector<std::string> words, int output) {
  ::dup2(output, STDOUT_FILENO);
  ::dup2(output, STDERR_FILENO);
  std::vector<char*> arguments{const_cast<char*>(SPOT_SAMPLE_STATION)};
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  ::execv(SPOT_SAMPLE_STATION, arguments.data());
  ::_exit(127);
}

std::string readLine(int fd) {
  std::string line;
  for (char c = 0; ::read(fd, &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

std::string readToEnd(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(n));
  }
  return text;
}

// A running sample station. Ends with SIGKILL when it still runs at the end of the test.
class Running {
 public:
  explicit Running(const std::vector<std::string>& words) {
    pid_ = ::fork();
    if (pid_ == 0) execStation(words, output_.write_end.get());
    output_.write_end.close();
  }
  ~Running() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  int output() const { return output_.read_end.get(); }
  void signal(int number) const { ::kill(pid_, number); }
  // Exit status, or -1 when a signal ended it.
  int wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  Pipe output_;
  pid_t pid_ = 0;
};

class SampleStation : public testing::Test {
 protected:
  std::string log() const { return folder_.path("ALL.TXT"); }
  std::string history() const { return folder_.path("history.sqlite3"); }

  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    std::ifstream in(log());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // Options for a log that ended `seconds` ago, with its history, to be followed.
  std::vector<std::string> followed(int seconds) const {
    return {"--out",   log(), "--history", history(),
            "--hours", "1",   "--now",     std::to_string(::time(nullptr) - seconds),
            "--follow"};
  }

  // Mode, dial frequency and whole second of every slot with a decode, and how many there were.
  using Decodes = std::map<std::tuple<std::string, double, double>, std::uint64_t>;

  Decodes decodesInLog() const {
    Decodes decodes;
    for (const std::string& line : logLines()) {
      const auto record = spotserver::parseAllTxtLine(line);
      if (!record) continue;
      const std::string mode(spotserver::modeName(record->mode));
      ++decodes[{mode, std::round(record->frequency), record->time}];
    }
    return decodes;
  }

  Decodes decodesInHistory() const {
    Decodes decodes;
    for (const auto& seen : spotserver::readHistory(history(), 0, 4e9)) {
      if (seen.count == 0) continue;
      decodes[{seen.mode, seen.frequency, std::floor(seen.start)}] = seen.count;
    }
    return decodes;
  }

  spotserver::TempDir folder_;
};

TEST_F(SampleStation, WritesLogAndHistoryThatSayTheSame) {
  Running station({"--out", log(), "--history", history(), "--hours", "2"});
  const std::string output = readToEnd(station.output());
  EXPECT_EQ(station.wait(), 0);
  EXPECT_EQ(output, std::to_string(logLines().size()) + " lines written to " + log() + "\n");
  EXPECT_GT(decodesInLog().size(), 100u);
  EXPECT_EQ(decodesInHistory(), decodesInLog());
}

TEST_F(SampleStation, FollowsTheClockUntilASignalEndsIt) {
  for (const int number : {SIGTERM, SIGINT}) {
    Running station(followed(60));
    const std::string written = readLine(station.output());
    // What became due while the day was written comes before the signal is looked at.
    station.signal(number);
    EXPECT_EQ(station.wait(), 0) << number;
    EXPECT_GT(logLines().size(), std::stoull(written)) << number;
    EXPECT_EQ(decodesInHistory(), decodesInLog()) << number;
  }
}

TEST_F(SampleStation, StartsAfreshAfterALeapOfTheClock) {
  Running station(followed(3600));
  const std::string written = readLine(station.output());
  station.signal(SIGTERM);
  EXPECT_EQ(station.wait(), 0);
  EXPECT_EQ(logLines().size(), std::stoull(written));
}

TEST_F(SampleStation, EndsWithItsParent) {
  Pipe output;
  Pipe hold;  // the parent lives while the write end is open
  const pid_t parent = ::fork();
  if (parent == 0) {
    std::vector<std::string> words = followed(0);
    words.insert(words.end(), {"--parent", std::to_string(::getpid())});
    if (::fork() == 0) execStation(words, output.write_end.get());
    hold.write_end.close();
    readToEnd(hold.read_end.get());
    ::_exit(0);
  }
  output.write_end.close();
  EXPECT_THAT(readLine(output.read_end.get()), testing::HasSubstr(" lines written to "));
  hold.write_end.close();
  ::waitpid(parent, nullptr, 0);
  // The station holds the other end: reading comes to an end when it does.
  EXPECT_EQ(readToEnd(output.read_end.get()), "");
}

TEST_F(SampleStation, DoesNotStartWhenItsParentIsGone) {
  std::vector<std::string> words = followed(0);
  words.insert(words.end(), {"--parent", "1"});
  Running station(words);
  EXPECT_EQ(readToEnd(station.output()), "");
  EXPECT_EQ(station.wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(SampleStation, LeavesALogAloneThatAnotherIsWriting) {
  Running first(followed(0));
  readLine(first.output());
  const std::size_t lines = logLines().size();
  Running second({"--out", log(), "--lines", "1"});
  EXPECT_EQ(readToEnd(second.output()),
            "corvane-sample-station: Another sample station is writing: " + log() + "\n");
  EXPECT_EQ(second.wait(), 1);
  EXPECT_GE(logLines().size(), lines);
}

TEST_F(SampleStation, WritesABusyDayOfExactlySoManyLines) {
  Running station({"--out", log(), "--lines", "200000"});
  EXPECT_EQ(readToEnd(station.output()), "200000 lines written to " + log() + "\n");
  EXPECT_EQ(station.wait(), 0);
  EXPECT_EQ(logLines().size(), 200'000u);
}

TEST_F(SampleStation, SaysWhatIsWrongAndReturnsOne) {
  const struct {
    std::vector<std::string> words;
    std::string message;
  } cases[] = {
      {{}, "--out PATH is required"},
      {{"--out", folder_.path("missing/ALL.TXT")},
       "Cannot write log: " + folder_.path("missing/ALL.TXT")},
      {{"--out", "/dev/full", "--lines", "10"}, "Cannot write log: /dev/full"},
  };
  for (const auto& c : cases) {
    Running station(c.words);
    EXPECT_EQ(readToEnd(station.output()), "corvane-sample-station: " + c.message + "\n");
    EXPECT_EQ(station.wait(), 1) << c.message;
  }
}

TEST_F(SampleStation, ExplainsItself) {
  Running station({"--help"});
  EXPECT_THAT(readToEnd(station.output()),
              testing::StartsWith("Usage: corvane-sample-station --out PATH [options]\n"));
  EXPECT_EQ(station.wait(), 0);
}

}  // namespace
