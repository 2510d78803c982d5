#include <VornSdkRpc/CertificateSet.h>

#include <VornSdkRpc/FileWatch.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <vorn/error.h>

#include <algorithm>
#include <ctime>

namespace VornSdkRpc {

namespace {

using Time = CertificateState::Time;
using BioPointer = std::unique_ptr<BIO, FreeBy<BIO_free>>;
using KeyPointer = std::unique_ptr<EVP_PKEY, FreeBy<EVP_PKEY_free>>;
using ContextPointer = std::unique_ptr<SSL_CTX, FreeBy<SSL_CTX_free>>;

constexpr std::size_t kLongest = 8 << 20;

[[noreturn]] void refuse(const std::string& file, const std::string& what) {
  ERR_clear_error();
  throw vorn::configuration_error(file + ": " + what);
}

// OpenSSL's word on what has just failed.
std::string reason() {
  const char* const text = ERR_reason_error_string(ERR_peek_last_error());
  return text == nullptr ? "unknown reason" : text;
}

// No one is there to be asked for a passphrase.
int noPassphrase(char*, int, int, void*) { return -1; }

BioPointer reading(std::string_view pem) {
  ERR_clear_error();
  return BioPointer(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

// Every object of a kind in a PEM file, to its end.
template <typename Pointer, auto Read>
std::vector<Pointer> allOf(std::string_view pem, const std::string& file, const char* kind) {
  std::vector<Pointer> all;
  const auto bio = reading(pem);
  while (auto* const next = Read(bio.get(), nullptr, &noPassphrase, nullptr))
    all.emplace_back(next);
  const auto end = ERR_peek_last_error();
  if (ERR_GET_LIB(end) != ERR_LIB_PEM || ERR_GET_REASON(end) != PEM_R_NO_START_LINE)
    refuse(file, "is damaged: " + reason());
  ERR_clear_error();
  if (all.empty()) refuse(file, std::string("holds no ") + kind);
  return all;
}

std::vector<X509Pointer> certificatesOf(std::string_view pem, const std::string& file) {
  return allOf<X509Pointer, PEM_read_bio_X509_AUX>(pem, file, "certificate");
}

Time timeOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) return Time::max();
  return std::chrono::system_clock::from_time_t(timegm(&parts));
}

// What `write` writes.
template <typename Write>
std::string written(Write write) {
  const BioPointer bio(BIO_new(BIO_s_mem()));
  write(bio.get());
  char* text = nullptr;
  const auto size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string nameOf(const X509* certificate) {
  return written([&](BIO* out) {
    X509_NAME_print_ex(out, X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  });
}

std::string pemOf(const std::vector<X509Pointer>& certificates) {
  return written([&](BIO* out) {
    for (const auto& certificate : certificates)
      PEM_write_bio_X509(out, certificate.get());
  });
}

std::string pemOf(EVP_PKEY* key) {
  return written(
      [&](BIO* out) { PEM_write_bio_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr); });
}

bool hasBegun(const X509* certificate) {
  return X509_cmp_current_time(X509_get0_notBefore(certificate)) < 0;
}
bool hasExpired(const X509* certificate) {
  return X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0;
}

void freeStack(STACK_OF(X509) * certificates) { sk_X509_pop_free(certificates, X509_free); }

void checkDates(const X509* certificate, const std::string& file) {
  if (!hasBegun(certificate)) refuse(file, nameOf(certificate) + " is not valid yet");
  if (hasExpired(certificate)) refuse(file, nameOf(certificate) + " has expired");
}

// That each one is signed by the next.
void checkOrder(const std::vector<X509Pointer>& chain, const std::string& file) {
  for (std::size_t i = 1; i < chain.size(); ++i) {
    auto* const subject = chain[i - 1].get();
    auto* const issuer = chain[i].get();
    if (X509_check_issued(issuer, subject) != X509_V_OK ||
        X509_verify(subject, X509_get0_pubkey(issuer)) != 1) {
      refuse(file, nameOf(subject) + " is not signed by the next certificate of the file");
    }
  }
}

KeyPointer keyOf(const std::string& pem, const std::string& file) {
  const auto bio = reading(pem);
  KeyPointer key(PEM_read_bio_PrivateKey(bio.get(), nullptr, &noPassphrase, nullptr));
  if (!key) refuse(file, "holds no private key that can be used: " + reason());
  return key;
}

// What gRPC will do with them: OpenSSL refuses what is too weak, and a key of another certificate.
void checkUse(const std::vector<X509Pointer>& chain, EVP_PKEY* key, const CertificateFiles& files) {
  const ContextPointer context(SSL_CTX_new(TLS_server_method()));
  if (!context) refuse(files.certificate, "cannot be checked: " + reason());
  SSL_CTX_set_security_level(context.get(), std::max(2, SSL_CTX_get_security_level(context.get())));
  const auto refused = [&] { refuse(files.certificate, "cannot be used: " + reason()); };
  if (SSL_CTX_use_certificate(context.get(), chain.front().get()) != 1) refused();
  for (std::size_t i = 1; i < chain.size(); ++i) {
    if (SSL_CTX_add1_chain_cert(context.get(), chain[i].get()) != 1) refused();
  }
  if (X509_check_private_key(chain.front().get(), key) != 1)
    refuse(files.key, "is not the key of the certificate in " + files.certificate);
  if (SSL_CTX_use_PrivateKey(context.get(), key) != 1)
    refuse(files.key, "cannot be used: " + reason());
  if (X509_check_purpose(chain.front().get(), X509_PURPOSE_SSL_SERVER, 0) != 1)
    refuse(files.certificate, nameOf(chain.front().get()) + " is not meant for a server");
}

void checkAuthorities(const std::vector<X509Pointer>& authorities, const std::string& file) {
  if (std::ranges::none_of(authorities, [](const auto& authority) {
        return hasBegun(authority.get()) && !hasExpired(authority.get());
      })) {
    refuse(file, "holds no authority that is valid now");
  }
}

void checkRevocations(const X509_CRL* list, const std::vector<X509Pointer>& authorities,
                      const std::string& file) {
  const auto* const next = X509_CRL_get0_nextUpdate(list);
  if (next != nullptr && X509_cmp_current_time(next) < 0)
    refuse(file, "a list of revocations has expired");
  std::vector<X509*> issuers;
  for (const auto& authority : authorities) {
    if (X509_NAME_cmp(X509_get_subject_name(authority.get()), X509_CRL_get_issuer(list)) == 0)
      issuers.push_back(authority.get());
  }
  const bool isSigned = std::ranges::any_of(issuers, [list](X509* issuer) {
    return X509_CRL_verify(const_cast<X509_CRL*>(list), X509_get0_pubkey(issuer)) == 1;
  });
  if (!issuers.empty() && !isSigned)
    refuse(file, "a list of revocations is not signed by " + nameOf(issuers.front()));
}

}  // namespace

CertificateTexts CertificateTexts::read(const CertificateFiles& files) {
  const auto text = [](const std::string& path) {
    return path.empty() ? "" : readFile(path, kLongest);
  };
  return {.certificate = text(files.certificate),
          .key = text(files.key),
          .authorities = text(files.authorities),
          .revoked = text(files.revoked)};
}

CertificateSet::CertificateSet(const CertificateFiles& files, const CertificateTexts& texts)
    : chain_(certificatesOf(texts.certificate, files.certificate)) {
  checkOrder(chain_, files.certificate);
  for (const auto& certificate : chain_)
    checkDates(certificate.get(), files.certificate);
  const auto key = keyOf(texts.key, files.key);
  checkUse(chain_, key.get(), files);
  identityPem_ = pemOf(key.get()) + pemOf(chain_);
  if (!files.authorities.empty()) {
    authorities_ = certificatesOf(texts.authorities, files.authorities);
    checkAuthorities(authorities_, files.authorities);
    authoritiesPem_ = pemOf(authorities_);
  }
  if (!files.revoked.empty()) {
    revoked_ = allOf<CrlPointer, PEM_read_bio_X509_CRL>(texts.revoked, files.revoked,
                                                        "list of revocations");
    for (const auto& list : revoked_)
      checkRevocations(list.get(), authorities_, files.revoked);
  }
  ERR_clear_error();
}

CertificateState CertificateSet::state() const {
  CertificateState state{.subject = nameOf(chain_.front().get()),
                         .serial = {},
                         .expires = Time::max(),
                         .authoritiesExpire = authorities_.empty() ? Time::max() : Time::min(),
                         .revocationsExpire = Time::max(),
                         .generation = 1,
                         .loaded = {}};
  const std::unique_ptr<BIGNUM, FreeBy<BN_free>> number(
      ASN1_INTEGER_to_BN(X509_get0_serialNumber(chain_.front().get()), nullptr));
  if (char* const digits = BN_bn2hex(number.get())) {
    state.serial = digits;
    OPENSSL_free(digits);
  }
  for (const auto& certificate : chain_)
    state.expires = std::min(state.expires, timeOf(X509_get0_notAfter(certificate.get())));
  for (const auto& authority : authorities_) {
    state.authoritiesExpire =
        std::max(state.authoritiesExpire, timeOf(X509_get0_notAfter(authority.get())));
  }
  for (const auto& list : revoked_) {
    state.revocationsExpire =
        std::min(state.revocationsExpire, timeOf(X509_CRL_get0_nextUpdate(list.get())));
  }
  return state;
}

bool CertificateSet::accepts(std::string_view certificate, std::string_view chain) const {
  const X509Pointer leaf(
      PEM_read_bio_X509(reading(certificate).get(), nullptr, &noPassphrase, nullptr));
  const std::unique_ptr<STACK_OF(X509), decltype(&freeStack)> sent(sk_X509_new_null(), &freeStack);
  const auto bio = reading(chain);
  while (auto* const next = PEM_read_bio_X509(bio.get(), nullptr, &noPassphrase, nullptr))
    sk_X509_push(sent.get(), next);
  const std::unique_ptr<X509_STORE, FreeBy<X509_STORE_free>> store(X509_STORE_new());
  for (const auto& authority : authorities_)
    X509_STORE_add_cert(store.get(), authority.get());
  const std::unique_ptr<X509_STORE_CTX, FreeBy<X509_STORE_CTX_free>> check(X509_STORE_CTX_new());
  const bool accepted =
      leaf && X509_STORE_CTX_init(check.get(), store.get(), leaf.get(), sent.get()) == 1 &&
      X509_STORE_CTX_set_default(check.get(), "ssl_client") == 1 &&
      X509_verify_cert(check.get()) == 1;
  ERR_clear_error();
  return accepted && !isRevoked(certificate) && !isRevoked(chain);
}

bool CertificateSet::isRevoked(std::string_view certificates) const {
  if (revoked_.empty() || certificates.empty()) return false;
  const auto bio = reading(certificates);
  bool revoked = false;
  while (const X509Pointer certificate{
      PEM_read_bio_X509(bio.get(), nullptr, &noPassphrase, nullptr)}) {
    for (const auto& list : revoked_) {
      X509_REVOKED* entry = nullptr;
      revoked |= X509_NAME_cmp(X509_get_issuer_name(certificate.get()),
                               X509_CRL_get_issuer(list.get())) == 0 &&
                 X509_CRL_get0_by_cert(list.get(), &entry, certificate.get()) == 1;
    }
  }
  ERR_clear_error();
  return revoked;
}

}  // namespace VornSdkRpc
