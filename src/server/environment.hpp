// The environment as an argument, so that tests bring their own.
#pragma once

#include <functional>

namespace spotserver {

// Looks up one variable the way ::getenv does: nullptr when it is unset. The text stays valid
// until the environment changes. Pass ::getenv itself for the real one.
using Environment = std::function<const char*(const char* name)>;

}  // namespace spotserver
