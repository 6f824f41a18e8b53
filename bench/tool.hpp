// How the tools that measure whole processes begin and end.
#pragma once

#include <cstdio>
#include <exception>

namespace spotserver {

// The exit status of a tool that does `run`: 0, or 1 when it throws, with the reason on standard
// error. 2 when the arguments do not `fit`: that tells `usage` instead.
//   int main(int argc, char** argv) {
//     return runTool(argc == 3, "Usage: tool PORT LOG\n", [&] { measure(argv[1], argv[2]); });
//   }
template <typename Run>
int runTool(bool fit, const char* usage, Run run) {
  if (!fit) {
    std::fputs(usage, stderr);
    return 2;
  }
  try {
    run();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}

}  // namespace spotserver
