// OpenSSL reports through a queue of errors that outlives its cause. Each step here empties the
// queue first, so that the oldest entry, the one the user is shown, belongs to the step that
// failed.
#include "server/tls_identity.hpp"

#include <array>
#include <cerrno>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "server/atomic_file.hpp"
#include "server/version.hpp"

namespace spotserver {
namespace {

using BioPtr = std::unique_ptr<BIO, With<BIO_free_all>>;
using BignumPtr = std::unique_ptr<BIGNUM, With<BN_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, With<X509_EXTENSION_free>>;

constexpr int kKeyBits = 2048;
constexpr int kValidDays = 3650;
constexpr std::size_t kLargestCertificate = 1 << 20;  // bytes looked at
// Unlike ".tmp" no name that another tool would give a file beside a certificate of the user's.
constexpr std::string_view kTemporary = ".corvane-tmp";

bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

// Whether `path` is free or a regular file itself, not a link or a device.
bool is_plain_name(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

void require(bool good, const char* message) {
  if (!good) throw_openssl_error(message);
}

// The reason of a failed system call goes where OpenSSL keeps its own.
[[noreturn]] void throw_system_error(int error, const std::string& message) {
  ERR_raise(ERR_LIB_SYS, error);
  throw_openssl_error(message);
}

// ---- loading ----

// The first kLargestCertificate bytes. Non-blocking: a FIFO reads as empty.
std::string read_certificate_file(const std::string& path) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) throw std::runtime_error("Cannot open certificate: " + path);
  std::string text(kLargestCertificate, '\0');
  std::size_t held = 0;
  while (held < text.size()) {
    const ssize_t got = ::read(file.get(), text.data() + held, text.size() - held);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw_system_error(errno, "PEM_read_X509 failed for " + path);
    if (got == 0) break;
    held += static_cast<std::size_t>(got);
  }
  text.resize(held);
  return text;
}

// An encrypted certificate is no use to a server; without this OpenSSL would ask at the terminal.
int no_password(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return -1; }

std::string load_fingerprint(const std::string& path) {
  ERR_clear_error();
  const std::string text = read_certificate_file(path);
  const BioPtr pem(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  const X509Ptr certificate(pem ? PEM_read_bio_X509(pem.get(), nullptr, no_password, nullptr)
                                : nullptr);
  if (!certificate) throw_openssl_error("PEM_read_X509 failed for " + path);
  return cert_fingerprint(*certificate);
}

// ---- making ----

void set_serial(X509& certificate) {
  std::array<unsigned char, 8> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "RAND_bytes failed");
  const BignumPtr number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(&certificate)),
          "serial assignment failed");
}

// Both ends from one reading of the clock: the span is exact.
void set_validity(X509& certificate, std::time_t now) {
  require(X509_time_adj_ex(X509_getm_notBefore(&certificate), 0, 0, &now) &&
              X509_time_adj_ex(X509_getm_notAfter(&certificate), kValidDays, 0, &now),
          "X509_time_adj_ex failed");
}

void add_name_entry(X509_NAME* name, const char* field, const std::string& text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
  require(
      name != nullptr && X509_NAME_add_entry_by_txt(name, field, MBSTRING_ASC, bytes, -1, -1, 0),
      "X509_NAME_add_entry_by_txt failed");
}

void set_names(X509& certificate, const std::string& common_name) {
  X509_NAME* name = X509_get_subject_name(&certificate);  // still the certificate's own
  add_name_entry(name, "CN", common_name.empty() ? kProgram : common_name);
  add_name_entry(name, "O", "Halvorn Works");
  require(X509_set_issuer_name(&certificate, name), "X509_set_issuer_name failed");
}

void add_alternative_names(X509& certificate) {
  const ExtensionPtr extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name,
                          "DNS:localhost,DNS:corvane-spot-server,IP:127.0.0.1"));
  require(extension && X509_add_ext(&certificate, extension.get(), -1), "X509_add_ext failed");
}

void fill_certificate(X509& certificate, EVP_PKEY& key, const std::string& common_name,
                      std::time_t now) {
  require(X509_set_version(&certificate, X509_VERSION_3), "X509_set_version failed");
  set_serial(certificate);
  set_validity(certificate, now);
  require(X509_set_pubkey(&certificate, &key), "X509_set_pubkey failed");
  set_names(certificate, common_name);
  add_alternative_names(certificate);
  require(X509_sign(&certificate, &key, EVP_sha256()), "X509_sign failed");
}

// A certificate that OpenSSL 3.0 had no memory to sign is left so that freeing it corrupts the
// heap. It stays until the process ends, which without a certificate is soon.
void keep_unfinished(X509* certificate) {
  static auto& unfinished = *new std::vector<X509*>;
  unfinished.push_back(certificate);
}

// ---- saving ----

std::string_view contents(BIO& memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(&memory, &data);
  return {data, static_cast<std::size_t>(size)};
}

