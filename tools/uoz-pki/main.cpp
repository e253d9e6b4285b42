// uoz-pki: make the certificates of a bus and the broker's configuration.
//
//   uoz-pki init --dir D                       CA and broker certificate
//   uoz-pki node --dir D --id N [--ua NAME]... [--group NAME]... [--dm-client]
//   uoz-pki broker-config --dir D --port P     D/acl and D/mosquitto.conf
#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>

#include "pki.h"

namespace {

// Node identities are the directories that hold a cert.pem, except the broker's.
std::vector<std::string> node_ids(const std::string &pki_dir) {
    std::vector<std::string> ids;
    DIR *dir = opendir(pki_dir.c_str());
    if (dir == nullptr)
        throw std::runtime_error("cannot read " + pki_dir);
    while (dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == ".." || name == "ca" || name == "broker")
            continue;
        struct stat info;
        if (stat((pki_dir + "/" + name + "/cert.pem").c_str(), &info) == 0)
            ids.push_back(name);
    }
    closedir(dir);
    std::sort(ids.begin(), ids.end());
    return ids;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Make the certificates of a bus: CA, broker, node identities, broker configuration"};
    app.require_subcommand(1);
    std::string dir;
    std::string ca_name = "udsoverzelko bus CA";
    auto *init = app.add_subcommand("init", "create the CA and the broker's certificate");
    init->add_option("--dir", dir, "PKI directory")->required();
    init->add_option("--ca-name", ca_name, "the CA's common name");

    uozpki::NodeRequest node;
    auto *node_cmd = app.add_subcommand("node", "create a node identity signed by the CA");
    node_cmd->add_option("--dir", dir, "PKI directory")->required();
    node_cmd->add_option("--id", node.id, "node id (certificate CN)")->required();
    node_cmd->add_option("--ua", node.update_agents, "update-agent address (repeatable)");
    node_cmd->add_option("--group", node.groups, "group address (repeatable)");
    node_cmd->add_flag("--dm-client", node.dm_client, "the device-management client address");
    node_cmd->add_flag("--expired", node.expired, "make a certificate that has expired (tests)");

    int port = 8883;
    auto *config = app.add_subcommand("broker-config", "write the broker's ACL and mosquitto.conf");
    config->add_option("--dir", dir, "PKI directory")->required();
    config->add_option("--port", port, "listener port on 127.0.0.1")->check(CLI::Range(1, 65535));

    CLI11_PARSE(app, argc, argv);
    try {
        if (init->parsed()) {
            uozpki::create_ca(dir, ca_name);
            printf("created CA        %s/ca/ca.pem\n", dir.c_str());
            uozpki::create_broker(dir);
            printf("created broker    %s/broker/cert.pem (localhost, 127.0.0.1)\n", dir.c_str());
        } else if (node_cmd->parsed()) {
            uozpki::create_node(dir, node);
            printf("created node      %s/%s/cert.pem\n", dir.c_str(), node.id.c_str());
        } else if (config->parsed()) {
            std::string acl = dir + "/acl";
            uozpki::write_text(acl, uozpki::acl_text(uozpki::read_nodes(dir, node_ids(dir))));
            uozpki::write_text(dir + "/mosquitto.conf", uozpki::broker_config_text(dir, port, acl));
            printf("wrote             %s/mosquitto.conf (port %d) and %s\n", dir.c_str(), port,
                   acl.c_str());
        }
    } catch (const std::invalid_argument &error) {
        fprintf(stderr, "uoz-pki: %s\n", error.what());
        return 2;
    } catch (const std::exception &error) {
        fprintf(stderr, "uoz-pki: %s\n", error.what());
        return 1;
    }
    return 0;
}
