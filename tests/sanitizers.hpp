// Whether this build is one of a sanitizer, whose library must come first and brings its own
// allocator: nothing can be preloaded then, and memory is no measure. Everything takes several
// times as long, so random texts are fewer.
#pragma once

namespace spotserver {

#ifndef __has_feature  // Clang's way to tell; GCC has the macros
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace spotserver
