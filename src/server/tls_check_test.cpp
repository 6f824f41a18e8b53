#include "server/tls_check.hpp"

#include <ctime>
#include <memory>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "server/tls_identity.hpp"

namespace spotserver {
namespace {

using ContextPtr = std::unique_ptr<SSL_CTX, With<SSL_CTX_free>>;

PrivateKeyPtr rsaKey(std::size_t bits) {
  return PrivateKeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", bits));
}
PrivateKeyPtr curveKey(const char* curve) {
  return PrivateKeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve));
}
PrivateKeyPtr edwardsKey(const char* name) {
  return PrivateKeyPtr(EVP_PKEY_Q_keygen(nullptr, nullptr, name));
}

// The least that a certificate can be: no names, no extensions. Valid for a day from `begin`,
// seconds from now.
X509Ptr bareCertificate(EVP_PKEY& key, long begin = 0) {
  constexpr long kDay = 86'400;
  X509Ptr certificate(X509_new());
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), begin);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), begin + kDay);
  X509_set_pubkey(certificate.get(), &key);
  const bool hashes_itself = EVP_PKEY_is_a(&key, "ED25519") || EVP_PKEY_is_a(&key, "ED448");
  X509_sign(certificate.get(), &key, hashes_itself ? nullptr : EVP_sha256());
  return certificate;
}

// As the HTTP library makes one, on a system that allows the weakest keys.
ContextPtr emptyContext() {
  ContextPtr context(SSL_CTX_new(TLS_server_method()));
  SSL_CTX_set_min_proto_version(context.get(), TLS1_1_VERSION);
  SSL_CTX_set_security_level(context.get(), 0);
  return context;
}

ContextPtr contextOf(EVP_PKEY& key, X509& certificate) {
  ContextPtr context = emptyContext();
  EXPECT_EQ(SSL_CTX_use_certificate(context.get(), &certificate), 1);
  EXPECT_EQ(SSL_CTX_use_PrivateKey(context.get(), &key), 1);
  return context;
}

TEST(TlsCheck, ServersOwnIdentityIsHeard) {
  const PrivateKeyPtr key = make_key();
  const X509Ptr certificate = make_certificate(*key, "spot", std::time(nullptr));
  EXPECT_TRUE(shakes_hands(*contextOf(*key, *certificate)));
}

TEST(TlsCheck, AnyKeyThatTheContextTakesIsHeard) {
  const struct {
    const char* name;
    PrivateKeyPtr key;
  } cases[] = {
      {"RSA of 1024 bits", rsaKey(1024)},   {"P-256", curveKey("P-256")},
      {"P-384", curveKey("P-384")},         {"P-521", curveKey("P-521")},
      {"secp256k1", curveKey("secp256k1")}, {"secp224r1", curveKey("secp224r1")},
      {"Ed25519", edwardsKey("ED25519")},   {"Ed448", edwardsKey("ED448")},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(shakes_hands(*contextOf(*c.key, *bareCertificate(*c.key)))) << c.name;
  }
}

TEST(TlsCheck, ExpiryIsNotLookedAt) {
  const PrivateKeyPtr key = curveKey("P-256");
  constexpr long kYear = 365 * 86'400;
  for (const long begin : {-kYear, kYear}) {
    EXPECT_TRUE(shakes_hands(*contextOf(*key, *bareCertificate(*key, begin)))) << begin;
  }
}

TEST(TlsCheck, ChainOfAnyLengthIsTaken) {
  const PrivateKeyPtr key = rsaKey(2048);
  const X509Ptr certificate = bareCertificate(*key);
  const ContextPtr context = contextOf(*key, *certificate);
  for (int i = 0; i < 300; ++i) {  // more than clients take unless told to
    ASSERT_EQ(SSL_CTX_add1_chain_cert(context.get(), certificate.get()), 1);
  }
  EXPECT_TRUE(shakes_hands(*context));
}

TEST(TlsCheck, OneProtocolVersionIsEnough) {
  const PrivateKeyPtr key = curveKey("P-256");
  for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    const ContextPtr context = contextOf(*key, *bareCertificate(*key));
    SSL_CTX_set_min_proto_version(context.get(), version);
    SSL_CTX_set_max_proto_version(context.get(), version);
    EXPECT_TRUE(shakes_hands(*context)) << version;
  }
}

TEST(TlsCheck, WhatNobodyCanTalkToIsNotHeard) {
  const PrivateKeyPtr key = curveKey("P-256");
  const X509Ptr certificate = bareCertificate(*key);

  EXPECT_FALSE(shakes_hands(*emptyContext())) << "no certificate";

  const ContextPtr keyless = emptyContext();
  SSL_CTX_use_certificate(keyless.get(), certificate.get());
  EXPECT_FALSE(shakes_hands(*keyless)) << "no key";

  const ContextPtr mute = contextOf(*key, *certificate);
  SSL_CTX_set_min_proto_version(mute.get(), TLS1_3_VERSION);
  SSL_CTX_set_ciphersuites(mute.get(), "");
  EXPECT_FALSE(shakes_hands(*mute)) << "no cipher";
}

TEST(TlsCheck, LeavesNoErrorBehind) {
  ERR_raise(ERR_LIB_USER, 1);
  EXPECT_FALSE(shakes_hands(*emptyContext()));
  EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace spotserver
