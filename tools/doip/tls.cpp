#include "tls.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <climits>

namespace uozdoip {

namespace {

// OpenSSL writes with write(), which raises SIGPIPE when the peer is gone:
// the writing thread blocks the signal and takes a pending one away before
// it unblocks, so that a gone peer is a failed write, not a killed process.
class SigpipeBlocked {
  public:
    SigpipeBlocked() {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, &saved_);
    }
    ~SigpipeBlocked() {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        if (sigismember(&pending, SIGPIPE) == 1 && sigismember(&saved_, SIGPIPE) == 0) {
            timespec now{0, 0};
            sigtimedwait(&pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }

  private:
    sigset_t saved_;
};

int remaining_ms(TlsClock::time_point deadline) {
    if (deadline == TlsClock::time_point::max())
        return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - TlsClock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
}

// Waits for the socket to be ready for what OpenSSL asked; false at the
// deadline or when the wait fails.
bool wait_for(int fd, int ssl_error, TlsClock::time_point deadline) {
    pollfd entry{fd, static_cast<short>(ssl_error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
    for (;;) {
        int ready = poll(&entry, 1, remaining_ms(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        return ready > 0;
    }
}

// The reason of OpenSSL's last error (an alert from the peer, a refused
// file), or `otherwise`.
std::string openssl_reason(const std::string &otherwise) {
    unsigned long error = ERR_get_error();
    ERR_clear_error();
    if (error == 0)
        return otherwise;
    if (ERR_SYSTEM_ERROR(error))  // a file that cannot be opened, a socket error
        return strerror(ERR_GET_REASON(error));
    const char *reason = ERR_reason_error_string(error);
    if (reason != nullptr)
        return reason;
    char text[256];
    ERR_error_string_n(error, text, sizeof(text));
    return text;
}

bool is_ip_address(const std::string &name) {
    unsigned char address[16];
    return inet_pton(AF_INET, name.c_str(), address) == 1 ||
           inet_pton(AF_INET6, name.c_str(), address) == 1;
}

bool not_from_the_ca(long verify) {
    return verify == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
           verify == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT ||
           verify == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
           verify == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ||
           verify == X509_V_ERR_CERT_SIGNATURE_FAILURE;
}

// Which check of the peer's certificate failed, and what that means here.
std::string verification_text(long verify, const std::string &whose, const std::string &ca,
                              const std::string &peer_name) {
    std::string text =
        "TLS verification of " + whose + " failed: " + X509_verify_cert_error_string(verify);
    if (not_from_the_ca(verify))
        text += " (the certificate is not from the CA in " + ca + ")";
    if (verify == X509_V_ERR_HOSTNAME_MISMATCH || verify == X509_V_ERR_IP_ADDRESS_MISMATCH)
        text += " (the certificate does not name " + peer_name + ")";
    return text;
}

struct ContextFree {
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using ContextPtr = std::unique_ptr<SSL_CTX, ContextFree>;

// TLS 1.2 or later, no renegotiation; a peer that closes without a TLS
// close_notify ends the stream like one that sends it.
ContextPtr new_context(const SSL_METHOD *method) {
    ContextPtr context(SSL_CTX_new(method));
    if (context) {
        SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
        SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
        SSL_CTX_set_mode(context.get(), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    }
    return context;
}

// Our certificate and its key; "" or the reason they cannot be used.
std::string use_identity(SSL_CTX *context, const TlsFiles &files) {
    if (SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str()) != 1)
        return "cannot use the certificate " + files.certificate + ": " +
               openssl_reason("unreadable");
    if (SSL_CTX_use_PrivateKey_file(context, files.private_key.c_str(), SSL_FILETYPE_PEM) != 1)
        return "cannot use the key " + files.private_key + ": " + openssl_reason("unreadable");
    if (SSL_CTX_check_private_key(context) != 1)
        return "the key " + files.private_key + " does not belong to " + files.certificate;
    return "";
}

std::string use_ca(SSL_CTX *context, const TlsFiles &files) {
    if (SSL_CTX_load_verify_locations(context, files.ca.c_str(), nullptr) != 1)
        return "cannot use the CA " + files.ca + ": " + openssl_reason("unreadable");
    return "";
}

}  // namespace

std::shared_ptr<const TlsContext> TlsContext::for_tester(const TlsFiles &files,
                                                         std::string *error) {
    ERR_clear_error();
    ContextPtr context = new_context(TLS_client_method());
    if (!context) {
        *error = "cannot make a TLS context: " + openssl_reason("out of memory");
        return nullptr;
    }
    *error = use_ca(context.get(), files);
    if (error->empty() && !files.certificate.empty())
        *error = use_identity(context.get(), files);
    if (!error->empty())
        return nullptr;
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    return std::shared_ptr<const TlsContext>(new TlsContext(context.release(), files));
}

std::shared_ptr<const TlsContext> TlsContext::for_entity(const TlsFiles &files,
                                                         std::string *error) {
    ERR_clear_error();
    ContextPtr context = new_context(TLS_server_method());
    if (!context) {
        *error = "cannot make a TLS context: " + openssl_reason("out of memory");
        return nullptr;
    }
    *error = use_identity(context.get(), files);
    if (error->empty() && !files.ca.empty()) {
        *error = use_ca(context.get(), files);
        STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(files.ca.c_str());
        if (names != nullptr)
            SSL_CTX_set_client_CA_list(context.get(), names);
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    }
    if (!error->empty())
        return nullptr;
    SSL_CTX_set_num_tickets(context.get(), 0);  // no session resumption: nothing to hand out
    return std::shared_ptr<const TlsContext>(new TlsContext(context.release(), files));
}

TlsContext::~TlsContext() {
    SSL_CTX_free(context_);
}

TlsStream::TlsStream(std::shared_ptr<const TlsContext> context, uoztools::ScopedFd fd)
    : context_(std::move(context)), fd_(std::move(fd)) {
    int flags = fcntl(fd_.get(), F_GETFL);
    fcntl(fd_.get(), F_SETFL, flags | O_NONBLOCK);
    ssl_ = SSL_new(context_->get());
    if (ssl_ != nullptr)
        SSL_set_fd(ssl_, fd_.get());
}

TlsStream::~TlsStream() {
    SSL_free(ssl_);
}

template <typename Step>
bool TlsStream::handshake(Step step, const std::string &who, TlsClock::time_point deadline,
                          std::string *error) {
    if (ssl_ == nullptr) {
        *error = "cannot start TLS: " + openssl_reason("out of memory");
        return false;
    }
    std::lock_guard<std::mutex> hold(ssl_lock_);
    SigpipeBlocked quiet;
    ERR_clear_error();
    for (;;) {
        errno = 0;
        int rc = step();
        if (rc == 1)
            return true;
        int code = SSL_get_error(ssl_, rc);
        if (code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE) {
            *error = "TLS handshake with " + who + " failed: " +
                     openssl_reason(code == SSL_ERROR_SYSCALL && errno != 0
                                        ? strerror(errno)
                                        : "the peer closed the connection");
            return false;
        }
        if (!wait_for(fd_.get(), code, deadline)) {
            *error = "TLS handshake with " + who + " timed out";
            return false;
        }
    }
}

bool TlsStream::connect(const std::string &peer_name, const std::string &who,
                        TlsClock::time_point deadline, std::string *error) {
    if (ssl_ != nullptr) {
        X509_VERIFY_PARAM *check = SSL_get0_param(ssl_);
        if (is_ip_address(peer_name)) {
            X509_VERIFY_PARAM_set1_ip_asc(check, peer_name.c_str());
        } else {
            SSL_set_tlsext_host_name(ssl_, peer_name.c_str());
            X509_VERIFY_PARAM_set1_host(check, peer_name.c_str(), 0);
        }
    }
    if (handshake([this] { return SSL_connect(ssl_); }, who, deadline, error))
        return true;
    long verify = SSL_get_verify_result(ssl_);
    if (verify != X509_V_OK)
        *error =
            verification_text(verify, "the certificate of " + who, context_->files().ca, peer_name);
    return false;
}

bool TlsStream::accept(TlsClock::time_point deadline, std::string *error) {
    if (!handshake([this] { return SSL_accept(ssl_); }, "the tester", deadline, error)) {
        long verify = SSL_get_verify_result(ssl_);
        if (verify != X509_V_OK)
            *error =
                verification_text(verify, "the tester's certificate", context_->files().ca, "");
        return false;
    }
    peer_authenticated_ =
        SSL_get0_peer_certificate(ssl_) != nullptr && SSL_get_verify_result(ssl_) == X509_V_OK;
    return true;
}

std::string TlsStream::description() const {
    std::lock_guard<std::mutex> hold(ssl_lock_);
    return std::string(SSL_get_version(ssl_)) + " " + SSL_get_cipher_name(ssl_);
}

bool TlsStream::write_all(const uint8_t *bytes, size_t length) {
    std::lock_guard<std::mutex> one_writer(write_lock_);
    SigpipeBlocked quiet;
    while (length > 0) {
        int chunk = static_cast<int>(std::min<size_t>(length, INT_MAX));
        int code = SSL_ERROR_NONE;
        int written;
        {
            std::lock_guard<std::mutex> hold(ssl_lock_);
            ERR_clear_error();
            errno = 0;
            written = SSL_write(ssl_, bytes, chunk);
            if (written <= 0) {
                code = SSL_get_error(ssl_, written);
                if (code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE)
                    failure_ = openssl_reason(errno != 0 ? strerror(errno) : "write failed");
            }
        }
        if (written > 0) {
            bytes += written;
            length -= static_cast<size_t>(written);
            continue;
        }
        // Retried with the same bytes once the socket has room.
        if ((code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE) ||
            !wait_for(fd_.get(), code, TlsClock::time_point::max()))
            return false;
    }
    return true;
}

long TlsStream::read_some(uint8_t *buffer, size_t size) {
    for (;;) {
        int code = SSL_ERROR_NONE;
        int got;
        {
            std::lock_guard<std::mutex> hold(ssl_lock_);
            ERR_clear_error();
            errno = 0;
            got = SSL_read(ssl_, buffer, static_cast<int>(std::min<size_t>(size, INT_MAX)));
            if (got <= 0) {
                code = SSL_get_error(ssl_, got);
                if (code == SSL_ERROR_SSL || code == SSL_ERROR_SYSCALL)
                    failure_ = openssl_reason(errno != 0 ? strerror(errno) : "read failed");
            }
        }
        if (got > 0)
            return got;
        if (code == SSL_ERROR_ZERO_RETURN)
            return 0;
        if (code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE)
            return -1;
        if (!wait_for(fd_.get(), code, TlsClock::time_point::max()))
            return -1;
    }
}

bool TlsStream::buffered() const {
    std::lock_guard<std::mutex> hold(ssl_lock_);
    return SSL_pending(ssl_) > 0;
}

void TlsStream::shutdown() {
    ::shutdown(fd_.get(), SHUT_RDWR);
}

std::string TlsStream::failure() const {
    std::lock_guard<std::mutex> hold(ssl_lock_);
    return failure_;
}

}  // namespace uozdoip
