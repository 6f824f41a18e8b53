// Instructions of the hot paths, as Valgrind counts them: the same number on every run, however
// busy the machine is. The limits lie half as high again as what GCC 12 makes of the code, or
// higher; that of growth a fifth above what is measured, since a ratio hangs less on the compiler.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

struct ClosePipe {
  void operator()(std::FILE* pipe) const { pclose(pipe); }
};

// What a command prints, errors included.
std::string outputOf(const std::string& command) {
  const std::unique_ptr<std::FILE, ClosePipe> pipe(popen((command + " 2>&1").c_str(), "r"));
  if (!pipe) throw std::runtime_error("Cannot run " + command);
  std::string output;
  char chunk[4096];
  while (const std::size_t got = std::fread(chunk, 1, sizeof chunk, pipe.get())) {
    output.append(chunk, got);
  }
  return output;
}

// Instructions of one part of hot_path.
double instructions(const std::string& part, int size) {
  const std::string output = outputOf(
      "valgrind --tool=callgrind --callgrind-out-file=/dev/null --toggle-collect=measured "
      "'" SPOT_HOT_PATH "' " +
      part + " " + std::to_string(size));
  const std::string name = "Collected : ";
  const std::size_t found = output.find(name);
  if (found == output.npos) throw std::runtime_error("Nothing was counted: " + output);
  return std::stod(output.substr(found + name.size()));
}

// What one more line, spot or point takes.
double instructionsEach(const std::string& part, int size) {
  return (instructions(part, 2 * size) - instructions(part, size)) / size;
}

TEST(Instructions, OfALogLine) { EXPECT_LE(instructionsEach("lines", 10'000), 1'600); }

TEST(Instructions, OfASpot) { EXPECT_LE(instructionsEach("spots", 10'000), 360); }

TEST(Instructions, OfAPointInTheDocument) { EXPECT_LE(instructionsEach("document", 10'000), 760); }

TEST(Instructions, OfADayGrowWithItsFrequenciesNoFaster) {
  EXPECT_LE(instructions("answer", 1'440) / instructions("answer", 720), 2.3);
}

}  // namespace
