// Another process on a diag port, as a user's serial tool or a daemon would be: it opens the
// port, takes its lock if asked to, and keeps it until released.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

class PortHolder {
  public:
    PortHolder(const std::string& path, bool lock) {
        int ready[2];
        if (pipe(ready) != 0 || pipe(release_) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            // Nothing of the parent's: a descriptor of its port kept open here would keep its
            // lock, and the parent's close of the pipe must reach the read below.
            for (int fd = 3; fd < 1024; ++fd) {
                if (fd != ready[1] && fd != release_[0]) close(fd);
            }
            int fd = open(path.c_str(), O_RDWR | O_NOCTTY);
            char c = fd >= 0 && (!lock || flock(fd, LOCK_EX) == 0) ? 'Y' : 'N';
            ssize_t n = write(ready[1], &c, 1);
            n = read(release_[0], &c, 1);
            (void)n;
            _exit(0);
        }
        char c = 0;
        holding_ = read(ready[0], &c, 1) == 1 && c == 'Y';
        close(ready[0]);
        close(ready[1]);
        close(release_[0]);
    }
    ~PortHolder() { release(); }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;

    void release() {
        if (pid_ <= 0) return;
        close(release_[1]);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    bool holding() const { return holding_; }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int release_[2] = {-1, -1};
    bool holding_ = false;
};
