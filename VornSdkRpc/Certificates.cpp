#include <VornSdkRpc/Certificates.h>

#include <VornSdkRpc/CertificateSet.h>
#include <VornSdkRpc/FileWatch.h>
#include <VornSdkRpc/Withdrawal.h>
#include <fcntl.h>
#include <grpcpp/security/tls_certificate_provider.h>
#include <grpcpp/security/tls_certificate_verifier.h>
#include <grpcpp/security/tls_credentials_options.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vorn/error.h>
#include <vorn/mutex.h>
#include <vorn/tracer.h>

#include <cerrno>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>

namespace VornSdkRpc {

namespace {

namespace tls = grpc::experimental;
using std::chrono::system_clock;

const vorn::tracer& tracer() {
  static const auto* const made = new vorn::tracer("Certificates");
  return *made;
}

// ------------------------------------------------------------------------------------------------
// How gRPC is given the set

// A file in memory that is replaced as a whole: whoever opens path() reads one content or another,
// and sees by its time of change which. gRPC's watcher reads nothing but files, a key and its
// certificate one after the other, and looks at the times before and behind; a file of ours on a
// disk would be one more place where the key lies.
class SwitchedFile {
 public:
  explicit SwitchedFile(const std::string& contents) : fd_(made(contents, time_)) {}
  ~SwitchedFile() { close(fd_); }
  SwitchedFile(const SwitchedFile&) = delete;
  SwitchedFile& operator=(const SwitchedFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

  void contentsAre(const std::string& contents) {
    const int next = made(contents, ++time_);
    const bool switched = dup3(next, fd_, O_CLOEXEC) >= 0;
    const int error = errno;
    close(next);
    if (!switched) fail(error);
  }

 private:
  static int made(const std::string& contents, time_t time) {
    const int fd = memfd_create("certificates", MFD_CLOEXEC);
    if (fd < 0) fail(errno);
    const timespec times[] = {{time, 0}, {time, 0}};
    // NOLINTNEXTLINE(bugprone-narrowing-conversions): a size in memory is no larger
    if (write(fd, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()) ||
        futimens(fd, times) != 0) {
      const int error = errno;
      close(fd);
      fail(error);
    }
    return fd;
  }
  [[noreturn]] static void fail(int error) {
    throw std::system_error(error, std::generic_category(), "cannot hold certificates in memory");
  }

  time_t time_ = 1;  // in seconds, all that gRPC looks at
  const int fd_;
};

// The set in use.
class InUse {
 public:
  explicit InUse(std::shared_ptr<const CertificateSet> set) { setIs(std::move(set)); }

  void setIs(std::shared_ptr<const CertificateSet> set) {
    auto state = set->state();
    const vorn::lock_guard lock(mutex_);
    state.generation = state_.generation + 1;
    state.loaded = system_clock::now();
    state_ = std::move(state);
    set_ = std::move(set);
  }

  std::shared_ptr<const CertificateSet> set() const {
    const vorn::lock_guard lock(mutex_);
    return set_;
  }
  CertificateState state() const {
    const vorn::lock_guard lock(mutex_);
    return state_;
  }

 private:
  mutable vorn::mutex mutex_;
  std::shared_ptr<const CertificateSet> set_ VORN_GUARDED_BY(mutex_);
  CertificateState state_ VORN_GUARDED_BY(mutex_){};
};

// Fails the handshake of a certificate that has been revoked.
class Verifier : public tls::ExternalCertificateVerifier {
 public:
  explicit Verifier(std::shared_ptr<const InUse> inUse) : inUse_(std::move(inUse)) {}

  bool Verify(tls::TlsCustomVerificationCheckRequest* request, std::function<void(grpc::Status)>,
              grpc::Status* status) override {
    *status = {grpc::StatusCode::UNAUTHENTICATED, "the certificate has been revoked"};
    const auto isRevoked = [set = inUse_->set()](const grpc::string_ref& pem) {
      return set->isRevoked({pem.data(), pem.size()});
    };
    try {
      // On a server's side OpenSSL's chain of the peer is without the peer.
      if (!isRevoked(request->peer_cert()) && !isRevoked(request->peer_cert_full_chain()))
        *status = grpc::Status::OK;
    } catch (const std::exception& error) {
      *status = {grpc::StatusCode::UNAVAILABLE, error.what()};
    }
    return true;
  }
  void Cancel(tls::TlsCustomVerificationCheckRequest*) override {}

 private:
  const std::shared_ptr<const InUse> inUse_;
};

// ------------------------------------------------------------------------------------------------
// Warnings

class Expiry {
 public:
  explicit Expiry(std::chrono::hours warnBefore) : warnBefore_(warnBefore) {}

  // Traces what expires soon or has expired; once a day, and anew when something else is in use.
  void look(const CertificateFiles& files, const CertificateState& state) {
    const auto now = system_clock::now();
    if (state.generation == told_ && now < next_ && now + std::chrono::hours(24) >= next_) return;
    told_ = state.generation;
    next_ = now + std::chrono::hours(24);
    warn(files.certificate, state.expires, now);
    warn(files.authorities, state.authoritiesExpire, now);
    warn(files.revoked, state.revocationsExpire, now);
  }

 private:
  void warn(const std::string& file, CertificateState::Time expires,
            CertificateState::Time now) const {
    if (expires == CertificateState::Time::max() || expires - warnBefore_ > now) return;
    const auto hours = std::chrono::duration_cast<std::chrono::hours>(expires - now).count();
    if (expires <= now) {
      tracer().error("what %s held when it was last good has expired", file.c_str());
    } else {
      tracer().warn("%s expires in %lld hours", file.c_str(), static_cast<long long>(hours));
    }
  }

