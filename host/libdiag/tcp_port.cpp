#include "tcp_port.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "address.h"

namespace diag_port {
namespace {

class TcpPort final : public LinkPort {
  public:
    explicit TcpPort(int fd) : fd_(fd) {}
    ~TcpPort() override { close(fd_); }
    int fd() const override { return fd_; }
    const char* end_of_file() const override { return "connection closed by the peer"; }

  private:
    const int fd_;
};

// Connects within kConnectLimit; -1 with the reason in |*error|.
int connect_within(const addrinfo* ai, std::string* error) {
    int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
        *error = strerror(errno);
        return -1;
    }
    int err = 0;
    if (connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
        err = errno;
        if (err == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int n;
            while ((n = poll(&p, 1, static_cast<int>(kConnectLimit.count()))) < 0 &&
                   errno == EINTR) {
            }
            socklen_t len = sizeof err;
            if (n == 0) {
                err = ETIMEDOUT;
            } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
                err = errno;
            }
        }
    }
    if (err != 0) {
        *error = err == ETIMEDOUT ? connect_timed_out_text() : strerror(err);
        close(fd);
        return -1;
    }
    // Commands are small and each waits for its answer: no batching.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

}  // namespace

std::string connect_timed_out_text() {
    return "connection timed out: no answer within " + std::to_string(kConnectLimit.count()) + " ms";
}

std::unique_ptr<LinkPort> connect_tcp(const std::string& address, std::string* error) {
    diag_wire::TcpAddress where;
    std::string why;
    if (!diag_wire::parse_tcp_address(address, &where, &why)) {
        *error = "not an address (" + why + "): want tcp:HOST:PORT or tcp:[IPV6]:PORT";
        return nullptr;
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int rc = getaddrinfo(where.host.c_str(), std::to_string(where.port).c_str(), &hints, &list);
    if (rc != 0) {
        if (rc == EAI_NONAME || rc == EAI_FAIL || rc == EAI_NODATA || rc == EAI_ADDRFAMILY) {
            *error = "unknown host " + where.host + " (" + gai_strerror(rc) + ")";
        } else if (rc == EAI_AGAIN) {
            *error = "cannot look up the host " + where.host + " (" + gai_strerror(rc) + ")";
        } else {
            *error = gai_strerror(rc);
        }
        return nullptr;
    }
    int fd = -1;
    for (const addrinfo* ai = list; ai != nullptr && fd < 0; ai = ai->ai_next) {
        fd = connect_within(ai, error);
    }
    freeaddrinfo(list);
    if (fd < 0) return nullptr;
    return std::make_unique<TcpPort>(fd);
}

}  // namespace diag_port
