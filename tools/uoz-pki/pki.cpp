#include "pki.h"

#include <arpa/inet.h>
#include <errno.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace uozpki {

namespace {

struct KeyFree {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
};
struct CertFree {
    void operator()(X509 *certificate) const { X509_free(certificate); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;
using CertPtr = std::unique_ptr<X509, CertFree>;

[[noreturn]] void fail(const std::string &what) {
    unsigned long error = ERR_get_error();
    char text[256] = "";
    if (error != 0)
        ERR_error_string_n(error, text, sizeof(text));
    throw std::runtime_error(what + (error != 0 ? std::string(": ") + text : ""));
}

KeyPtr new_key() {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key)
        fail("cannot generate a key");
    return key;
}

// Creates the directory and any missing parents, as "mkdir -p" does.
void make_directory(const std::string &path) {
    size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash > 0) {
        struct stat info;
        std::string parent = path.substr(0, slash);
        if (stat(parent.c_str(), &info) != 0)
            make_directory(parent);
    }
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot create directory " + path + ": " + strerror(errno));
    }
}

void write_key(const std::string &path, EVP_PKEY *key) {
    FILE *file = fopen(path.c_str(), "w");
    if (file == nullptr)
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    // The broker and test processes may run as other users: keep keys readable
    // by the owner's group only where the directory allows; tests run as root.
    chmod(path.c_str(), 0640);
    bool ok = PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    fclose(file);
    if (!ok)
        fail("cannot write key " + path);
}

void write_certificate(const std::string &path, X509 *certificate) {
    FILE *file = fopen(path.c_str(), "w");
    if (file == nullptr)
        throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    bool ok = PEM_write_X509(file, certificate) == 1;
    fclose(file);
    if (!ok)
        fail("cannot write certificate " + path);
}

// A PEM object read with `read` (PEM_read_PrivateKey, PEM_read_X509);
// what_failed names it when the file holds none.
template <typename Owned, typename Read>
Owned read_pem(const std::string &path, Read read, const char *what_failed) {
    FILE *file = fopen(path.c_str(), "r");
    if (file == nullptr)
        throw std::runtime_error("cannot read " + path + ": run 'uoz-pki init' first");
    Owned object(read(file, nullptr, nullptr, nullptr));
    fclose(file);
    if (!object)
        fail(what_failed + path);
    return object;
}

KeyPtr read_key(const std::string &path) {
    return read_pem<KeyPtr>(path, PEM_read_PrivateKey, "cannot read key ");
}

CertPtr read_certificate(const std::string &path) {
    return read_pem<CertPtr>(path, PEM_read_X509, "cannot read certificate ");
}

void add_extension(X509 *certificate, X509V3_CTX *context, int nid, const std::string &value) {
    X509_EXTENSION *extension = X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str());
    if (extension == nullptr)
        fail("bad certificate extension " + value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

struct CertificateRequest {
    std::string common_name;
    std::string alt_names;  // subjectAltName value, empty for none
    bool is_ca = false;
    long valid_from_seconds = -60;  // relative to now
    long valid_days = 825;
};

// Issues a certificate for key, signed by issuer_key (self-signed without issuer).
CertPtr issue(const CertificateRequest &request, EVP_PKEY *key, X509 *issuer,
              EVP_PKEY *issuer_key) {
    CertPtr certificate(X509_new());
    if (!certificate)
        fail("cannot create a certificate");
    X509_set_version(certificate.get(), 2);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof(serial));
    serial[0] &= 0x7F;
    BIGNUM *number = BN_bin2bn(serial, sizeof(serial), nullptr);
    BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get()));
    BN_free(number);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), request.valid_from_seconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), request.valid_days * 86400L);
    X509_NAME *name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("udsoverzelko"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(request.common_name.c_str()),
                               -1, -1, 0);
    X509_set_issuer_name(certificate.get(),
                         issuer != nullptr ? X509_get_subject_name(issuer) : name);
    X509_set_pubkey(certificate.get(), key);
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer != nullptr ? issuer : certificate.get(), certificate.get(),
                   nullptr, nullptr, 0);
    add_extension(certificate.get(), &context, NID_basic_constraints,
                  request.is_ca ? "critical,CA:TRUE" : "CA:FALSE");
    add_extension(
        certificate.get(), &context, NID_key_usage,
        request.is_ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyAgreement");
    add_extension(certificate.get(), &context, NID_subject_key_identifier, "hash");
    if (!request.is_ca) {
        add_extension(certificate.get(), &context, NID_ext_key_usage, "serverAuth,clientAuth");
    }
    if (!request.alt_names.empty()) {
        add_extension(certificate.get(), &context, NID_subject_alt_name, request.alt_names);
    }
    if (X509_sign(certificate.get(), issuer_key != nullptr ? issuer_key : key, EVP_sha256()) == 0) {
        fail("cannot sign the certificate of " + request.common_name);
    }
    return certificate;
}

