#include "child.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include <json/json.h>

extern char** environ;

namespace {

std::string quoted(const std::string& word) {
    std::string q = "'";
    for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// Clears the project's variables, so that a developer's own settings stay out of the child.
void clear_project_env() {
    for (char** e = environ; *e != nullptr;) {
        std::string var = *e;
        if (var.rfind("TOLVEN_", 0) == 0 || var.rfind("LIBDIAG_", 0) == 0) {
            unsetenv(var.substr(0, var.find('=')).c_str());
        } else {
            ++e;
        }
    }
}

const std::string& emulator() {
    // Read before the environment is cleared, once.
    static const std::string words =
            getenv("TOLVEN_TEST_EMULATOR") != nullptr ? getenv("TOLVEN_TEST_EMULATOR") : "";
    return words;
}

}  // namespace

Scratch::Scratch() {
    const char* tmp = getenv("TMPDIR");
    std::string tmpl =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tolven_test_XXXXXX";
    if (mkdtemp(&tmpl[0]) != nullptr) dir = tmpl;
}

Scratch::~Scratch() {
    if (!dir.empty()) (void)!system(("rm -rf " + quoted(dir)).c_str());
}

std::string Scratch::write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
}

int time_scale() {
    const char* scale = getenv("TOLVEN_TEST_TIME_SCALE");
    return scale != nullptr && atoi(scale) > 0 ? atoi(scale) : 1;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<Json::Value> json_lines(const std::string& text) {
    std::vector<Json::Value> objects;
    std::istringstream in(text);
    Json::CharReaderBuilder builder;
    for (std::string line; std::getline(in, line);) {
        Json::Value v;
        std::string errors;
        std::istringstream one(line);
        if (Json::parseFromStream(builder, one, &v, &errors)) objects.push_back(v);
    }
    return objects;
}

std::vector<std::string> emulated(std::vector<std::string> args) {
    std::vector<std::string> words;
    std::istringstream in(emulator());
    for (std::string w; in >> w;) words.push_back(w);
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

namespace {

// |background| follows the command line: "& ..." to signal it from the shell.
ChildOutcome run(const std::string& program, const std::vector<std::string>& args,
                 const std::string& prefix, int limit_s, const std::string& background) {
    std::vector<std::string> words = emulated({program});
    clear_project_env();
    static int serial = 0;
    const std::string err_path =
            "/tmp/tolven_child_err_" + std::to_string(getpid()) + "_" + std::to_string(serial++);
    std::string cmd = prefix + (limit_s > 0 ? " timeout -s KILL " + std::to_string(limit_s) : "");
    for (const std::string& w : words) cmd += " " + quoted(w);
    for (const std::string& a : args) cmd += " " + quoted(a);
    cmd += " 2>" + quoted(err_path) + background;
    ChildOutcome r;
    FILE* out = popen(cmd.c_str(), "r");
    char buf[4096];
    for (size_t n; out != nullptr && (n = fread(buf, 1, sizeof buf, out)) > 0;)
        r.out.append(buf, n);
    int status = out != nullptr ? pclose(out) : -1;
    // timeout exits with 137 for a child it killed.
    if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) != 137) {
        r.exit_code = WEXITSTATUS(status);
    }
    std::stringstream err;
    err << std::ifstream(err_path).rdbuf();
    r.err = err.str();
    unlink(err_path.c_str());
    return r;
}

}  // namespace

ChildOutcome run_program(const std::string& program, const std::vector<std::string>& args,
                         const std::string& prefix, int limit_s) {
    return run(program, args, prefix, limit_s, "");
}

ChildOutcome run_program_interrupted(const std::string& program,
                                     const std::vector<std::string>& args, int after_ms, int sig) {
    // The signal goes to the program itself: timeout would pass it on with a SIGCONT after it,
    // which can stall LeakSanitizer's check at the program's exit. A watchdog of the shell's
    // own keeps the time limit.
    char wait[256];
    snprintf(wait, sizeof wait,
             " & p=$!; (sleep 60; kill -KILL $p) >/dev/null 2>&1 & w=$!; sleep %d.%03d; "
             "kill -%d $p; wait $p; r=$?; kill $w 2>/dev/null; exit $r",
             after_ms / 1000, after_ms % 1000, sig);
    return run(program, args, "", 0, wait);
}

ModemProcess::ModemProcess(const std::string& program, const std::vector<std::string>& options) {
    std::vector<std::string> words = emulated({program});
    words.insert(words.end(), options.begin(), options.end());
    // Made before the fork: the child of a process with threads (a sanitizer's among them) must
    // not allocate before exec.
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        close(out[1]);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    FILE* in = fdopen(out[0], "r");
    char line[256] = "";
    if (in != nullptr && fgets(line, sizeof line, in) != nullptr) {
        path_ = std::string(line, strcspn(line, "\n"));
    }
    if (in != nullptr) fclose(in);
}

int ModemProcess::stop() {
    if (pid_ <= 0) return status_;
    // Asked again every half second: under TSan a handler of a signal that comes as the modem
    // goes into its wait is deferred, and can be left waiting for the next one.
    int status = 0;
    pid_t done = 0;
    for (int i = 0; i < 40 && done == 0; ++i) {
        kill(pid_, SIGTERM);
        for (int j = 0; j < 50 && (done = waitpid(pid_, &status, WNOHANG)) == 0; ++j) {
            usleep(10000);
        }
    }
    if (done == 0) {
        kill(pid_, SIGKILL);
        done = waitpid(pid_, &status, 0);
    }
    if (done == pid_) status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return status_;
}
