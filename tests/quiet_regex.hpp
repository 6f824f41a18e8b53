// <regex> without a false alarm: with -fsanitize=address GCC 12 believes that the library's own
// automaton is not initialised.
#pragma once

#pragma GCC diagnostic push
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <regex>
#pragma GCC diagnostic pop
