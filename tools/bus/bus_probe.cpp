#include "bus_probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

#include "identity.h"
#include "presence.h"

namespace uozbus {

namespace {

using Clock = std::chrono::steady_clock;

struct X509Free {
    void operator()(X509 *certificate) const { X509_free(certificate); }
};
struct CtxFree {
    void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
struct SslFree {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
};
using CertPtr = std::unique_ptr<X509, X509Free>;

CertPtr read_certificate(const std::string &path) {
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr)
        return nullptr;
    CertPtr certificate(PEM_read_X509(file, nullptr, nullptr, nullptr));
    fclose(file);
    return certificate;
}

std::string time_text(const ASN1_TIME *time) {
    struct tm calendar = {};
    char text[64] = "?";
    if (ASN1_TIME_to_tm(time, &calendar) == 1)
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M UTC", &calendar);
    return text;
}

int remaining_ms(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool wait_for(int fd, short events, Clock::time_point deadline) {
    pollfd entry{fd, events, 0};
    return poll(&entry, 1, remaining_ms(deadline)) == 1;
}

class Socket {
  public:
    ~Socket() {
        if (fd_ >= 0)
            close(fd_);
    }
    int fd() const { return fd_; }
    // Connects to the first address that accepts; the reason of the last
    // failure otherwise.
    std::string connect_to(addrinfo *addresses, Clock::time_point deadline) {
        std::string reason = "no address";
        for (addrinfo *address = addresses; address != nullptr; address = address->ai_next) {
            int fd = socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK, 0);
            if (fd < 0)
                continue;
            int rc = ::connect(fd, address->ai_addr, address->ai_addrlen);
            int error = rc == 0 ? 0 : errno;
            if (error == EINPROGRESS) {
                error = ETIMEDOUT;
                if (wait_for(fd, POLLOUT, deadline)) {
                    socklen_t size = sizeof(error);
                    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
                }
            }
            if (error == 0) {
                fd_ = fd;
                return "";
            }
            close(fd);
            reason = strerror(error);
        }
        return reason;
    }

  private:
    int fd_ = -1;
};

std::string ssl_error_text() {
    unsigned long error = ERR_get_error();
    if (error == 0)
        return "the broker closed the connection";
    char text[256];
    ERR_error_string_n(error, text, sizeof(text));
    const char *reason = ERR_reason_error_string(error);
    return reason != nullptr ? reason : text;
}

// Runs one TLS step (handshake, read or write) until it completes or the
// deadline passes.
template <typename Step>
int run_tls(SSL *ssl, int fd, Clock::time_point deadline, Step step) {
    for (;;) {
        int rc = step();
        if (rc > 0)
            return rc;
        int error = SSL_get_error(ssl, rc);
        short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                       : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                       : 0;
        if (events == 0 || !wait_for(fd, events, deadline))
            return events == 0 ? -1 : 0;
    }
}

// An MQTT 5 CONNECT with clean start, no will and no properties.
std::vector<unsigned char> connect_packet() {
    std::string client_id = "uoz-probe-" + std::to_string(getpid());
    // Protocol "MQTT" level 5, clean start, keep-alive 10 s, no properties.
    static const unsigned char kHeader[] = {0, 4, 'M', 'Q', 'T', 'T', 5, 0x02, 0, 10, 0};
    std::vector<unsigned char> packet;
    packet.push_back(0x10);
    packet.push_back(static_cast<unsigned char>(sizeof(kHeader) + 2 + client_id.size()));
    for (unsigned char byte : kHeader)
        packet.push_back(byte);
    packet.push_back(static_cast<unsigned char>(client_id.size() >> 8));
    packet.push_back(static_cast<unsigned char>(client_id.size() & 0xFF));
    for (char c : client_id)
        packet.push_back(static_cast<unsigned char>(c));
    return packet;
}

std::string connack_text(int reason) {
    switch (reason) {
        case 0x86:
            return "bad user name or password";
        case 0x87:
            return "not authorised";
        case 0x8A:
            return "banned";
        case 0x84:
            return "unsupported protocol version";
        case 0x85:
            return "client identifier not valid";
        case 0x88:
            return "server unavailable";
        case 0x89:
            return "server busy";
        default:
            return "reason 0x" + std::to_string(reason);
    }
}

SSL_CTX *client_context(const std::string &identity_dir, const std::string &host,
                        std::string *reason) {
    SSL_CTX *context = SSL_CTX_new(TLS_client_method());
    IdentityFiles files = identity_files(identity_dir);
    bool ok =
        context != nullptr && SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1 &&
        SSL_CTX_use_certificate_file(context, files.certificate.c_str(), SSL_FILETYPE_PEM) == 1 &&
        SSL_CTX_use_PrivateKey_file(context, files.private_key.c_str(), SSL_FILETYPE_PEM) == 1 &&
        SSL_CTX_check_private_key(context) == 1 &&
        SSL_CTX_load_verify_locations(context, files.ca.c_str(), nullptr) == 1;
    if (ok) {
        X509_VERIFY_PARAM *param = SSL_CTX_get0_param(context);
        unsigned char address[16];
        bool literal = inet_pton(AF_INET, host.c_str(), address) == 1 ||
                       inet_pton(AF_INET6, host.c_str(), address) == 1;
        ok = literal ? X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) == 1
                     : X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0) == 1;
    }
    if (!ok) {
        *reason = "cannot use the identity in " + identity_dir + ": " + ssl_error_text();
        SSL_CTX_free(context);
        return nullptr;
    }
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    return context;
}

