// Unpacks a gzip file as a client would, with zlib's own reading of the format.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include <zlib.h>

namespace spotserver {

// Throws unless `file` is exactly one whole gzip file with the right checksum and length.
inline std::string gunzip(std::string_view file) {
  constexpr int kGzipOnly = 16 + MAX_WBITS;
  z_stream stream{};
  if (inflateInit2(&stream, kGzipOnly) != Z_OK) throw std::runtime_error("no memory");
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(file.data()));
  stream.avail_in = static_cast<uInt>(file.size());
  std::string text;
  int result = Z_OK;
  while (result == Z_OK) {
    char chunk[16384];
    stream.next_out = reinterpret_cast<Bytef*>(chunk);
    stream.avail_out = sizeof chunk;
    result = inflate(&stream, Z_NO_FLUSH);
    text.append(chunk, sizeof chunk - stream.avail_out);
  }
  const bool whole = result == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  if (!whole) throw std::runtime_error("not one whole gzip file");
  return text;
}

}  // namespace spotserver
