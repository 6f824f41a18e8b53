// Command line and configuration file against their plain reference.
// Input: the arguments, one a line, up to the first empty line; then the file's text. The argument
// "@" stands for the path of that file.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "server/owned.hpp"
#include "server/settings.hpp"
#include "settings_reference.hpp"

namespace spotserver {
namespace {

struct Input {
  std::vector<std::string> arguments;
  std::string_view config;
};

Input split(std::string_view text, const std::string& config_path) {
  Input input;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    if (line.empty()) break;
    input.arguments.emplace_back(line == "@" ? std::string_view(config_path) : line);
  }
  input.config = text;
  return input;
}

struct Outcome {
  CommandLine line;
  std::string error;
};

template <typename Parse>
Outcome outcomeOf(Parse parse, const std::vector<std::string>& arguments) {
  try {
    return {parse(arguments, UserDirectories{"/home/op/.config/corvane", "state/corvane"}, "/srv"),
            ""};
  } catch (const std::exception& error) {
    return {{}, error.what()};
  }
}

// Files in memory: no disk is worn by a night of fuzzing.
void rewrite(int fd, std::string_view text) {
  if (::ftruncate(fd, 0) != 0 ||
      ::pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    std::abort();
  }
}

void check(std::string_view text) {
  static const Fd file(::memfd_create("config", MFD_CLOEXEC));
  static const std::string path = "/proc/self/fd/" + std::to_string(file.get());
  const Input input = split(text, path);
  const auto& arguments = input.arguments;
  if (std::find(arguments.begin(), arguments.end(), path) != arguments.end()) {
    rewrite(file.get(), input.config);
  }
  const Outcome got = outcomeOf(parse_command_line, arguments);
  const Outcome expected = outcomeOf(reference::plainCommandLine, arguments);
  const bool same_end = got.error == expected.error && got.line.action == expected.line.action;
  const bool runs = got.line.action == CommandLine::Action::kRun;
  if (same_end && (!runs || got.line.settings == expected.line.settings)) return;
  std::fprintf(stderr, "settings differ from the reference: \"%s\" against \"%s\"\n",
               got.error.c_str(), expected.error.c_str());
  std::abort();
}

}  // namespace
}  // namespace spotserver

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> exact(new char[size]);
  std::copy(data, data + size, exact.get());
  spotserver::check({exact.get(), size});
  return 0;
}
