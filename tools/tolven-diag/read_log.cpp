#include "read_log.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "log_reader.h"
#include "output.h"

namespace tolven_diag_tool {
namespace {

// Writes |text| to a new file at |path|: a file that is there already is the user's, and stays.
bool write_new_file(const std::string& path, const std::string& text, std::string* error) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write the answers file " + path + ": " + strerror(errno) +
                 (errno == EEXIST ? " (name a file that does not exist)" : "");
        return false;
    }
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *error = "cannot write the answers file " + path + ": " + strerror(errno);
            close(fd);
            unlink(path.c_str());  // made here, and half written
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0) {
        *error = "cannot write the answers file " + path + ": " + strerror(errno);
        unlink(path.c_str());
        return false;
    }
    return true;
}

}  // namespace

int read_log_action(const Options& o, FILE* out) {
    AnswersFile answers;
    bool out_failed = false;
    LogReader reader([&](const LoggedCommand& c) {
        if (out_failed) return;
        print_logged(out, o, c);
        if (!o.answers_out.empty()) answers.add(c);
        out_failed = !output_ok(out);
    });
    std::string error;
    bool read = read_log(o.read_log, &reader, &error);
    reader.finish();
    if (out_failed) return kExitFailed;
    print_log_summary(out, o, reader.summary());
    if (!read) {
        tolven_diag_tool::error(error);
        return kExitFailed;
    }
    if (!o.answers_out.empty()) {
        if (!write_new_file(o.answers_out, answers.text(o.read_log), &error)) {
            tolven_diag_tool::error(error);
            return kExitFailed;
        }
        if (!o.json) fprintf(out, "answers: %s\n", o.answers_out.c_str());
    }
    return kExitOk;
}

}  // namespace tolven_diag_tool
