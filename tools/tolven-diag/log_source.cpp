// Reading a log into the reader: a text file, standard input, or a bugreport zip read inside.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <ziparchive/zip_archive.h>

#include "files.h"
#include "log_reader.h"

namespace tolven_diag_tool {
namespace {

constexpr size_t kChunk = 256 * 1024;

// Reads |fd| to its end, or to |limit| bytes when that is not -1.
bool read_stream(int fd, off_t limit, const std::string& name, LogReader* reader,
                 std::string* error) {
    std::string buf(kChunk, '\0');
    off_t total = 0;
    while (limit < 0 || total < limit) {
        size_t want = limit < 0 ? kChunk : std::min<off_t>(kChunk, limit - total);
        ssize_t n = read(fd, buf.data(), want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *error = "cannot read " + name + ": " + strerror(errno);
            return false;
        }
        if (n == 0) break;
        reader->feed(buf.data(), static_cast<size_t>(n));
        total += n;
    }
    return true;
}

bool feed_entry(const uint8_t* buf, size_t size, void* cookie) {
    static_cast<LogReader*>(cookie)->feed(reinterpret_cast<const char*>(buf), size);
    return true;
}

// The bugreport inside: the entry that main_entry.txt names, else the largest bugreport*.txt.
bool main_entry(ZipArchiveHandle zip, std::string* name, ZipEntry* entry) {
    ZipEntry named;
    if (FindEntry(zip, "main_entry.txt", &named) == 0 && named.uncompressed_length < 1024) {
        std::string text(named.uncompressed_length, '\0');
        if (text.empty() || ExtractToMemory(zip, &named, reinterpret_cast<uint8_t*>(text.data()),
                                            named.uncompressed_length) == 0) {
            while (!text.empty() && isspace(static_cast<unsigned char>(text.back()))) {
                text.pop_back();
            }
            if (!text.empty() && FindEntry(zip, text, entry) == 0) {
                *name = text;
                return true;
            }
        }
    }
    void* cookie = nullptr;
    if (StartIteration(zip, &cookie, "", ".txt") != 0) return false;
    ZipEntry e;
    std::string entry_name;
    bool found = false;
    while (Next(cookie, &e, &entry_name) == 0) {
        size_t slash = entry_name.rfind('/');
        std::string base = slash == std::string::npos ? entry_name : entry_name.substr(slash + 1);
        if (base.rfind("bugreport", 0) != 0) continue;
        if (!found || e.uncompressed_length > entry->uncompressed_length) {
            *entry = e;
            *name = entry_name;
            found = true;
        }
    }
    EndIteration(cookie);
    return found;
}

bool read_zip(int fd, const std::string& path, LogReader* reader, std::string* error) {
    ZipArchiveHandle zip = nullptr;
    int32_t rc = OpenArchiveFd(fd, path.c_str(), &zip, false);
    bool ok = false;
    std::string name;
    ZipEntry entry;
    if (rc != 0) {
        *error = path + " is not a zip that can be read: " + ErrorCodeString(rc);
    } else if (!main_entry(zip, &name, &entry)) {
        *error = path + " holds no bugreport*.txt";
    } else if ((rc = ProcessZipEntryContents(zip, &entry, feed_entry, reader)) != 0) {
        *error = path + ": " + name + " inside cannot be read: " + ErrorCodeString(rc);
    } else {
        ok = true;
    }
    CloseArchive(zip);
    return ok;
}

bool is_zip(int fd) {
    char magic[4];
    return pread(fd, magic, sizeof magic, 0) == 4 && memcmp(magic, "PK\x03\x04", 4) == 0;
}

}  // namespace

bool read_log(const std::string& path, LogReader* reader, std::string* error) {
    const bool in = path == "-";
    const std::string name = in ? "standard input" : path;
    // Not blocking: opening a FIFO must not wait for a writer.
    int fd = in ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = "cannot open " + path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    bool ok = false;
    if (fstat(fd, &st) != 0) {
        *error = "cannot read " + name + ": " + strerror(errno);
    } else if (in && !S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode)) {
        *error = "standard input is " + std::string(diag_wire::special_file_kind(st.st_mode)) +
                 "; give a log file or pipe one in";
    } else if (!in && !S_ISREG(st.st_mode)) {
        *error = path + " is " + diag_wire::special_file_kind(st.st_mode) + ", not a log file";
    } else if (S_ISREG(st.st_mode) && is_zip(fd)) {
        ok = read_zip(fd, name, reader, error);
    } else {
        if (!in) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        // A regular file is read as far as it went when opened, so a growing log ends.
        ok = read_stream(fd, S_ISREG(st.st_mode) && !in ? st.st_size : -1, name, reader, error);
    }
    if (!in) close(fd);
    return ok;
}

}  // namespace tolven_diag_tool
