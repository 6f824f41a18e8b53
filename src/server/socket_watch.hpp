// What OpenSSL does with the socket of a connection, told while it happens.
//
// OpenSSL calls back at each step of TLS, and around each call of the BIO that reads and writes the
// socket. Of these calls the few that matter become plain events; the many others cost a comparison
// each. No lock, no memory, no clock: what an event means is the observer's business.
//
//   watch_sockets(context);                    // once, before the first connection
//   const ObservedThread observed(observer);  // on the thread that serves the connections
//   SSL_accept(ssl);                          // handshake_began may_read received ...
//   handshake_done SSL_read(ssl, buffer, size);              // may_read received may_read received
//   SSL_write(ssl, answer, length);           // may_write written
//   SSL_free(ssl);                            // released
#pragma once

#include <cstddef>

#include <openssl/ssl.h>

namespace spotserver {

// Told of one connection at a time, on the thread that is using it. No event may throw: it would
// have to pass through OpenSSL.
class SocketObserver {
 public:
  // Once for each connection, and before anything was read. SSL_get_fd names its socket.
  virtual void handshake_began(SSL& connection) noexcept = 0;
  // Once or more for each connection: TLS may shake hands again.
  virtual void handshake_done() noexcept = 0;

  // Before each read and write, whether there is anything to read or any room to write or not.
  // False: it is not done and fails, for good; OpenSSL will not ask to have it repeated.
  virtual bool may_read() noexcept = 0;
  virtual bool may_write() noexcept = 0;

  // After a read that gave so many bytes, one or more. False: nobody gets to see them, the read
  // fails as above. May take its time; the connection waits.
  virtual bool received(std::size_t bytes) noexcept = 0;
  // After a write that moved, be it by one byte.
  virtual void written() noexcept = 0;

  // OpenSSL lets go of the socket, and its descriptor will be closed. The last event.
  virtual void released() noexcept = 0;

 protected:
  ~SocketObserver() = default;
};

// Makes the connections of this context report to the observer of the thread on which their
// handshake begins, if it has one.
void watch_sockets(SSL_CTX* context);

// Gives this thread an observer for a scope. One at a time. The observer outlives the connections
// whose handshakes began meanwhile.
class ObservedThread {
 public:
  explicit ObservedThread(SocketObserver& observer) noexcept;
  ~ObservedThread();
  ObservedThread(const ObservedThread&) = delete;
  ObservedThread& operator=(const ObservedThread&) = delete;
};

}  // namespace spotserver
