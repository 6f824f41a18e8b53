#include "hostile/hostile_clients.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include <brotli/encode.h>
#include <zlib.h>

#include "e2e/station.hpp"

namespace spotserver::hostile {
namespace {

using namespace std::chrono_literals;
using e2e::TlsClient;

constexpr std::chrono::seconds kTricklePause = 5s;
constexpr std::size_t kLongHeader = 8100;

void trickle(const std::stop_token& stop, std::deque<TlsClient>& clients) {
  std::mutex mutex;
  std::condition_variable_any pause;
  std::unique_lock lock(mutex);
  while (!pause.wait_for(lock, stop, kTricklePause, [] { return false; })) {
    if (stop.stop_requested()) return;
    for (TlsClient& client : clients) {
      try {
        client.send("x");
      } catch (const std::runtime_error&) {
        // The server has cut this one.
      }
    }
  }
}

// `size` zeros, packed piece by piece: what is unpacked never lies in our own memory.
constexpr std::size_t kPiece = 1 << 20;

std::string gzipOfZeros(std::size_t size) {
  z_stream stream{};
  if (deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::vector<Bytef> zeros(kPiece);
  std::vector<Bytef> packed(kPiece);
  std::string all;
  for (std::size_t done = 0; done < size; done += kPiece) {
    stream.next_in = zeros.data();
    stream.avail_in = kPiece;
    stream.next_out = packed.data();
    stream.avail_out = kPiece;
    deflate(&stream, done + kPiece < size ? Z_NO_FLUSH : Z_FINISH);
    all.append(reinterpret_cast<char*>(packed.data()), kPiece - stream.avail_out);
  }
  deflateEnd(&stream);
  return all;
}

std::string brotliOfZeros(std::size_t size) {
  const std::unique_ptr<BrotliEncoderState, With<BrotliEncoderDestroyInstance>> encoder(
      BrotliEncoderCreateInstance(nullptr, nullptr, nullptr));
  BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_QUALITY, 5);
  BrotliEncoderSetParameter(encoder.get(), BROTLI_PARAM_LGWIN, 24);
  const std::vector<std::uint8_t> zeros(kPiece);
  std::vector<std::uint8_t> packed(kPiece);
  std::string all;
  for (std::size_t done = 0; done < size; done += kPiece) {
    const auto operation =
        done + kPiece < size ? BROTLI_OPERATION_PROCESS : BROTLI_OPERATION_FINISH;
    std::size_t unread = kPiece;
    const std::uint8_t* next_in = zeros.data();
    do {
      std::size_t room = kPiece;
      std::uint8_t* next_out = packed.data();
      if (!BrotliEncoderCompressStream(encoder.get(), operation, &unread, &next_in, &room,
                                       &next_out, nullptr)) {
        throw std::runtime_error("BrotliEncoderCompressStream");
      }
      all.append(reinterpret_cast<char*>(packed.data()), kPiece - room);
    } while (unread > 0 || BrotliEncoderHasMoreOutput(encoder.get()));
  }
  return all;
}

std::string chunked(std::size_t size) {
  std::string chunk = "10000\r\n" + std::string(0x10000, 'c') + "\r\n";
  std::string all;
  while (all.size() < size) all += chunk;
  return all + "0\r\n\r\n";
}

std::string multipart(std::size_t size) {
  return "--b\r\nContent-Disposition: form-data; name=\"f\"; filename=\"f\"\r\n\r\n" +
         std::string(size, 'm') + "\r\n--b--\r\n";
}

HarmfulBody post(std::string name, e2e::Headers headers, std::string body) {
  return {std::move(name), e2e::requestText("POST", "/api/v1/health", headers), std::move(body)};
}

HarmfulBody withLength(std::string name, e2e::Headers headers, std::string body) {
  headers.emplace_back("Content-Length", std::to_string(body.size()));
  return post(std::move(name), std::move(headers), std::move(body));
}

// What a trickling peer sends at once.
std::string beginOf(Crowd::Kind kind) {
  if (kind == Crowd::Kind::kBody) {
    return e2e::requestText("POST", e2e::kHealthPath,
                            {{"Content-Length", "65536"}, {"Content-Type", "text/plain"}});
  }
  const std::string head = "GET /api/v1/health HTTP/1.1\r\nX: ";
  return kind == Crowd::Kind::kDeep ? head + std::string(1000, 'x') : head;
}

}  // namespace

Crowd::Crowd(Kind kind, int port, std::size_t peers) {
  for (std::size_t i = 0; i < peers; ++i) {
    if (kind == Kind::kSilent) {
      sockets_.push_back(e2e::connectTcp(port));
      continue;
    }
    TlsClient& client = clients_.emplace_back(port);
    if (kind == Kind::kIdle) {
      client.request("GET", e2e::kHealthPath);
    } else {
      client.send(beginOf(kind));
    }
  }
  if (kind != Kind::kSilent && kind != Kind::kIdle) {
    trickle_ = std::jthread([this](const std::stop_token& stop) { trickle(stop, clients_); });
  }
}

const char* nameOf(Crowd::Kind kind) {
  switch (kind) {
    case Crowd::Kind::kSilent:
      return "silent";
    case Crowd::Kind::kIdle:
      return "idle";
    case Crowd::Kind::kTrickling:
      return "trickling";
    case Crowd::Kind::kDeep:
      return "trickling deep";
    case Crowd::Kind::kBody:
      return "trickling body";
  }
  return "";
}

std::string longRange() { return "bytes=" + std::string(kLongHeader, '1') + "-"; }

std::string manyRanges(const std::string& range) {
  std::string many = "bytes=" + range;
  while (many.size() < kLongHeader) many += "," + range;
  return many;
}

std::vector<HarmfulBody> harmfulBodies(std::size_t unpacked, std::size_t plain) {
  return {
      withLength("brotli", {{"Content-Encoding", "br"}, {"Content-Type", "text/plain"}},
                 brotliOfZeros(unpacked)),
      withLength("gzip", {{"Content-Encoding", "gzip"}, {"Content-Type", "text/plain"}},
                 gzipOfZeros(unpacked)),
      post("chunked", {{"Transfer-Encoding", "chunked"}, {"Content-Type", "text/plain"}},
           chunked(plain)),
      post("without a length", {{"Content-Type", "text/plain"}}, std::string(plain, 'n')),
      withLength("huge", {{"Content-Type", "text/plain"}}, std::string(plain, 'h')),
      withLength("multipart", {{"Content-Type", "multipart/form-data; boundary=b"}},
                 multipart(plain)),
      withLength("form", {{"Content-Type", "application/x-www-form-urlencoded"}},
                 std::string(plain, 'f')),
  };
}

e2e::Response send(const HarmfulBody& request, int port) {
  TlsClient client(port);
  client.send(request.head);
  try {
    constexpr std::size_t kAtATime = 64 * 1024;
    for (std::size_t sent = 0; sent < request.body.size(); sent += kAtATime) {
      client.send(std::string_view(request.body).substr(sent, kAtATime));
    }
  } catch (const std::runtime_error&) {
    // Closed meanwhile: the answer came first.
  }
  return client.receive();
}

Milliseconds timeOfHealth(int port, const e2e::Headers& headers) {
  const auto begin = e2e::Clock::now();
  const int status = TlsClient(port).request("GET", e2e::kHealthPath, headers).status;
  if (status != 200) throw std::runtime_error("health answered " + std::to_string(status));
  return e2e::Clock::now() - begin;
}

Milliseconds quantile(std::vector<Milliseconds> samples, double share) {
  std::sort(samples.begin(), samples.end());
  const double place = std::ceil(share * static_cast<double>(samples.size()));
  return samples[std::max<std::size_t>(1, static_cast<std::size_t>(place)) - 1];
}

}  // namespace spotserver::hostile
