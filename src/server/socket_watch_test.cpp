#include "server/socket_watch.hpp"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>

#include "server/owned.hpp"
#include "server/tls_identity.hpp"

namespace spotserver {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

using ContextPtr = std::unique_ptr<SSL_CTX, With<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, With<SSL_free>>;

// Writes down what it is told, and refuses what the test wants refused.
struct Recorder final : SocketObserver {
  void handshake_began(SSL& ssl) noexcept override {
    connection = &ssl;
    events.emplace_back("began");
  }
  void handshake_done() noexcept override { events.emplace_back("done"); }
  bool may_read() noexcept override {
    events.emplace_back("may read");
    return reads;
  }
  bool may_write() noexcept override {
    events.emplace_back("may write");
    return writes;
  }
  bool received(std::size_t count) noexcept override {
    events.emplace_back("received");
    bytes += count;
    return takes;
  }
  void written() noexcept override { events.emplace_back("written"); }
  void released() noexcept override { events.emplace_back("released"); }

  std::vector<std::string> take() { return std::exchange(events, {}); }

  std::vector<std::string> events;
  SSL* connection = nullptr;
  std::size_t bytes = 0;
  bool reads = true;
  bool writes = true;
  bool takes = true;
};

// A server of TLS 1.2, its context watched, and a client that nobody watches; both on this thread,
// with a few bytes of room between them.
class SocketWatch : public ::testing::Test {
 protected:
  static constexpr std::size_t kRoom = 20'000;

