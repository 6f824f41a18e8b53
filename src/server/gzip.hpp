// gzip files (RFC 1952) of texts that differ only in a short head.
//
// Compressing is slow and the head changes with every answer, so the tail is deflated once, by
// itself. A file is then put together without compressing anything: the head as a stored block,
// the tail's bytes, and the checksum of both computed from their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace spotserver {

struct DeflatedTail {
  std::string bytes;        // a raw deflate stream (RFC 1951)
  std::uint32_t crc32 = 0;  // of the text
  std::size_t size = 0;     // of the text, bytes
};

// The most bytes that a head may have.
inline constexpr std::size_t kLongestHead = 65'535;

// Throws std::bad_alloc. Cost: some 8 milliseconds a megabyte of JSON, which shrinks to a seventh.
DeflatedTail deflate_tail(std::string_view text);

// The gzip file of `head` followed by the tail's text. Throws std::length_error "Head too long".
//   const DeflatedTail tail = deflate_tail(",\"mode\":\"live\"}");
//   gzip_file("{\"generated\":1763175600", tail)  // unpacks to the whole document
// Cost: a copy of the tail's bytes.
std::string gzip_file(std::string_view head, const DeflatedTail& tail);

}  // namespace spotserver
