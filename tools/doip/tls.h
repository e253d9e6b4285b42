// DoIP over TLS (ISO 13400-2:2019, port 3496) for both sides (tools/doip,
// see stream.h): the tester's connection to a gateway that requires TLS,
// and the simulator's TLS port. OpenSSL 3 underneath; TLS 1.2 and 1.3 with
// OpenSSL's default cipher suites, the peer's certificate checked against a
// CA file, and client certificates where the entity asks for one.
#ifndef UOZ_TOOLS_DOIP_TLS_H
#define UOZ_TOOLS_DOIP_TLS_H

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "scoped_fd.h"
#include "stream.h"

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace uozdoip {

using TlsClock = std::chrono::steady_clock;

// PEM files of one side.
struct TlsFiles {
    std::string ca;           // the CA the peer's certificate must come from
    std::string certificate;  // our own; a tester's is offered only when the entity asks
    std::string private_key;  // its key
};

// One side's TLS configuration, shared by all its connections (thread-safe).
class TlsContext {
  public:
    // A tester: the gateway's certificate is checked against files.ca;
    // certificate and key are optional. nullptr with *error naming the file
    // that cannot be used.
    static std::shared_ptr<const TlsContext> for_tester(const TlsFiles &files, std::string *error);
    // An entity: its certificate and key; with files.ca, testers are asked
    // for a certificate, and one they present must come from that CA.
    static std::shared_ptr<const TlsContext> for_entity(const TlsFiles &files, std::string *error);
    ~TlsContext();
    TlsContext(const TlsContext &) = delete;
    TlsContext &operator=(const TlsContext &) = delete;

    SSL_CTX *get() const { return context_; }
    const TlsFiles &files() const { return files_; }

  private:
    TlsContext(SSL_CTX *context, TlsFiles files) : context_(context), files_(std::move(files)) {}
    SSL_CTX *context_;
    TlsFiles files_;
};

// TLS on a connected TCP socket, which it makes non-blocking and owns. The
// handshake (connect or accept) comes first, on the thread that will read.
class TlsStream : public Stream {
  public:
    TlsStream(std::shared_ptr<const TlsContext> context, uoztools::ScopedFd fd);
    ~TlsStream() override;

    // The tester's handshake: the gateway's certificate must come from the
    // CA and name peer_name (a host name or an IP address). False with
    // *error saying which check failed; `who` names the gateway in it.
    bool connect(const std::string &peer_name, const std::string &who,
                 TlsClock::time_point deadline, std::string *error);
    // The entity's handshake. False with *error saying why.
    bool accept(TlsClock::time_point deadline, std::string *error);
    // "TLSv1.3 TLS_AES_256_GCM_SHA384", after the handshake.
    std::string description() const;

    int fd() const override { return fd_.get(); }
    bool write_all(const uint8_t *bytes, size_t length) override;
    long read_some(uint8_t *buffer, size_t size) override;
    bool buffered() const override;
    void shutdown() override;
    std::string failure() const override;
    bool peer_authenticated() const override { return peer_authenticated_; }

  private:
    template <typename Step>
    bool handshake(Step step, const std::string &who, TlsClock::time_point deadline,
                   std::string *error);

    std::shared_ptr<const TlsContext> context_;
    uoztools::ScopedFd fd_;
    SSL *ssl_ = nullptr;
    mutable std::mutex ssl_lock_;  // OpenSSL's SSL object takes one call at a time
    std::mutex write_lock_;        // one write (maybe waiting for room) at a time
    std::string failure_;          // under ssl_lock_
    bool peer_authenticated_ = false;
};

}  // namespace uozdoip

#endif
