#include "server/socket_watch.hpp"

#include <openssl/bio.h>

namespace spotserver {
namespace {

thread_local SocketObserver* observer_here = nullptr;

// What the callback returns so that a read or write fails and is not to be repeated.
long refuse(BIO* bio) {
  BIO_clear_retry_flags(bio);
  return -1;
}

// OpenSSL calls this around every call of the BIO, and takes what it returns for the call's result.
long on_socket(BIO* bio, int operation, const char* /*data*/, std::size_t /*length*/, int /*argi*/,
               long /*argl*/, int result, std::size_t* processed) {
  // Most calls only ask for the BIO's settings, dozens of them in every request.
  if ((operation & ~BIO_CB_RETURN) == BIO_CB_CTRL) return result;
  auto& observer = *reinterpret_cast<SocketObserver*>(BIO_get_callback_arg(bio));
  const std::size_t bytes = result > 0 && processed ? *processed : 0;
  switch (operation) {
    case BIO_CB_READ:
      return observer.may_read() ? result : refuse(bio);
    case BIO_CB_READ | BIO_CB_RETURN:
      return bytes == 0 || observer.received(bytes) ? result : refuse(bio);
    case BIO_CB_WRITE:
      return observer.may_write() ? result : refuse(bio);
    case BIO_CB_WRITE | BIO_CB_RETURN:
      if (bytes > 0) observer.written();
      return result;
    case BIO_CB_FREE:
      observer.released();
      return result;
    default:
      return result;
  }
}

void watch(SSL& connection, SocketObserver& observer) {
  BIO* bio = SSL_get_rbio(&connection);
  if (bio == nullptr) return;  // no memory for it: the handshake fails at once
  if (BIO_get_callback_ex(bio) == on_socket) return;  // it shakes hands again
  BIO_set_callback_arg(bio, reinterpret_cast<char*>(&observer));
  BIO_set_callback_ex(bio, on_socket);
  observer.handshake_began(connection);
}

// OpenSSL calls this at each step of TLS.
void on_tls(const SSL* connection, int where, int /*result*/) {
  if (!observer_here) return;
  if ((where & SSL_CB_HANDSHAKE_START) != 0) {
    watch(*const_cast<SSL*>(connection), *observer_here);  // only hidden that it is ours to use
  }
  if ((where & SSL_CB_HANDSHAKE_DONE) != 0) observer_here->handshake_done();
}

}  // namespace

void watch_sockets(SSL_CTX* context) { SSL_CTX_set_info_callback(context, on_tls); }

ObservedThread::ObservedThread(SocketObserver& observer) noexcept { observer_here = &observer; }

ObservedThread::~ObservedThread() { observer_here = nullptr; }

}  // namespace spotserver