// Asks for the presence records on the probe's session and reads until the
// broker has sent them all; unknown presence when it does not in time.
void ask_presence(SSL *ssl, int fd, const std::string &ca_path, Clock::time_point deadline,
                  ProbeResult *result) {
    std::vector<unsigned char> request = presence_request(), bytes;
    int rc = run_tls(ssl, fd, deadline, [&] {
        return SSL_write(ssl, request.data(), static_cast<int>(request.size()));
    });
    PresenceRecords presence;
    unsigned char chunk[4096];
    while (rc > 0 && !presence.complete) {
        rc = run_tls(ssl, fd, deadline, [&] { return SSL_read(ssl, chunk, sizeof(chunk)); });
        if (rc > 0) {
            bytes.insert(bytes.end(), chunk, chunk + rc);
            presence = parse_presence(bytes);
        }
    }
    result->presence_known = presence.complete && !presence.refused;
    if (result->presence_known)
        result->present = present_addresses(presence, ca_path);
}

// TLS handshake, CONNECT and CONNACK on a connected socket; then, when asked,
// who is present.
ProbeResult greet_broker(int fd, const std::string &host, const std::string &where,
                         const std::string &identity_dir, Clock::time_point deadline,
                         bool presence) {
    ProbeResult result;
    ERR_clear_error();
    std::unique_ptr<SSL_CTX, CtxFree> context(client_context(identity_dir, host, &result.reason));
    if (!context)
        return result;
    std::unique_ptr<SSL, SslFree> ssl(SSL_new(context.get()));
    SSL_set_fd(ssl.get(), fd);
    SSL_set_tlsext_host_name(ssl.get(), host.c_str());
    int rc = run_tls(ssl.get(), fd, deadline, [&] { return SSL_connect(ssl.get()); });
    long verify = SSL_get_verify_result(ssl.get());
    if (rc <= 0 && verify != X509_V_OK) {
        result.reason = "TLS verification of the broker's certificate failed: " +
                        std::string(X509_verify_cert_error_string(verify)) +
                        (verify == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
                                 verify == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT ||
                                 verify == X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN ||
                                 verify == X509_V_ERR_CERT_SIGNATURE_FAILURE
                             ? " (the broker's certificate is not from the CA in " +
                                   identity_files(identity_dir).ca + ")"
                             : "");
        return result;
    }
    if (rc <= 0) {
        result.reason = rc == 0 ? "TLS handshake with " + where + " timed out"
                                : "TLS handshake with " + where + " failed: " + ssl_error_text();
        return result;
    }
    std::vector<unsigned char> packet = connect_packet();
    rc = run_tls(ssl.get(), fd, deadline, [&] {
        return SSL_write(ssl.get(), packet.data(), static_cast<int>(packet.size()));
    });
    unsigned char connack[64];
    if (rc > 0) {
        rc = run_tls(ssl.get(), fd, deadline,
                     [&] { return SSL_read(ssl.get(), connack, sizeof(connack)); });
    }
    if (rc <= 0) {
        // With TLS 1.3 the broker checks the client's certificate after the
        // handshake: its refusal arrives here as an alert.
        result.reason = rc == 0 ? "the broker at " + where + " did not answer in time"
                                : "the broker at " + where + " refused this node's certificate (" +
                                      ssl_error_text() + ")";
        return result;
    }
    if (rc < 4 || connack[0] != 0x20) {
        result.reason = "the server at " + where + " does not speak MQTT 5";
        return result;
    }
    if (connack[3] != 0) {
        result.reason =
            "the broker at " + where + " refused the connection: " + connack_text(connack[3]);
        return result;
    }
    if (presence)
        ask_presence(ssl.get(), fd, identity_files(identity_dir).ca, deadline, &result);
    static const unsigned char kDisconnect[] = {0xE0, 0x00};
    SSL_write(ssl.get(), kDisconnect, sizeof(kDisconnect));
    SSL_shutdown(ssl.get());
    result.ok = true;
    return result;
}

}  // namespace

