// Debian's ser2net in front of a device, as a lab shares a modem's diag port on the network: in
// the foreground, its TCP accepter on a free loopback port carrying the device's raw bytes, and
// gone with its owner (also when the owner is killed). For the tests and the benchmarks.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

class Ser2net {
  public:
    // nullptr with the reason in |*error|; installed() tells a missing package from a failure.
    static std::unique_ptr<Ser2net> start(const std::string& device, std::string* error);
    static bool installed();
    ~Ser2net();
    Ser2net(const Ser2net&) = delete;
    Ser2net& operator=(const Ser2net&) = delete;

    int port() const { return port_; }
    // Whether a connection to the port is taken now.
    bool accepts() const;
    // Kills it now.
    void stop();

  private:
    Ser2net(std::string dir, int port);
    bool wait_listening();
    std::string log_text();

    const std::string dir_;
    const std::string config_;
    const std::string log_;
    const int port_;
    pid_t pid_ = -1;
};