void write_identity(const std::string &directory, const CertificateRequest &request,
                    const std::string &pki_dir) {
    KeyPtr ca_key = read_key(pki_dir + "/ca/ca.key");
    CertPtr ca = read_certificate(pki_dir + "/ca/ca.pem");
    KeyPtr key = new_key();
    CertPtr certificate = issue(request, key.get(), ca.get(), ca_key.get());
    make_directory(directory);
    write_key(directory + "/private.pem", key.get());
    write_certificate(directory + "/cert.pem", certificate.get());
}

bool exists(const std::string &path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0;
}

void refuse_to_replace(const std::string &path, bool force, const std::string &why) {
    if (!force && exists(path))
        throw std::invalid_argument(path + " exists: " + why + "; add --force to replace it");
}

const char kDiagnosticAgentAddress[] = "ua/ZDATA/UDS";
const char kPolicyAgentAddress[] = "group/policy-agent";
const char kOpenMarker[] = "# mode: open\n";
// A connection reads the answers on its own reply route only, so that two
// processes of one node never take each other's answers; writing to the bare
// route, where nobody listens, tells the client that the route is granted.
const char kReplyRouteRule[] =
    "pattern read kt5/reply/%u/%c/#\n"
    "pattern write kt5/reply/%u/%c\n";

void write_least_privilege(std::ostringstream &acl, const std::vector<NodeAddresses> &nodes) {
    acl << "# Least privilege: an application exchanges messages only with the nodes that\n"
        << "# serve it (update agent /ZDATA/UDS, group policy-agent), and those only with\n"
        << "# the applications.\n"
        << "pattern write kt5/presence/%u/#\n"
        << kReplyRouteRule;
    for (const NodeAddresses &node : nodes) {
        acl << "\nuser " << node.id << "\n"
            << "topic read kt5/presence/#\n";
        for (const NodeAddresses &peer : nodes) {
            if (peer.serving == node.serving)
                continue;
            for (const std::string &address : node.addresses)
                acl << "topic read kt5/msg/" << peer.id << "/" << address << "\n";
            for (const std::string &address : peer.addresses)
                acl << "topic write kt5/msg/" << node.id << "/" << address << "\n";
            if (node.serving)
                acl << "topic write kt5/reply/" << peer.id << "/+/" << node.id << "\n";
        }
    }
}

void write_open(std::ostringstream &acl, const std::vector<NodeAddresses> &nodes) {
    acl << kOpenMarker << "pattern write kt5/msg/%u/#\n"
        << "pattern write kt5/presence/%u/#\n"
        << kReplyRouteRule;
    for (const NodeAddresses &node : nodes) {
        acl << "\nuser " << node.id << "\n"
            << "topic read kt5/presence/#\n";
        for (const std::string &topic : node.read_topics)
            acl << "topic read " << topic << "\n";
        // Only the serving nodes answer on others' reply routes.
        if (node.serving)
            acl << "topic write kt5/reply/+/+/" << node.id << "\n";
    }
}

}  // namespace

std::string default_reply_address(const std::string &id) {
    return "/uoz/" + id;
}

bool valid_node_id(const std::string &id) {
    if (id.empty())
        return false;
    for (char c : id) {
        bool allowed = isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
        if (!allowed)
            return false;
    }
    return true;
}

bool valid_address_name(const std::string &name) {
    return !name.empty() && name.find_first_of("+#,\n") == std::string::npos;
}

void create_ca(const std::string &pki_dir, const std::string &name, bool force) {
    refuse_to_replace(pki_dir + "/ca/ca.pem", force,
                      "init would replace the CA and so invalidate every identity it signed");
    make_directory(pki_dir);
    make_directory(pki_dir + "/ca");
    KeyPtr key = new_key();
    CertificateRequest request;
    request.common_name = name;
    request.is_ca = true;
    request.valid_days = 3650;
    CertPtr certificate = issue(request, key.get(), nullptr, nullptr);
    write_key(pki_dir + "/ca/ca.key", key.get());
    write_certificate(pki_dir + "/ca/ca.pem", certificate.get());
}

void create_broker(const std::string &pki_dir) {
    CertificateRequest request;
    request.common_name = "localhost";
    request.alt_names = "DNS:localhost,IP:127.0.0.1,IP:::1";
    write_identity(pki_dir + "/broker", request, pki_dir);
}

void create_node(const std::string &pki_dir, const NodeRequest &node) {
    if (!valid_node_id(node.id)) {
        throw std::invalid_argument("invalid node id '" + node.id +
                                    "': use only letters, digits, '.', '_' and '-'");
    }
    std::string alt_names;
    auto add = [&](const std::string &uri) {
        alt_names += (alt_names.empty() ? "URI:" : ",URI:") + uri;
    };
    for (const std::string &name : node.update_agents) {
        if (!valid_address_name(name))
            throw std::invalid_argument("invalid address name '" + name + "'");
        add("kt5:ua:" + name);
    }
    for (const std::string &name : node.groups) {
        if (!valid_address_name(name))
            throw std::invalid_argument("invalid group name '" + name + "'");
        add("kt5:group:" + name);
    }
    if (node.dm_client)
        add("kt5:special:dm-client");
    refuse_to_replace(pki_dir + "/" + node.id + "/cert.pem", node.force,
                      "node would replace this identity");
    CertificateRequest request;
    request.common_name = node.id;
    request.alt_names = alt_names;
    if (node.expired) {
        request.valid_from_seconds = -2 * 86400L;
        request.valid_days = -1;
    }
    write_identity(pki_dir + "/" + node.id, request, pki_dir);
}

