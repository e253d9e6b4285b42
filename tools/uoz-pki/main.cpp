// uoz-pki: make the certificates of a bus and the broker's configuration.
//
//   uoz-pki init --dir D [--force]              CA and broker certificate
//   uoz-pki node --dir D --id N [--ua NAME]... [--group NAME]... [--dm-client]
//   uoz-pki broker-config --dir D --port P [--open-acl]   D/acl and D/mosquitto.conf
//   uoz-pki add --dir D --id N [...]            node, then the ACL again
//   uoz-pki doip-entity --dir D [--name N] [--host H]...   a DoIP entity's TLS certificate
#include <dirent.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <stdexcept>

#include "command_line.h"
#include "exit_codes.h"
#include "pki.h"
#include "terminal.h"

namespace {

using namespace uoztools;

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

// The broker reads its files from its own working directory: give it
// absolute paths.
std::string absolute(const std::string &path) {
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr)
        throw std::runtime_error("cannot find " + path + ": run 'uoz-pki init --dir " + path +
                                 "' first");
    return resolved;
}

void write_acl(const std::string &dir, uozpki::AclMode mode) {
    std::string acl = dir + "/acl";
    uozpki::write_text(acl, uozpki::acl_text(uozpki::read_nodes(dir, node_ids(dir)), mode));
}

