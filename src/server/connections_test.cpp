#include "server/connections.hpp"

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>
#include <system_error>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "server/owned.hpp"

namespace {

constexpr int kPlenty = -1;
std::atomic<int> g_threads_left = kPlenty;  // that the system grants

// For the length of a scope.
struct FewThreads {
  explicit FewThreads(int granted) { g_threads_left = granted; }
  ~FewThreads() { g_threads_left = kPlenty; }
};

}  // namespace

// Stands in for the C library's own, for this program.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument) noexcept {
  if (g_threads_left != kPlenty && g_threads_left-- <= 0) {
    ++g_threads_left;
    return EAGAIN;
  }
  static const auto real =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  return real(thread, attributes, entry, argument);
}

namespace spotserver {
namespace {

using namespace std::chrono_literals;

TEST(Connections, CallsFromOtherThreadsHaveNoEffect) {
  Connections connections{ConnectionLimits{}};
  Connections::head_complete();
  Connections::request_complete();
  Connections::close_after_answer();
  Connections::answered();
  EXPECT_FALSE(Connections::closes_after_answer());
  EXPECT_FALSE(Connections::is_reading_head());
  EXPECT_FALSE(connections.abandoned());
}

// The queue alone, without sockets: jobs stand for connections.
class ConnectionQueue : public testing::Test {
 protected:
  static ConnectionLimits twoWorkers() {
    ConnectionLimits limits;
    limits.workers = 2;
    limits.drain = limits.release = 30s;  // no machine is so slow that a worker is left behind
    return limits;
  }
};

TEST_F(ConnectionQueue, RunsEveryJobAndStopsOnce) {
  int stops = 0;
  Connections connections{twoWorkers(), [&stops] { ++stops; }};
  connections.start();
  const auto queue = connections.queue();
  std::atomic<int> ran = 0;
  for (int i = 0; i < 100; ++i) queue->enqueue([&ran] { ++ran; });
  connections.stop();
  EXPECT_EQ(ran, 100);
  EXPECT_EQ(stops, 1);
  EXPECT_FALSE(connections.abandoned());
}

TEST_F(ConnectionQueue, TheEndOfAnAcceptLoopIsNotThatOfTheService) {
  Connections connections{twoWorkers()};
  connections.start();
  connections.queue()->shutdown();
  std::promise<void> ran;
  connections.queue()->enqueue([&ran] { ran.set_value(); });
  ran.get_future().wait();
  connections.stop();
}

TEST_F(ConnectionQueue, AJobThatThrowsLeavesItsWorkerAtWork) {
  Connections connections{twoWorkers()};
  connections.start();
  const auto queue = connections.queue();
  std::atomic<int> ran = 0;
  for (int i = 0; i < 10; ++i) {
    queue->enqueue([] { throw std::out_of_range("a number in a header"); });
    queue->enqueue([] { throw 1; });
    queue->enqueue([&ran] { ++ran; });
  }
  connections.stop();
  EXPECT_EQ(ran, 10);
}

std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

// Stands for the library, which has accepted a connection and throws while it reads.
TEST_F(ConnectionQueue, AJobThatThrowsLeavesNoConnectionOpen) {
  const std::unique_ptr<SSL_CTX, With<SSL_CTX_free>> context(SSL_CTX_new(TLS_server_method()));
  Connections connections{twoWorkers()};
  connections.watch(context.get());
  connections.start();
  const auto before = openDescriptors();
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  {
    const Fd peer(ends[0]);
    ASSERT_GT(::send(peer.get(), "no TLS", 6, 0), 0);
    connections.queue()->enqueue([&context, socket = ends[1]] {
      SSL* ssl = SSL_new(context.get());
      SSL_set_fd(ssl, socket);
      SSL_accept(ssl);
      throw std::bad_alloc();
    });
    timeval patience{10, 0};
    ::setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    char alert[64];
    ssize_t got = 0;
    while ((got = ::recv(peer.get(), alert, sizeof alert, 0)) > 0) {
    }
    EXPECT_TRUE(got == 0 || errno == ECONNRESET) << "still open";
  }
  connections.stop();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ConnectionQueue, WithoutAnyWorkerItDoesNotStart) {
  auto limits = twoWorkers();
  limits.workers = 0;
  Connections connections{limits};
  EXPECT_THROW(connections.start(), std::system_error);
}

// The accept loop is held up: a connection not yet accepted costs no descriptor.
TEST_F(ConnectionQueue, BeyondTheBoundTheAcceptLoopWaits) {
  auto limits = twoWorkers();
  limits.connections = 3;  // two with workers, one in line
  Connections connections{limits};
  connections.start();
  const auto queue = connections.queue();
  std::promise<void> release;
  const auto released = release.get_future().share();
  for (int i = 0; i < 3; ++i) queue->enqueue([released] { released.wait(); });
  auto fourth = std::async(std::launch::async, [&] { queue->enqueue([] {}); });
  EXPECT_EQ(fourth.wait_for(200ms), std::future_status::timeout);
  release.set_value();
  fourth.get();
  connections.stop();
}

TEST_F(ConnectionQueue, AnAcceptLoopThatEndsIsNotHeldUp) {
  auto limits = twoWorkers();
  limits.connections = 1;
  Connections connections{limits};
  connections.start();
  const auto queue = connections.queue();
  std::promise<void> release;
  const auto released = release.get_future().share();
  queue->enqueue([released] { released.wait(); });
  auto second = std::async(std::launch::async, [&] { queue->enqueue([] {}); });
  connections.release_accept_loop();
  second.get();
  release.set_value();
  connections.stop();
}

TEST_F(ConnectionQueue, AWorkerThatCannotBeStoppedIsLeftBehind) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  {
    auto limits = twoWorkers();
    limits.drain = 50ms;
    limits.release = 100ms;
    Connections connections{limits};
    connections.start();
    const auto queue = connections.queue();
    const auto running = std::make_shared<std::promise<void>>();  // the worker may outlive us
    queue->enqueue([running, released] {
      running->set_value();
      released.wait();
    });
    running->get_future().wait();
    connections.stop();
    EXPECT_TRUE(connections.abandoned());
  }
  release.set_value();
}

TEST(ConnectionsStart, AsManyWorkersAsTheSystemGrantsWillDo) {
  ConnectionLimits limits;
  limits.workers = 4;
  limits.drain = limits.release = 30s;
  Connections connections(limits);
  {
    const FewThreads few(3);  // the watcher and two workers
    connections.start();
  }
  const auto queue = connections.queue();
  std::promise<void> together[2];
  for (int job = 0; job < 2; ++job) {
    queue->enqueue([&together, job] {  // ends once the other runs as well
      together[job].set_value();
      together[1 - job].get_future().wait();
    });
  }
  connections.stop();
  EXPECT_FALSE(connections.abandoned());
}

TEST(ConnectionsStart, WithoutAnyWorkerThereIsNoService) {
  Connections connections(ConnectionLimits{});
  const FewThreads none(0);
  EXPECT_THROW(connections.start(), std::system_error);
}

}  // namespace
}  // namespace spotserver
