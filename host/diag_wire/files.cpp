#include "files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace diag_wire {
namespace {

// Why a file that is no regular one is refused.
std::string not_regular(mode_t mode) {
    if (S_ISDIR(mode)) return strerror(EISDIR);
    return std::string(special_file_kind(mode)) + ", not a regular file";
}

// Opens |path| for reading when it is a regular file, without blocking on a FIFO; the descriptor
// is close-on-exec and blocking again. -1 with "cannot read PATH: why" in |*error| otherwise.
int open_regular(const std::string& path, std::string* error) {
    auto fail = [&](const std::string& why) {
        *error = "cannot read " + path + ": " + why;
        return -1;
    };
    // Non-blocking, so that a FIFO without a writer cannot hold the open.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return fail(strerror(errno));
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int e = errno;
        close(fd);
        return fail(strerror(e));
    }
    if (!S_ISREG(st.st_mode)) {
        close(fd);
        return fail(not_regular(st.st_mode));
    }
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

}  // namespace

const char* special_file_kind(mode_t mode) {
    return S_ISDIR(mode)    ? "a directory"
           : S_ISFIFO(mode) ? "a FIFO"
           : S_ISCHR(mode)  ? "a character device"
           : S_ISBLK(mode)  ? "a block device"
           : S_ISSOCK(mode) ? "a socket"
                            : "a special file";
}

std::string size_text(size_t bytes) {
    if (bytes >= (1u << 20) && bytes % (1u << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes >= 1024 && bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

bool read_regular(const std::string& path, size_t limit, std::string* text, std::string* error) {
    int fd = open_regular(path, error);
    if (fd < 0) return false;
    text->clear();
    char buf[65536];
    bool ok = true;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = "cannot read " + path + ": " + strerror(errno);
            ok = false;
            break;
        }
        if (n == 0) break;
        // Files under /proc say size 0 and still have content: the bound is on what is read.
        if (text->size() + static_cast<size_t>(n) > limit) {
            *error = "cannot read " + path + ": larger than " + size_text(limit);
            ok = false;
            break;
        }
        text->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    if (!ok) text->clear();
    return ok;
}

}  // namespace diag_wire
