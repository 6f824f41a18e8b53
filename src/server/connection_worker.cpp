#include "server/connection_worker.hpp"

#include <chrono>
#include <memory>
#include <utility>

#include "server/linger.hpp"
#include "server/owned.hpp"
#include "server/stack_thread.hpp"

namespace spotserver {
namespace {

using Clock = std::chrono::steady_clock;
using SslPtr = std::unique_ptr<SSL, With<SSL_free>>;

// The library matches a Range header with a recursive regular expression: 8 KB of header take 4 MB
// of stack. Threads must not depend on the stack limit the service was started with.
constexpr std::size_t kStack = std::size_t{16} << 20;

thread_local ConnectionWorker* worker_here = nullptr;

}  // namespace

// --- its thread ---

bool ConnectionWorker::start() {
  MutexLock lock(place_.mutex);  // the new thread waits for it
  if (!start_thread(thread_, kStack, entry, this)) return false;
  place_.slots.push_back(&slot_);
  ++place_.free_workers;
  return true;
}

void ConnectionWorker::join() { pthread_join(thread_, nullptr); }

void ConnectionWorker::detach() { pthread_detach(thread_); }

ConnectionWorker* ConnectionWorker::current() { return worker_here; }

void* ConnectionWorker::entry(void* worker) {
  worker_here = static_cast<ConnectionWorker*>(worker);
  const ObservedThread observed(*worker_here);
  worker_here->work_until_stopped();
  return nullptr;
}

void ConnectionWorker::work_until_stopped() {
  while (auto job = next_job()) {
    serve(*job);
    job.reset();  // and what it holds, before its worker is free
    end_job();
  }
  MutexLock lock(place_.mutex);
  ++place_.left_workers;
  place_.done.notify_all();
}

// None: the service stops and nobody waits any more.
std::optional<ConnectionWorker::Job> ConnectionWorker::next_job() {
  MutexLock lock(place_.mutex);
  while (!place_.stopping && place_.jobs.empty()) place_.work.wait(place_.mutex);
  if (place_.jobs.empty()) return std::nullopt;
  Job job = place_.jobs.pop();
  --place_.free_workers;
  slot_ = ConnectionSlot{};
  enter(slot_, Phase::kHandshake, Clock::now());
  if (place_.watcher_sleeps) place_.watch.notify_one();  // else it looks again soon by itself
  return job;
}

// Runs one connection to its end. The library catches what a request handler throws; what it throws
// itself (out of memory while it reads a header, a number out of range in a Range header) arrives
// here, with the connection still open.
void ConnectionWorker::serve(const Job& job) noexcept {
  try {
    job();
  } catch (...) {
    close_connection();
  }
}

void ConnectionWorker::close_connection() {
  Fd socket;  // closed behind its connection
  SslPtr connection;
  MutexLock lock(place_.mutex);
  socket = Fd(std::exchange(slot_.fd, -1));
  connection.reset(std::exchange(slot_.ssl, nullptr));
}

void ConnectionWorker::end_job() {
  MutexLock lock(place_.mutex);
  parsed();
  slot_ = ConnectionSlot{};
  ++place_.free_workers;
  place_.ended.notify_one();
}

// --- what its connection reports ---

void ConnectionWorker::handshake_began(SSL& connection) noexcept {
  MutexLock lock(place_.mutex);
  slot_.ssl = &connection;
  slot_.fd = SSL_get_fd(&connection);
  if (place_.stopping || slot_.cut) cut(slot_);
}

void ConnectionWorker::handshake_done() noexcept {
  MutexLock lock(place_.mutex);
  if (slot_.phase == Phase::kHandshake) enter(slot_, Phase::kIdle, Clock::now());
}

// A socket that was shut down still hands out what the peer goes on sending.
bool ConnectionWorker::may_read() noexcept {
  MutexLock lock(place_.mutex);
  if (!slot_.cut) end_turn();  // what came was not parsed yet: more is needed
  return !slot_.cut;
}

bool ConnectionWorker::received(std::size_t bytes) noexcept {
  {
    MutexLock lock(place_.mutex);
    note_received(place_.slots, slot_, place_.limits, Clock::now(), bytes);
  }
  return take_turn();
}

bool ConnectionWorker::may_write() noexcept {
  MutexLock lock(place_.mutex);
  if (!slot_.cut && !slot_.writing_since) slot_.writing_since = Clock::now();
  return !slot_.cut;
}

void ConnectionWorker::written() noexcept {
  MutexLock lock(place_.mutex);
  slot_.writing_since.reset();
}

// The library closes the descriptor next: it must not be touched again.
void ConnectionWorker::released() noexcept {
  MutexLock lock(place_.mutex);
  slot_.fd = -1;
  slot_.ssl = nullptr;
}

// --- what the library reports of its requests ---

void ConnectionWorker::head_complete() {
  MutexLock lock(place_.mutex);
  parsed();
  enter(slot_, Phase::kBody, Clock::now());
}

// Of requests that came in one piece the second has its head read while the slot is idle.
bool ConnectionWorker::is_reading_head() {
  MutexLock lock(place_.mutex);
  return slot_.phase < Phase::kBody;
}

void ConnectionWorker::request_complete() {
  MutexLock lock(place_.mutex);
  if (slot_.phase == Phase::kServing) return;
  parsed();
  enter(slot_, Phase::kServing, Clock::now());
}

void ConnectionWorker::close_after_answer() {
  MutexLock lock(place_.mutex);
  slot_.close_after_answer = true;
}

bool ConnectionWorker::closes_after_answer() {
  MutexLock lock(place_.mutex);
  if (bytes_ahead() > place_.limits.deep_request_bytes) slot_.close_after_answer = true;
  return slot_.close_after_answer;
}

void ConnectionWorker::answered() {
  MutexLock lock(place_.mutex);
  if (slot_.close_after_answer && !slot_.cut) {  // who was cut is told nothing more
    linger_unlocked(slot_.fd, slot_.ssl);
    cut(slot_);
  }
  parsed();
  enter(slot_, Phase::kIdle, Clock::now());
  slot_.received = bytes_ahead();
}

void ConnectionWorker::linger_unlocked(int fd, SSL* ssl) {
  place_.mutex.unlock();
  linger(fd, ssl, place_.limits.linger);
  place_.mutex.lock();
}

// --- deep requests ---

// The library may need half a kilobyte of stack for every byte of a header. Requests large enough
// for that to matter are parsed one at a time, and their workers give the stack back.

// Before the bytes just read go to the library; false when the slot was cut and they must not. A
// turn ends by itself when the library does not parse but waits for more.
bool ConnectionWorker::take_turn() {
  MutexLock lock(place_.mutex);
  if (slot_.phase != Phase::kReading || !is_deep(slot_, place_.limits)) return !slot_.cut;
  slot_.awaits_turn = true;
  auto now = Clock::now();
  for (; !slot_.cut && !is_next(place_.turn, place_.slots, slot_, now); now = Clock::now()) {
    place_.next.wait_until(place_.mutex, next_look(place_.turn, place_.limits, now));
  }
  slot_.awaits_turn = false;
  if (!slot_.cut) take(place_.turn, slot_, place_.limits, now);
  return !slot_.cut;
}

// Bytes of a next request that came together with this one: the library will parse them without
// another read of the socket, so no turn can be taken for them.
std::size_t ConnectionWorker::bytes_ahead() const {
  return slot_.ssl ? static_cast<std::size_t>(SSL_pending(slot_.ssl)) : 0;
}

// With nothing of the library's parser left on this thread's stack.
void ConnectionWorker::parsed() {
  if (!is_deep(slot_, place_.limits)) return;
  trim_stack();
  end_turn();
}

void ConnectionWorker::end_turn() {
  if (place_.turn.holder != &slot_) return;
  place_.turn.holder = nullptr;
  place_.next.notify_all();
}

}  // namespace spotserver
