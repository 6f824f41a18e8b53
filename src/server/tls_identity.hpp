// The server's key and self-signed certificate: two PEM files, made once and reused ever after.
// Every error is a std::runtime_error whose what() is the sentence for the user, without the words
// "TLS certificate error: " before it.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "server/owned.hpp"

namespace spotserver {

using X509Ptr = std::unique_ptr<X509, With<X509_free>>;
using PrivateKeyPtr = std::unique_ptr<EVP_PKEY, With<EVP_PKEY_free>>;

// The fingerprint of the certificate at `cert_path` when both files exist; otherwise makes a new
// pair, valid for 3650 days from `now` (UTC epoch seconds), and returns the new fingerprint.
//   ensure_tls_identity(settings.cert, settings.key, kProgram)  // "9F:0A:...:C4"
// The key is never overwritten, so a lone key stops the start until its owner removes it; a lone
// certificate is replaced. Neither file is ever seen half-written, and of two first starts at the
// same time one makes the pair and the other fails as if the key existed. Expiry is not looked at.
// The files' directories must exist. Key: mode 0600, certificate: 0666, both less the umask.
// Throws, with the oldest entry of OpenSSL's error queue behind those that name a function,
//   loading   "Cannot open certificate: " + path, "PEM_read_X509 failed for " + path
//   creating  what make_key, make_certificate and save_identity throw
std::string ensure_tls_identity(const std::string& cert_path, const std::string& key_path,
                                const std::string& common_name,
                                std::time_t now = std::time(nullptr));

// SHA-256 over the certificate's DER form: 32 upper-case hex pairs joined by colons, 95 characters.
// Throws "X509_digest failed".
std::string cert_fingerprint(const X509& certificate);

// Throws std::runtime_error: `message`, then ": " and the text (255 characters at most) of the
// oldest entry of OpenSSL's error queue, which is taken out; `message` alone when there is none.
[[noreturn]] void throw_openssl_error(const std::string& message);

// The steps of a new identity.

// An RSA key of 2048 bits. Takes a tenth of a second or a few. Throws "EVP_RSA_gen failed".
PrivateKeyPtr make_key();

// A version 3 certificate signed with `key` and SHA-256. Subject and issuer: CN = `common_name`
// (empty: the program's name), O = "Halvorn Works". Alternative names: DNS localhost, DNS
// corvane-spot-server, IP 127.0.0.1. Serial number: 64 random bits. Valid from `now` for
// 315,360,000 seconds.
// Throws the name of the OpenSSL function + " failed", or "serial assignment failed".
X509Ptr make_certificate(EVP_PKEY& key, const std::string& common_name, std::time_t now);

// Writes the key, then the certificate, each whole or not at all. When only the certificate fails
// the key stays.
// Throws "Cannot create key (exists or unwritable): " + path, "Cannot open key stream: " + path,
// "PEM_write_PrivateKey failed", "Cannot write certificate: " + path, "PEM_write_X509 failed".
void save_identity(const X509& certificate, const EVP_PKEY& key, const std::string& cert_path,
                   const std::string& key_path);

}  // namespace spotserver
