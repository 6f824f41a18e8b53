// Names and version of the program.
#pragma once

namespace spotserver {

inline constexpr const char* kProgram = "corvane-spot-server";
inline constexpr const char* kVersion = "0.3.0";
inline constexpr const char* kSuiteVersion = "Corvane 0.95.12";

}  // namespace spotserver
