#include "server/tls_check.hpp"

#include <memory>

#include <openssl/bio.h>
#include <openssl/err.h>

#include "server/owned.hpp"

namespace spotserver {
namespace {

using ContextPtr = std::unique_ptr<SSL_CTX, With<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, With<SSL_free>>;

// Bytes of a certificate chain that the client takes.
constexpr long kLongestChain = 16 << 20;
// Each side in turn. A handshake takes three; a long chain one more for every 17 KB.
constexpr int kTurns = 2000;
// Beside the usual ones those that a certificate may have been made with.
constexpr const char* kGroups =
    "X25519:P-256:X448:P-521:P-384:secp256k1:secp224r1:"
    "brainpoolP256r1:brainpoolP384r1:brainpoolP512r1:"
    "ffdhe2048:ffdhe3072:ffdhe4096:ffdhe6144:ffdhe8192";

// Without what the system may ask of clients: a security level, a least version, certificates that
// can be verified.
ContextPtr undemanding_client() {
  ContextPtr context(SSL_CTX_new(TLS_client_method()));
  if (!context) return nullptr;
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_min_proto_version(context.get(), 0);
  SSL_CTX_set1_groups_list(context.get(), kGroups);  // OpenSSL built without one: the usual ones
  SSL_CTX_set_max_cert_list(context.get(), kLongestChain);
  return context;
}

bool connect(SSL& server, SSL& client) {
  BIO* server_end = nullptr;
  BIO* client_end = nullptr;
  if (BIO_new_bio_pair(&server_end, 0, &client_end, 0) != 1) return false;
  SSL_set_bio(&server, server_end, server_end);
  SSL_set_bio(&client, client_end, client_end);
  SSL_set_accept_state(&server);
  SSL_set_connect_state(&client);
  return true;
}

// As far as it goes without the other side. False when it cannot go on at all.
bool take_turn(SSL& side) {
  const int result = SSL_do_handshake(&side);
  if (result == 1) return true;
  const int error = SSL_get_error(&side, result);
  return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

bool shake_hands(SSL& server, SSL& client) {
  bool shaken = false;
  for (int turn = 0; !shaken && turn < kTurns && take_turn(client) && take_turn(server); ++turn) {
    shaken = SSL_is_init_finished(&client) && SSL_is_init_finished(&server);
  }
  return shaken;
}

}  // namespace

bool shakes_hands(SSL_CTX& server) {
  ERR_clear_error();
  const ContextPtr context = undemanding_client();
  const SslPtr server_side(SSL_new(&server));
  const SslPtr client_side(context ? SSL_new(context.get()) : nullptr);
  const bool shaken = server_side && client_side && connect(*server_side, *client_side) &&
                      shake_hands(*server_side, *client_side);
  ERR_clear_error();
  return shaken;
}

}  // namespace spotserver
