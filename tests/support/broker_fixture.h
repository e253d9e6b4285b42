// A real MQTT 5 broker for the tests, with the test PKI made by uoz-pki.
//
// mosquitto by default. $UOZ_TEST_BROKER, when set, is a shell command that
// runs another broker in its place (in the foreground, so that stop() and
// kill() reach it). It finds in its environment what it must serve:
//   UOZ_BROKER_PORT    the loopback port to listen on (TLS)
//   UOZ_BROKER_PKI     the test PKI: ca/, broker/ and the node identities
//   UOZ_BROKER_ACL     the access rules in mosquitto's ACL syntax
//   UOZ_BROKER_CONFIG  the whole mosquitto configuration, for reference
// Its output goes to mosquitto.log in the broker's work directory.
#ifndef UOZ_TESTS_BROKER_FIXTURE_H
#define UOZ_TESTS_BROKER_FIXTURE_H

#include <sys/types.h>

#include <string>

#include "kt5bus/kt5bus.h"

namespace uoztest {

// $UOZ_TEST_PKI: the PKI made once per test run.
std::string pki_dir();
// The PKI of another, unrelated CA ($UOZ_TEST_PKI-other).
std::string other_pki_dir();
std::string identity_dir(const std::string &node);

// One broker on a free loopback port, stopped and reaped on destruction.
class Broker {
  public:
    Broker();
    // With the access rules of acl_path instead of the test PKI's, and
    // extra_config appended to mosquitto's configuration (a later line
    // overrides an earlier one; other brokers ignore it).
    explicit Broker(const std::string &acl_path, const std::string &extra_config = "");
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string url() const;
    void stop();   // SIGTERM and wait
    void kill();   // SIGKILL and wait
    void start();  // (re)start on the same port and wait until it accepts

  private:
    void wait_until_accepting();

    std::string work_dir_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// Loads <dir>/private.pem, cert.pem and ../ca/ca.pem into an identity.
int load_identity(kt5bus_identity *identity, const std::string &dir);
void free_identity(kt5bus_identity *identity);

}  // namespace uoztest

#endif
