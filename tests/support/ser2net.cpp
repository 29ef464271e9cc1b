#include "ser2net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kStartLimit{5000};

std::string find_ser2net() {
    std::string dirs = getenv("PATH") ? getenv("PATH") : "";
    dirs += ":/usr/sbin:/usr/local/sbin";
    std::istringstream in(dirs);
    for (std::string dir; std::getline(in, dir, ':');) {
        std::string path = dir + "/ser2net";
        if (!dir.empty() && access(path.c_str(), X_OK) == 0) return path;
    }
    return "";
}

// A loopback port nobody listens on right now.
int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
                               getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0
                       ? ntohs(a.sin_port)
                       : -1;
    if (fd >= 0) close(fd);
    return port;
}

}  // namespace

std::unique_ptr<Ser2net> Ser2net::start(const std::string& device, std::string* error) {
    std::string bin = find_ser2net();
    if (bin.empty()) {
        *error = "ser2net not found: install the Debian package ser2net";
        return nullptr;
    }
    char dir_template[] = "/tmp/tolven_ser2net.XXXXXX";
    int port = free_port();
    if (mkdtemp(dir_template) == nullptr || port < 0) {
        *error = std::string("ser2net set-up: ") + strerror(errno);
        return nullptr;
    }
    std::unique_ptr<Ser2net> s(new Ser2net(dir_template, port));
    // chardelay off: ser2net would otherwise hold what the port reads for at least 1 ms
    // before passing it on, in the library's samples and the floor's alike.
    std::ofstream(s->config_) << "%YAML 1.1\n---\n"
                              << "connection: &diag\n"
                              << "  accepter: tcp,127.0.0.1," << port << "\n"
                              << "  connector: serialdev," << device << ",115200n81,local\n"
                              << "  options:\n"
                              << "    mdns: false\n"
                              << "    chardelay: false\n";
    const char* argv[] = {"ser2net", "-n", "-d", "-u", "-c", s->config_.c_str(), nullptr};
    int log = open(s->log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    s->pid_ = fork();
    if (s->pid_ == 0) {
        // Gone with this program, even when it is killed.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        dup2(null_fd, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execv(bin.c_str(), const_cast<char* const*>(argv));
        _exit(127);
    }
    close(log);
    close(null_fd);
    if (s->pid_ < 0 || !s->wait_listening()) {
        *error = "ser2net did not start listening on port " + std::to_string(port) + ": " +
                 s->log_text();
        return nullptr;
    }
    return s;
}

Ser2net::~Ser2net() {
    stop();
    unlink(config_.c_str());
    unlink(log_.c_str());
    rmdir(dir_.c_str());
}

bool Ser2net::accepts() const {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool up = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    if (fd >= 0) close(fd);
    return up;
}

void Ser2net::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

bool Ser2net::installed() {
    return !find_ser2net().empty();
}

Ser2net::Ser2net(std::string dir, int port)
    : dir_(std::move(dir)), config_(dir_ + "/ser2net.yaml"), log_(dir_ + "/log"), port_(port) {}

bool Ser2net::wait_listening() {
    Clock::time_point limit = Clock::now() + kStartLimit;
    while (Clock::now() < limit) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        if (accepts()) return true;
        std::this_thread::sleep_for(milliseconds(10));
    }
    return false;
}

std::string Ser2net::log_text() {
    std::ifstream in(log_);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return text.empty() ? "(no output)" : text;
}
