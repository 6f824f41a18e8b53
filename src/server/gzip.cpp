#include "server/gzip.hpp"

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <stdexcept>

#include <zlib.h>

namespace spotserver {
namespace {

// Of zlib's levels the one that shrinks activity documents to a seventh in the time that the first
// takes to a sixth. The default takes four times as long for a few percent.
constexpr int kLevel = 4;
constexpr int kRawDeflate = -15;  // no header of zlib's own, a window of 32 KiB
constexpr int kMemory = 8;        // zlib's default

// A compressor that gives its memory back.
class Deflater {
 public:
  Deflater() {
    const int result =
        deflateInit2(&stream_, kLevel, Z_DEFLATED, kRawDeflate, kMemory, Z_DEFAULT_STRATEGY);
    if (result != Z_OK) throw std::bad_alloc();  // nothing else can go wrong
  }
  ~Deflater() { deflateEnd(&stream_); }
  Deflater(const Deflater&) = delete;
  Deflater& operator=(const Deflater&) = delete;

  // Appends what `text` becomes to `out`; the last piece of it ends the stream.
  void append(std::string& out, std::string_view text, bool last) {
    std::array<unsigned char, 32768> chunk;
    // zlib takes a pointer to what it only reads.
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream_.avail_in = static_cast<uInt>(text.size());
    do {
      stream_.next_out = chunk.data();
      stream_.avail_out = static_cast<uInt>(chunk.size());
      deflate(&stream_, last ? Z_FINISH : Z_NO_FLUSH);
      out.append(chunk.begin(), chunk.end() - stream_.avail_out);
    } while (stream_.avail_out == 0);
  }

 private:
  z_stream stream_{};
};

std::uint32_t crc_of(std::string_view text) {
  return static_cast<std::uint32_t>(
      ::crc32_z(0, reinterpret_cast<const Bytef*>(text.data()), text.size()));
}

void append_little_endian(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i) & 0xff);
}

// A deflate block that holds `text` as it is and is not the last. It begins and ends at a byte.
void append_stored_block(std::string& out, std::string_view text) {
  out += '\0';
  append_little_endian(out, text.size(), 2);
  append_little_endian(out, ~text.size(), 2);
  out += text;
}

}  // namespace

DeflatedTail deflate_tail(std::string_view text) {
  constexpr std::size_t kPiece = std::numeric_limits<uInt>::max();
  DeflatedTail tail{.bytes = {}, .crc32 = crc_of(text), .size = text.size()};
  Deflater deflater;
  for (; text.size() > kPiece; text.remove_prefix(kPiece)) {
    deflater.append(tail.bytes, text.substr(0, kPiece), false);
  }
  deflater.append(tail.bytes, text, true);
  tail.bytes.shrink_to_fit();
  return tail;
}

std::string gzip_file(std::string_view head, const DeflatedTail& tail) {
  if (head.size() > kLongestHead) throw std::length_error("Head too long");
  // Magic number, deflate, no flags, no time, no hint, of no system in particular.
  constexpr std::string_view kFileHeader{"\x1f\x8b\x08\0\0\0\0\0\0\xff", 10};
  std::string file;
  file.reserve(kFileHeader.size() + 5 + head.size() + tail.bytes.size() + 8);
  file += kFileHeader;
  append_stored_block(file, head);
  file += tail.bytes;
  append_little_endian(file,
                       crc32_combine(crc_of(head), tail.crc32, static_cast<z_off_t>(tail.size)), 4);
  append_little_endian(file, head.size() + tail.size, 4);
  return file;
}

}  // namespace spotserver