std::string create_doip_entity(const std::string &pki_dir, const EntityRequest &entity) {
    if (!valid_node_id(entity.name)) {
        throw std::invalid_argument("invalid entity name '" + entity.name +
                                    "': use only letters, digits, '.', '_' and '-'");
    }
    std::vector<std::string> hosts = entity.hosts;
    if (hosts.empty())
        hosts = {"localhost", "127.0.0.1", "::1"};
    CertificateRequest request;
    request.common_name = hosts.front();
    for (const std::string &host : hosts) {
        unsigned char address[16];
        bool ip = inet_pton(AF_INET, host.c_str(), address) == 1 ||
                  inet_pton(AF_INET6, host.c_str(), address) == 1;
        if (!ip && (host.empty() || host.find_first_of(", \n") != std::string::npos))
            throw std::invalid_argument("invalid host name '" + host + "'");
        request.alt_names +=
            (request.alt_names.empty() ? "" : ",") + std::string(ip ? "IP:" : "DNS:") + host;
    }
    if (entity.expired) {
        request.valid_from_seconds = -2 * 86400L;
        request.valid_days = -1;
    }
    std::string directory = pki_dir + "/doip/" + entity.name;
    refuse_to_replace(directory + "/cert.pem", entity.force,
                      "it would replace this entity's certificate");
    write_identity(directory, request, pki_dir);
    return directory;
}

std::string acl_text(const std::vector<NodeAddresses> &nodes, AclMode mode) {
    std::ostringstream acl;
    acl << "# Written by uoz-pki from the node certificates.\n";
    if (mode == AclMode::kOpen)
        write_open(acl, nodes);
    else
        write_least_privilege(acl, nodes);
    return acl.str();
}

AclMode acl_mode_of(const std::string &acl_path) {
    std::ifstream file(acl_path);
    std::string line;
    while (std::getline(file, line)) {
        if (line + "\n" == kOpenMarker)
            return AclMode::kOpen;
    }
    return AclMode::kLeastPrivilege;
}

std::string broker_config_text(const std::string &pki_dir, int port, const std::string &acl_path) {
    std::ostringstream conf;
    conf << "# Written by uoz-pki.\n"
         << "per_listener_settings false\n"
         << "allow_anonymous false\n"
         << "persistence false\n"
         << "acl_file " << acl_path << "\n"
         << "user root\n"
         << "listener " << port << " 127.0.0.1\n"
         << "cafile " << pki_dir << "/ca/ca.pem\n"
         << "certfile " << pki_dir << "/broker/cert.pem\n"
         << "keyfile " << pki_dir << "/broker/private.pem\n"
         << "require_certificate true\n"
         << "use_identity_as_username true\n"
         << "set_tcp_nodelay true\n"
         // A node's inbox: QoS 1 messages the broker holds for a slow reader
         // before it drops new ones (the default of 1000 loses answers under
         // a flood of stray messages).
         << "max_queued_messages 20000\n";
    return conf.str();
}

std::vector<NodeAddresses> read_nodes(const std::string &pki_dir,
                                      const std::vector<std::string> &ids) {
    std::vector<NodeAddresses> nodes;
    for (const std::string &id : ids) {
        CertPtr certificate = read_certificate(pki_dir + "/" + id + "/cert.pem");
        NodeAddresses node;
        node.id = id;
        GENERAL_NAMES *names = static_cast<GENERAL_NAMES *>(
            X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr));
        for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
            const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
            if (name->type != GEN_URI)
                continue;
            std::string uri(reinterpret_cast<const char *>(
                                ASN1_STRING_get0_data(name->d.uniformResourceIdentifier)),
                            ASN1_STRING_length(name->d.uniformResourceIdentifier));
            std::string address;
            if (uri.rfind("kt5:ua:", 0) == 0) {
                std::string agent = uri.substr(7);
                address = "ua" + (agent[0] == '/' ? agent : "/" + agent);
            } else if (uri.rfind("kt5:group:", 0) == 0) {
                address = "group/" + uri.substr(10);
            } else if (uri == "kt5:special:dm-client") {
                address = "dmc";
            }
            if (address.empty())
                continue;
            node.read_topics.push_back("kt5/msg/+/" + address);
            node.addresses.push_back(address);
            node.serving = node.serving || address == kDiagnosticAgentAddress ||
                           address == kPolicyAgentAddress;
        }
        GENERAL_NAMES_free(names);
        nodes.push_back(node);
    }
    return nodes;
}

void write_text(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text;
    if (!file)
        throw std::runtime_error("cannot write " + path);
}

}  // namespace uozpki
