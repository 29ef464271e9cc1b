#include "port_users.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace diag_port {
namespace {

// The index of the pty whose master |pid|'s descriptor |fd| holds, or -1.
int pty_master_index(const std::string& pid, const std::string& fd) {
    std::ifstream in("/proc/" + pid + "/fdinfo/" + fd);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("tty-index:", 0) == 0) return atoi(line.c_str() + 10);
    }
    return -1;
}

// The process other than this one whose flock(2) lock /proc/locks lists for the file |st|.
int lock_holder_of(const struct stat& st) {
    std::ifstream in("/proc/locks");
    std::string line;
    while (std::getline(in, line)) {
        // "1: FLOCK  ADVISORY  WRITE 1234 00:19:7 0 EOF"; a waiter's line has "->" after the id
        std::istringstream f(line);
        std::string id, type, mode, access, dev;
        int pid = 0;
        f >> id >> type >> mode >> access >> pid >> dev;
        unsigned maj = 0, min = 0;
        unsigned long long ino = 0;
        if (type == "FLOCK" && sscanf(dev.c_str(), "%x:%x:%llu", &maj, &min, &ino) == 3 &&
            makedev(maj, min) == st.st_dev && ino == st.st_ino && pid != getpid()) {
            return pid;
        }
    }
    return 0;
}

}  // namespace

std::string process_name(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
}

int lock_holder(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 ? lock_holder_of(st) : 0;
}

int lock_holder(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? lock_holder_of(st) : 0;
}

std::vector<std::string> other_users(const std::string& path) {
    std::vector<std::string> users;
    struct stat port;
    if (stat(path.c_str(), &port) != 0 || !S_ISCHR(port.st_mode)) return users;
    const bool pty = major(port.st_rdev) >= 136 && major(port.st_rdev) <= 143;
    const int pty_index =
            pty ? static_cast<int>(minor(port.st_rdev) + ((major(port.st_rdev) - 136) << 8)) : -1;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return users;
    const std::string self = std::to_string(getpid());
    while (dirent* p = readdir(proc)) {
        std::string pid = p->d_name;
        if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos || pid == self) {
            continue;
        }
        std::string fd_dir = "/proc/" + pid + "/fd";
        DIR* fds = opendir(fd_dir.c_str());
        if (fds == nullptr) continue;
        bool opens = false, plays = false;
        while (dirent* f = readdir(fds)) {
            struct stat st;
            if (f->d_name[0] == '.' || stat((fd_dir + "/" + f->d_name).c_str(), &st) != 0 ||
                !S_ISCHR(st.st_mode)) {
                continue;
            }
            if (st.st_rdev == port.st_rdev) opens = true;
            if (pty && major(st.st_rdev) == 5 && minor(st.st_rdev) == 2 &&
                pty_master_index(pid, f->d_name) == pty_index) {
                plays = true;
            }
        }
        closedir(fds);
        if (opens && !plays) users.push_back(process_name(atoi(pid.c_str())));
    }
    closedir(proc);
    return users;
}

}  // namespace diag_port
