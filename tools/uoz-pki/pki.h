// Certificates for a bus: a CA, the broker's certificate and node identities,
// laid out as the library reads them, and the broker's configuration.
#ifndef UOZ_TOOLS_PKI_H
#define UOZ_TOOLS_PKI_H

#include <string>
#include <vector>

namespace uozpki {

struct NodeRequest {
    std::string id;                          // certificate CN
    std::vector<std::string> update_agents;  // kt5:ua:<name>
    std::vector<std::string> groups;         // kt5:group:<name>
    bool dm_client = false;                  // kt5:special:dm-client
    bool expired = false;                    // valid until yesterday (for tests)
    bool force = false;                      // replace an existing identity
};

// A DoIP entity's certificate for its TLS port.
struct EntityRequest {
    std::string name = "doip-entity";  // its directory under <dir>/doip
    std::vector<std::string> hosts;    // names and addresses testers connect to
    bool expired = false;              // valid until yesterday (for tests)
    bool force = false;                // replace an existing certificate
};

struct NodeAddresses {
    std::string id;
    std::vector<std::string> read_topics;
    // The node's addresses as topic suffixes: "ua/ZDATA/UDS", "group/g", "dmc".
    std::vector<std::string> addresses;
    // Serves applications: the diagnostic agent (update agent /ZDATA/UDS) or
    // the policy agent (group policy-agent).
    bool serving = false;
};

// Least privilege: applications exchange messages with the serving nodes
// only, each way. Open: any node may send to any address (readers still
// receive only what is addressed to them).
enum class AclMode { kLeastPrivilege, kOpen };

// The update-agent address an application node gets when none is asked for:
// replies can only reach a node that has one.
std::string default_reply_address(const std::string &id);

// Letters, digits, '.', '_' and '-' only: the broker substitutes the id into
// its access rules, where '/', '+' and '#' would change their meaning.
bool valid_node_id(const std::string &id);
bool valid_address_name(const std::string &name);

// <dir>/ca/ca.pem and ca.key; throws std::invalid_argument when a CA is
// there already and force is false.
void create_ca(const std::string &pki_dir, const std::string &name, bool force = false);
// <dir>/broker/{cert,private}.pem for localhost, 127.0.0.1 and ::1.
void create_broker(const std::string &pki_dir);
// <dir>/<id>/{cert,private}.pem; throws std::invalid_argument for a bad id,
// or when the identity exists and node.force is false.
void create_node(const std::string &pki_dir, const NodeRequest &node);

// <dir>/doip/<name>/{cert,private}.pem, signed by the CA, for the hosts
// (localhost, 127.0.0.1 and ::1 when none are given); returns the directory.
// Throws std::invalid_argument for a bad name, or when it exists and
// entity.force is false.
std::string create_doip_entity(const std::string &pki_dir, const EntityRequest &entity);

std::vector<NodeAddresses> read_nodes(const std::string &pki_dir,
                                      const std::vector<std::string> &ids);
std::string acl_text(const std::vector<NodeAddresses> &nodes,
                     AclMode mode = AclMode::kLeastPrivilege);
// The mode an ACL file was written with (least privilege when unreadable).
AclMode acl_mode_of(const std::string &acl_path);
std::string broker_config_text(const std::string &pki_dir, int port, const std::string &acl_path);
void write_text(const std::string &path, const std::string &text);

}  // namespace uozpki

#endif