  const std::chrono::hours warnBefore_;
  std::uint64_t told_ = 0;
  CertificateState::Time next_;
};

}  // namespace

// ------------------------------------------------------------------------------------------------
// Certificates

class Certificates::Impl {
 public:
  Impl(CertificateFiles files, const CertificateOptions& options)
      : files_(std::move(files)),
        options_(options),
        used_(CertificateTexts::read(files_)),
        inUse_(std::make_shared<InUse>(std::make_shared<CertificateSet>(files_, used_))),
        identity_(inUse_->set()->identityPem()),
        authorities_(inUse_->set()->authoritiesPem()),
        expiry_(options.warnBefore) {
    expiry_.look(files_, inUse_->state());
    watch_.emplace(options.interval, [this] { look(true); });
  }

  std::shared_ptr<grpc::ServerCredentials> credentials(
      const std::shared_ptr<grpc::AuthMetadataProcessor>& processor) const {
    const auto path = identity_.path();
    const bool mutual = !files_.authorities.empty();
    tls::TlsServerCredentialsOptions options(std::make_shared<tls::FileWatcherCertificateProvider>(
        path, path, mutual ? authorities_.path() : "", 1));
    options.watch_identity_key_cert_pairs();
    if (mutual) {
      options.watch_root_certs();
      options.set_cert_request_type(options_.clientCertificateRequired
                                        ? GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY
                                        : GRPC_SSL_REQUEST_CLIENT_CERTIFICATE_AND_VERIFY);
#ifndef __clang_analyzer__  // which takes what gRPC's header hands on to its core for a leak
      options.set_certificate_verifier(
          tls::ExternalCertificateVerifier::Create<Verifier>(std::shared_ptr<const InUse>(inUse_)));
#endif
    }
    auto credentials = tls::TlsServerCredentials(options);
    if (mutual) {
      credentials->SetAuthMetadataProcessor(withdrawing(withdrawal_, processor));
    } else if (processor) {
      credentials->SetAuthMetadataProcessor(processor);
    }
    return credentials;
  }

  std::size_t withdraw() {
    const auto ended = withdrawal_->withdraw(inUse_->set());
    tracer().trace0("what is not accepted any more is withdrawn: %zu calls have ended", ended);
    return ended;
  }

  std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> interceptors() const {
    return tracking(withdrawal_);
  }

  // A change is taken when it is good; on the watch's thread, not before it has been seen twice.
  bool look(bool twice) {
    const vorn::lock_guard lock(mutex_);
    try {
      take(CertificateTexts::read(files_), twice);
    } catch (const vorn::configuration_error& error) {
      refused(error.what());
    } catch (const std::system_error& error) {
      refused(error.what());
    }
    expiry_.look(files_, inUse_->state());
    return error_.empty();
  }

  std::string error() const {
    const vorn::lock_guard lock(mutex_);
    return error_;
  }

  CertificateState state() const { return inUse_->state(); }

 private:
  void take(CertificateTexts texts, bool twice) VORN_REQUIRES(mutex_) {
    if (texts == used_) return error_.clear();
    const bool seen = texts == seen_;
    seen_ = texts;
    if (twice && !seen) return;
    auto set = std::make_shared<CertificateSet>(files_, texts);
    authorities_.contentsAre(set->authoritiesPem());
    identity_.contentsAre(set->identityPem());
    inUse_->setIs(std::move(set));
    used_ = std::move(texts);
    error_.clear();
    const auto state = inUse_->state();
    tracer().trace0("%s is in use: %s, serial %s", files_.certificate.c_str(),
                    state.subject.c_str(), state.serial.c_str());
  }

  // Tells once what is wrong, however often it is seen.
  void refused(const char* why) VORN_REQUIRES(mutex_) {
    if (error_ == why) return;
    error_ = why;
    tracer().error("the certificates stay as they were: %s", why);
  }

  const CertificateFiles files_;
  const CertificateOptions options_;
  mutable vorn::mutex mutex_;
  CertificateTexts used_ VORN_GUARDED_BY(mutex_);
  CertificateTexts seen_ VORN_GUARDED_BY(mutex_);
  std::string error_ VORN_GUARDED_BY(mutex_);
  const std::shared_ptr<InUse> inUse_;
  const std::shared_ptr<Withdrawal> withdrawal_ = std::make_shared<Withdrawal>();
  SwitchedFile identity_;
  SwitchedFile authorities_;
  Expiry expiry_ VORN_GUARDED_BY(mutex_);
  std::optional<FileWatch> watch_;  // last: its thread uses the others
};

Certificates::Certificates(CertificateFiles files, CertificateOptions options)
    : impl_(std::make_unique<Impl>(std::move(files), options)) {}

Certificates::~Certificates() = default;

std::shared_ptr<grpc::ServerCredentials> Certificates::credentials(
    std::shared_ptr<grpc::AuthMetadataProcessor> processor) const {
  return impl_->credentials(processor);
}

std::size_t Certificates::withdraw() { return impl_->withdraw(); }

std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> Certificates::interceptors()
    const {
  return impl_->interceptors();
}

bool Certificates::reload() { return impl_->look(false); }

std::string Certificates::error() const { return impl_->error(); }

CertificateState Certificates::state() const { return impl_->state(); }

}  // namespace VornSdkRpc
