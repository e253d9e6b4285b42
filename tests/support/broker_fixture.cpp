#include "broker_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "identity.h"
#include "pki.h"
#include "processes.h"

namespace uoztest {

namespace {

bool accepts(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return ok;
}

}  // namespace

std::string pki_dir() {
    const char *dir = getenv("UOZ_TEST_PKI");
    if (dir == nullptr)
        throw std::runtime_error("UOZ_TEST_PKI is not set: run the tests with ctest");
    return dir;
}

std::string other_pki_dir() {
    return pki_dir() + "-other";
}

std::string identity_dir(const std::string &node) {
    return pki_dir() + "/" + node;
}

Broker::Broker() : Broker(pki_dir() + "/acl") {}

Broker::Broker(const std::string &acl_path, const std::string &extra_config) {
    char work[] = "/tmp/uoz-broker-XXXXXX";
    if (mkdtemp(work) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    work_dir_ = work;
    port_ = free_loopback_port();
    std::string pki = pki_dir();
    uozpki::write_text(work_dir_ + "/mosquitto.conf",
                       uozpki::broker_config_text(pki, port_, acl_path) + extra_config);
    start();
}

Broker::~Broker() {
    stop();
    std::string conf = work_dir_ + "/mosquitto.conf", log = work_dir_ + "/mosquitto.log";
    unlink(conf.c_str());
    unlink(log.c_str());
    rmdir(work_dir_.c_str());
}

std::string Broker::url() const {
    return "tcp://localhost:" + std::to_string(port_);
}

// The broker dies with the test process, even when a sanitizer ends it without
// running destructors. $UOZ_TEST_BROKER replaces mosquitto: see the header.
void Broker::start() {
    if (pid_ > 0)
        return;
    std::string conf = work_dir_ + "/mosquitto.conf";
    std::string log = work_dir_ + "/mosquitto.log";
    const char *command = getenv("UOZ_TEST_BROKER");
    std::string shell_command = command != nullptr ? std::string("exec ") + command : "";
    setenv("UOZ_BROKER_CONFIG", conf.c_str(), 1);
    setenv("UOZ_BROKER_PORT", std::to_string(port_).c_str(), 1);
    setenv("UOZ_BROKER_PKI", pki_dir().c_str(), 1);
    setenv("UOZ_BROKER_ACL", (pki_dir() + "/acl").c_str(), 1);
    pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0)
        throw std::runtime_error("cannot fork for mosquitto");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(1);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        if (command != nullptr) {
            execl("/bin/sh", "sh", "-c", shell_command.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
        execlp("mosquitto", "mosquitto", "-c", conf.c_str(), static_cast<char *>(nullptr));
        // Debian installs the broker in /usr/sbin, which a user's PATH may lack.
        execl("/usr/sbin/mosquitto", "mosquitto", "-c", conf.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    wait_until_accepting();
}

void Broker::wait_until_accepting() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!accepts(port_)) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("the broker exited at start; see " + work_dir_ +
                                     "/mosquitto.log");
        }
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("the broker does not accept connections");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

void Broker::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void Broker::kill() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

int load_identity(kt5bus_identity *identity, const std::string &dir) {
    return uozbus::load_identity(identity, dir) ? 0 : -1;
}

void free_identity(kt5bus_identity *identity) {
    uozbus::free_identity(identity);
}

}  // namespace uoztest