void save_key(const EVP_PKEY& key, const std::string& path) {
  ERR_clear_error();
  const BioPtr pem(BIO_new(BIO_s_secmem()));  // wipes itself when released
  if (!pem) throw std::runtime_error("Cannot open key stream: " + path);
  require(PEM_write_bio_PrivateKey(pem.get(), &key, nullptr, nullptr, 0, nullptr, nullptr),
          "PEM_write_PrivateKey failed");
  const auto failed = write_atomically(path, contents(*pem),
                                       {.suffix = kTemporary, .mode = 0600, .replace = false});
  if (!failed) return;
  if (failed->step == WriteFailure::Step::kWrite) {
    throw_system_error(failed->error, "PEM_write_PrivateKey failed");
  }
  throw std::runtime_error("Cannot create key (exists or unwritable): " + path);
}

// What a link or a device of the user's stands for is written to, and so is a file that we may
// write in a directory that we may not.
// What we may not write stays.
std::optional<WriteFailure> replace_file(const std::string& path, std::string_view text) {
  if (exists(path) && ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) {
    return WriteFailure{WriteFailure::Step::kCreate, errno};
  }
  if (is_plain_name(path)) {
    const auto failed = write_atomically(path, text, {.suffix = kTemporary, .mode = 0666});
    if (!failed || failed->step == WriteFailure::Step::kWrite || !exists(path)) return failed;
  }
  return write_in_place(path, text, 0666);
}

void save_certificate(const X509& certificate, const std::string& path) {
  ERR_clear_error();
  const BioPtr pem(BIO_new(BIO_s_mem()));
  require(pem && PEM_write_bio_X509(pem.get(), &certificate), "PEM_write_X509 failed");
  const auto failed = replace_file(path, contents(*pem));
  if (!failed) return;
  if (failed->step == WriteFailure::Step::kWrite) {
    throw_system_error(failed->error, "PEM_write_X509 failed");
  }
  throw std::runtime_error("Cannot write certificate: " + path);
}

// Held while an identity is made, so that two first starts cannot mix one's key with the other's
// certificate. Never waits. The lock ends with the descriptor, at the latest with the process.
struct Turn {
  Fd directory;
  bool mine = true;  // also where locking is impossible
};

Turn take_turn(const std::string& key_path) {
  const std::string parent = std::filesystem::path(key_path).parent_path().string();
  Turn turn{Fd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))};
  if (turn.directory && ::flock(turn.directory.get(), LOCK_EX | LOCK_NB) != 0) {
    turn.mine = errno != EWOULDBLOCK;
  }
  return turn;
}

void remove_leftovers(const std::string& cert_path, const std::string& key_path) {
  for (const std::string& path : {cert_path, key_path}) {
    ::unlink((path + std::string(kTemporary)).c_str());
  }
}

}  // namespace

std::string ensure_tls_identity(const std::string& cert_path, const std::string& key_path,
                                const std::string& common_name, std::time_t now) {
  const Turn turn = take_turn(key_path);
  if (turn.mine) remove_leftovers(cert_path, key_path);
  if (exists(cert_path) && exists(key_path)) return load_fingerprint(cert_path);
  if (!turn.mine) {
    throw std::runtime_error("Cannot create key (exists or unwritable): " + key_path);
  }
  const PrivateKeyPtr key = make_key();
  const X509Ptr certificate = make_certificate(*key, common_name, now);
  std::string fingerprint = cert_fingerprint(*certificate);
  save_identity(*certificate, *key, cert_path, key_path);
  return fingerprint;
}

std::string cert_fingerprint(const X509& certificate) {
  ERR_clear_error();
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  require(X509_digest(&certificate, EVP_sha256(), digest.data(), &size), "X509_digest failed");
  constexpr char kHex[] = "0123456789ABCDEF";
  std::string text;
  for (const unsigned char byte : std::span(digest).first(size)) {
    if (!text.empty()) text += ':';
    text += kHex[byte >> 4];
    text += kHex[byte & 15];
  }
  return text;
}

void throw_openssl_error(const std::string& message) {
  const unsigned long oldest = ERR_get_error();
  if (oldest == 0) throw std::runtime_error(message);
  std::array<char, 256> text{};
  ERR_error_string_n(oldest, text.data(), text.size());
  throw std::runtime_error(message + ": " + text.data());
}

PrivateKeyPtr make_key() {
  ERR_clear_error();
  PrivateKeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{kKeyBits}));
  require(key != nullptr, "EVP_RSA_gen failed");
  return key;
}

X509Ptr make_certificate(EVP_PKEY& key, const std::string& common_name, std::time_t now) {
  ERR_clear_error();
  X509Ptr certificate(X509_new());
  require(certificate != nullptr, "X509_new failed");
  try {
    fill_certificate(*certificate, key, common_name, now);
  } catch (...) {
    keep_unfinished(certificate.release());
    throw;
  }
  return certificate;
}

void save_identity(const X509& certificate, const EVP_PKEY& key, const std::string& cert_path,
                   const std::string& key_path) {
  save_key(key, key_path);
  save_certificate(certificate, cert_path);
}

}  // namespace spotserver