namespace {

// identity_problem() for the certificate read from files.certificate (null
// when it could not be read).
std::string problem_of(const IdentityFiles &files, X509 *certificate) {
    for (const std::string &path : {files.private_key, files.certificate, files.ca}) {
        if (access(path.c_str(), R_OK) != 0)
            return "cannot read " + path + ": " + strerror(errno);
    }
    const std::string &path = files.certificate;
    if (certificate == nullptr)
        return path + " is not a PEM certificate";
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0)
        return "the certificate " + path + " expired on " +
               time_text(X509_get0_notAfter(certificate));
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) {
        return "the certificate " + path + " is not valid before " +
               time_text(X509_get0_notBefore(certificate));
    }
    return "";
}

}  // namespace

std::string identity_problem(const std::string &identity_dir) {
    IdentityFiles files = identity_files(identity_dir);
    return problem_of(files, read_certificate(files.certificate).get());
}

IdentityFacts identity_facts(const std::string &identity_dir) {
    IdentityFiles files = identity_files(identity_dir);
    CertPtr certificate = read_certificate(files.certificate);
    IdentityFacts facts;
    facts.problem = problem_of(files, certificate.get());
    if (!certificate)
        return facts;
    bool reply_address = false;
    for (const std::string &uri : certificate_uris(certificate.get())) {
        reply_address = reply_address || uri.rfind("kt5:ua:", 0) == 0;
        if (facts.serving_address.empty() && (uri == kDiagnosticAgentUri || uri == kPolicyAgentUri))
            facts.serving_address = uri;
    }
    if (!reply_address) {
        facts.reply_address_warning =
            "the certificate " + files.certificate +
            " names no reply address (kt5:ua:...): replies reach this node only where the "
            "broker grants reply routes; make the identity with 'uoz-pki node --ua NAME'";
    }
    return facts;
}

namespace {

// A broker that drops the connection while the probe writes must end the
// probe, not the process: SIGPIPE is ignored while it runs.
class IgnoreBrokenPipe {
  public:
    IgnoreBrokenPipe() {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &saved_);
    }
    ~IgnoreBrokenPipe() { sigaction(SIGPIPE, &saved_, nullptr); }

  private:
    struct sigaction saved_ = {};
};

}  // namespace

ProbeResult probe_broker(const std::string &host, int port, const std::string &identity_dir,
                         int timeout_ms, bool presence) {
    IgnoreBrokenPipe ignore_broken_pipe;
    ProbeResult result;
    result.reason = identity_problem(identity_dir);
    if (!result.reason.empty())
        return result;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::string where = host + ":" + std::to_string(port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *addresses = nullptr;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &addresses);
    if (rc != 0) {
        result.reason = "cannot resolve the broker's name '" + host + "': " + gai_strerror(rc);
        return result;
    }
    Socket socket;
    std::string failure = socket.connect_to(addresses, deadline);
    freeaddrinfo(addresses);
    if (!failure.empty()) {
        result.reason = "cannot connect to the broker at " + where + ": " + failure;
        return result;
    }
    return greet_broker(socket.fd(), host, where, identity_dir, deadline, presence);
}

}  // namespace uozbus
