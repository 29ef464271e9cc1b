// The project's programs as child processes of a test, as a user runs them: through the shell,
// under the emulator of a cross build (TOLVEN_TEST_EMULATOR), with none of the developer's own
// TOLVEN_ and LIBDIAG_ settings.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <json/value.h>

struct ChildOutcome {
    int exit_code = -1;  // -1: killed by a signal (the time limit among them)
    std::string out;
    std::string err;
};

// A fresh folder under TMPDIR (or /tmp), removed with what is in it. Empty |dir| when none could
// be made.
struct Scratch {
    std::string dir;
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    std::string path(const std::string& name) const { return dir + "/" + name; }
    // Writes |text| to the file |name| in the folder; its path.
    std::string write(const std::string& name, const std::string& text) const;
};

// TOLVEN_TEST_TIME_SCALE: the factor for time limits (sanitizers, emulation).
int time_scale();

// The whole file at |path|; empty when it cannot be read.
std::string read_file(const std::string& path);

// The JSON objects of |text|, one a line; lines that are none are left out.
std::vector<Json::Value> json_lines(const std::string& text);

// The words of TOLVEN_TEST_EMULATOR (none on a native build), then |args|.
std::vector<std::string> emulated(std::vector<std::string> args);

// Runs |program| with |args| through the shell with |prefix| (assignments and redirections) in
// front, killed after |limit_s| seconds (0: no limit of its own). Standard error goes to a file, so
// that only standard output can fill up and stall the child.
ChildOutcome run_program(const std::string& program, const std::vector<std::string>& args,
                         const std::string& prefix = "", int limit_s = 60);
// The same, sent |sig| |after_ms| milliseconds after it started.
ChildOutcome run_program_interrupted(const std::string& program,
                                     const std::vector<std::string>& args, int after_ms, int sig);

// tolven-diag-modem as a child; its first line of output is the pty's path (empty when it did
// not start). Stopped with SIGTERM when it goes.
class ModemProcess {
  public:
    ModemProcess(const std::string& program, const std::vector<std::string>& options);
    ~ModemProcess() { stop(); }
    ModemProcess(const ModemProcess&) = delete;
    ModemProcess& operator=(const ModemProcess&) = delete;

    const std::string& path() const { return path_; }
    // Interrupts the modem (if it still runs); its exit status, -1 when it died of a signal.
    int stop();

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string path_;
};