void make_node(const std::string &dir, uozpki::NodeRequest node, bool no_reply_address) {
    bool addressless = node.update_agents.empty() && node.groups.empty() && !node.dm_client;
    if (addressless && !no_reply_address)
        node.update_agents.push_back(uozpki::default_reply_address(node.id));
    uozpki::create_node(dir, node);
    std::string addresses;
    for (const std::string &name : node.update_agents)
        addresses += " ua:" + name;
    for (const std::string &name : node.groups)
        addresses += " group:" + name;
    if (node.dm_client)
        addresses += " dm-client";
    printf("created node      %s/%s/cert.pem (addresses:%s)\n", dir.c_str(), node.id.c_str(),
           addresses.empty() ? " none: replies only on its reply route" : addresses.c_str());
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Make the certificates of a bus: CA, broker, node identities, broker "
        "configuration.\n"
        "Exit codes: 0 success, 1 cannot read or write the files, 2 invalid input or usage."};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("uoz-pki ") + project_version());
    app.footer(
        "--dir may come before or after the command. Nothing is overwritten without --force.\n"
        "The diagnostic agent needs --ua /ZDATA/UDS --group policy-agent; an application\n"
        "without addresses gets the reply address /uoz/<id>.\n\n"
        "Example:\n"
        "  uoz-pki init --dir pki\n"
        "  uoz-pki node --dir pki --id agent --ua /ZDATA/UDS --group policy-agent\n"
        "  uoz-pki node --dir pki --id app\n"
        "  uoz-pki broker-config --dir pki --port 8883\n"
        "  uoz-pki add --dir pki --id workshop    (then: kill -HUP <broker pid>)\n"
        "  uoz-pki doip-entity --dir pki          (then: uoz-ecusim --tls pki/doip/doip-entity)");
    std::string dir;
    app.add_option("--dir", dir, "PKI directory")->required();
    std::string ca_name = "udsoverzelko bus CA";
    bool force = false;
    auto *init = app.add_subcommand("init", "create the CA and the broker's certificate");
    init->add_option("--ca-name", ca_name, "the CA's common name")->capture_default_str();
    init->add_flag("--force", force,
                   "replace an existing CA (every identity it signed stops working)");

    uozpki::NodeRequest node;
    bool no_reply_address = false;
    auto node_options = [&](CLI::App *command) {
        command->add_option("--id", node.id, "node id (certificate CN)")->required();
        command->add_option("--ua", node.update_agents,
                            "update-agent address (repeatable); an application without any "
                            "address gets /uoz/<id>, where its replies arrive");
        command->add_option("--group", node.groups, "group address (repeatable)");
        command->add_flag("--dm-client", node.dm_client, "the device-management client address");
        command->add_flag(
            "--no-reply-address", no_reply_address,
            "give a node without addresses none (it receives only answers on its reply route)");
        command->add_flag("--force", node.force, "replace an existing identity");
        command->add_flag("--expired", node.expired, "make a certificate that has expired (tests)");
    };
    auto *node_cmd = app.add_subcommand("node", "create a node identity signed by the CA");
    node_options(node_cmd);
    auto *add = app.add_subcommand(
        "add", "create a node identity and rewrite the broker's ACL (then reload the broker)");
    node_options(add);

    int port = 8883;
    bool open_acl = false;
    auto *config = app.add_subcommand("broker-config", "write the broker's ACL and mosquitto.conf");
    config->add_option("--port", port, "listener port on 127.0.0.1")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    config->add_flag("--open-acl", open_acl,
                     "let every node send to every address (the default lets applications "
                     "exchange messages only with the diagnostic and policy agents)");

    uozpki::EntityRequest entity;
    auto *entity_cmd = app.add_subcommand(
        "doip-entity", "create the certificate a DoIP entity (uoz-ecusim --tls) serves TLS with");
    entity_cmd->add_option("--name", entity.name, "its directory under DIR/doip")
        ->capture_default_str();
    entity_cmd->add_option("--host", entity.hosts,
                           "host name or address testers connect to (repeatable; default: "
                           "localhost, 127.0.0.1, ::1)");
    entity_cmd->add_flag("--force", entity.force, "replace an existing certificate");
    entity_cmd->add_flag("--expired", entity.expired,
                         "make a certificate that has expired (tests)");

    uoztools::footer_only_at_top(app);
    if (int rc = uoztools::parse_command_line(app, argc, argv, "uoz-pki"); rc >= 0)
        return rc;
    try {
        if (init->parsed()) {
            uozpki::create_ca(dir, ca_name, force);
            dir = absolute(dir);
            printf("created CA        %s/ca/ca.pem\n", dir.c_str());
            uozpki::create_broker(dir);
            printf("created broker    %s/broker/cert.pem (localhost, 127.0.0.1, ::1)\n",
                   dir.c_str());
        } else if (node_cmd->parsed() || add->parsed()) {
            dir = absolute(dir);
            make_node(dir, node, no_reply_address);
            if (add->parsed()) {
                std::string acl = dir + "/acl";
                write_acl(dir, uozpki::acl_mode_of(acl));
                printf(
                    "wrote             %s\n"
                    "reload the broker so that it reads the new ACL: kill -HUP <broker pid> "
                    "(or systemctl reload mosquitto)\n",
                    acl.c_str());
            }
        } else if (entity_cmd->parsed()) {
            std::string made = uozpki::create_doip_entity(absolute(dir), entity);
            printf(
                "created entity    %s/cert.pem (serve it: uoz-ecusim --tls %s; testers check "
                "it with %s/ca/ca.pem)\n",
                made.c_str(), made.c_str(), absolute(dir).c_str());
        } else if (config->parsed()) {
            dir = absolute(dir);
            std::string acl = dir + "/acl";
            write_acl(dir, open_acl ? uozpki::AclMode::kOpen : uozpki::AclMode::kLeastPrivilege);
            uozpki::write_text(dir + "/mosquitto.conf", uozpki::broker_config_text(dir, port, acl));
            printf("wrote             %s/mosquitto.conf (port %d) and %s (%s)\n", dir.c_str(), port,
                   acl.c_str(), open_acl ? "open" : "least privilege");
        }
    } catch (const std::invalid_argument &error) {
        fprintf(stderr, "uoz-pki: %s\n", error.what());
        return kExitInvalidInput;
    } catch (const std::exception &error) {
        fprintf(stderr, "uoz-pki: %s\n", error.what());
        return kExitCannotStart;
    }
    return kExitOk;
}