  SocketWatch() {
    const PrivateKeyPtr key(EVP_EC_gen("P-256"));
    const X509Ptr certificate = make_certificate(*key, "spot", std::time(nullptr));
    SSL_CTX_use_certificate(server_context.get(), certificate.get());
    SSL_CTX_use_PrivateKey(server_context.get(), key.get());
    SSL_CTX_set_max_proto_version(server_context.get(), TLS1_2_VERSION);  // for a second handshake
    SSL_CTX_set_mode(server_context.get(), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    watch_sockets(server_context.get());
    server.reset(SSL_new(server_context.get()));
    client.reset(SSL_new(client_context.get()));
    BIO_new_bio_pair(&server_end, kRoom, &client_end, kRoom);
    SSL_set_bio(server.get(), server_end, server_end);
    SSL_set_bio(client.get(), client_end, client_end);
    SSL_set_accept_state(server.get());
    SSL_set_connect_state(client.get());
  }

  // The client begins, so that the server never looks in vain.
  void shake_hands() {
    int shaken = 0;
    for (int turn = 0; shaken < 2 && turn < 10; ++turn) {
      shaken = (SSL_do_handshake(client.get()) == 1) + (SSL_do_handshake(server.get()) == 1);
    }
    ASSERT_EQ(shaken, 2);
  }

  // With nothing of the handshake left in the recorder.
  void shakeHandsObserved() {
    const ObservedThread observed(recorder);
    shake_hands();
    recorder.take();
    recorder.bytes = 0;
  }

  void clientWrites(std::size_t size) {
    const std::string text(size, 'x');
    ASSERT_EQ(SSL_write(client.get(), text.data(), static_cast<int>(size)), static_cast<int>(size));
  }
  int serverWrites(std::size_t size) {
    const std::string text(size, 'x');
    return resultOf(SSL_write(server.get(), text.data(), static_cast<int>(size)));
  }
  int serverReads() {
    char buffer[1000];
    return resultOf(SSL_read(server.get(), buffer, sizeof(buffer)));
  }
  // The bytes moved, or the error negated.
  int resultOf(int moved) {
    const int result = moved > 0 ? moved : -SSL_get_error(server.get(), moved);
    ERR_clear_error();
    return result;
  }

  const ContextPtr server_context{SSL_CTX_new(TLS_server_method())};
  const ContextPtr client_context{SSL_CTX_new(TLS_client_method())};
  Recorder recorder;  // outlives the connection
  SslPtr server;
  SslPtr client;
  BIO* server_end = nullptr;
  BIO* client_end = nullptr;
};

TEST_F(SocketWatch, HandshakeIsToldFromBeginToEnd) {
  const ObservedThread observed(recorder);
  shake_hands();
  const auto events = recorder.take();
  EXPECT_EQ(recorder.connection, server.get());
  EXPECT_EQ(recorder.bytes, BIO_number_written(client_end));
  EXPECT_EQ(std::count(events.begin(), events.end(), "done"), 1);
  ASSERT_GE(events.size(), 7u);
  const auto at = [&](std::ptrdiff_t n) { return n < 0 ? events.end() + n : events.begin() + n; };
  EXPECT_THAT(std::vector(at(0), at(3)), ElementsAre("began", "may read", "received"));
  EXPECT_THAT(std::vector(at(-4), events.end()),
              ElementsAre("received", "may write", "written", "done"));
}

TEST_F(SocketWatch, AnotherHandshakeBeginsNoConnection) {
  const ObservedThread observed(recorder);
  shake_hands();
  recorder.take();
  SSL_renegotiate(server.get());
  SSL_do_handshake(server.get());
  char byte = 0;
  for (int turn = 0; turn < 4; ++turn) {
    SSL_read(client.get(), &byte, 1);
    serverReads();
  }
  ASSERT_EQ(SSL_num_renegotiations(server.get()), 1);
  const auto events = recorder.take();
  EXPECT_THAT(events, Not(Contains("began")));
  EXPECT_THAT(events, Contains("done"));
}

TEST_F(SocketWatch, EveryReadIsAnnouncedAndCounted) {
  shakeHandsObserved();
  const auto before = BIO_number_written(client_end);
  clientWrites(700);
  EXPECT_EQ(serverReads(), 700);
  // The head of the record, then the rest.
  EXPECT_THAT(recorder.take(), ElementsAre("may read", "received", "may read", "received"));
  EXPECT_EQ(recorder.bytes, BIO_number_written(client_end) - before);
}

TEST_F(SocketWatch, ReadThatFindsNothingIsAnnouncedOnly) {
  shakeHandsObserved();
  EXPECT_EQ(serverReads(), -SSL_ERROR_WANT_READ);
  EXPECT_THAT(recorder.take(), ElementsAre("may read"));
}

TEST_F(SocketWatch, WriteIsToldBeforeAndAfterItMoved) {
  shakeHandsObserved();
  EXPECT_EQ(serverWrites(100), 100);
  EXPECT_THAT(recorder.take(), ElementsAre("may write", "written"));
}

TEST_F(SocketWatch, WriteThatMovesNothingIsAnnouncedOnly) {
  shakeHandsObserved();
  EXPECT_EQ(serverWrites(16'000), 16'000);
  recorder.take();
  EXPECT_EQ(serverWrites(16'000), -SSL_ERROR_WANT_WRITE);
  EXPECT_THAT(recorder.take(), ElementsAre("may write", "written", "may write"));
}

TEST_F(SocketWatch, RefusedReadLeavesTheBytesAndIsNotRepeated) {
  shakeHandsObserved();
  EXPECT_EQ(serverReads(), -SSL_ERROR_WANT_READ);  // the wish to repeat it is noted in the BIO
  clientWrites(700);
  const auto pending = BIO_pending(server_end);
  recorder.take();
  recorder.reads = false;
  EXPECT_EQ(serverReads(), -SSL_ERROR_SYSCALL);
  EXPECT_THAT(recorder.take(), ElementsAre("may read"));
  EXPECT_EQ(BIO_pending(server_end), pending);
}

TEST_F(SocketWatch, RefusedBytesAreSeenByNobody) {
  shakeHandsObserved();
  clientWrites(700);
  recorder.takes = false;
  EXPECT_EQ(serverReads(), -SSL_ERROR_SYSCALL);
  EXPECT_THAT(recorder.take(), ElementsAre("may read", "received"));
}

TEST_F(SocketWatch, RefusedWriteSendsNothingAndIsNotRepeated) {
  shakeHandsObserved();
  serverWrites(16'000);
  EXPECT_EQ(serverWrites(16'000), -SSL_ERROR_WANT_WRITE);
  const auto pending = BIO_pending(client_end);
  recorder.take();
  recorder.writes = false;
  EXPECT_EQ(serverWrites(16'000), -SSL_ERROR_SYSCALL);
  EXPECT_THAT(recorder.take(), ElementsAre("may write"));
  EXPECT_EQ(BIO_pending(client_end), pending);
}

TEST_F(SocketWatch, ReleaseIsTheLastEvent) {
  shakeHandsObserved();
  server.reset();
  EXPECT_THAT(recorder.take(), ElementsAre("released"));
}

TEST_F(SocketWatch, WhatElseIsDoneWithTheSocketIsNoEvent) {
  shakeHandsObserved();
  EXPECT_EQ(SSL_pending(server.get()), 0);
  EXPECT_EQ(BIO_pending(server_end), 0);
  EXPECT_EQ(BIO_flush(server_end), 1);
  EXPECT_EQ(BIO_puts(server_end, "line"), 4);  // TLS does not write lines
  EXPECT_THAT(recorder.take(), IsEmpty());
}

TEST_F(SocketWatch, ThreadThatNobodyObservesReportsNothing) {
  { const ObservedThread observed(recorder); }
  shake_hands();
  clientWrites(700);
  EXPECT_EQ(serverReads(), 700);
  EXPECT_THAT(recorder.take(), IsEmpty());
}

}  // namespace
}  // namespace spotserver
