// tolven-diag against tolven-diag-modem, both as child processes: a session on a real pty.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// The words of TOLVEN_TEST_EMULATOR (empty on a native build), then |args|.
std::vector<std::string> command(std::vector<std::string> args) {
    std::vector<std::string> words;
    std::istringstream emulator(getenv("TOLVEN_TEST_EMULATOR") ? getenv("TOLVEN_TEST_EMULATOR")
                                                               : "");
    for (std::string w; emulator >> w;) words.push_back(w);
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

// The modem as a child; its first line of output is the pty's path.
struct ModemProcess {
    pid_t pid = -1;
    std::string path;

    explicit ModemProcess(const std::vector<std::string>& options) {
        std::vector<std::string> words = command({TOLVEN_DIAG_MODEM});
        words.insert(words.end(), options.begin(), options.end());
        int out[2];
        if (pipe(out) != 0) return;
        pid = fork();
        if (pid == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv;
            for (std::string& w : words) argv.push_back(w.data());
            argv.push_back(nullptr);
            execvp(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        FILE* in = fdopen(out[0], "r");
        char line[256] = "";
        if (in != nullptr && fgets(line, sizeof line, in) != nullptr) {
            path = std::string(line, strcspn(line, "\n"));
        }
        if (in != nullptr) fclose(in);
    }

    // Interrupts the modem; its exit status.
    int stop() {
        int status = -1;
        if (pid > 0 && kill(pid, SIGTERM) == 0 && waitpid(pid, &status, 0) == pid) pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    ~ModemProcess() {
        if (pid > 0) stop();
    }
};

// The tool's exit code and output, given the port with --port.
std::pair<int, std::string> run_tool(const std::string& port, std::vector<std::string> args) {
    std::string cmd;
    args.insert(args.begin(), {TOLVEN_DIAG_TOOL, "--port", port});
    for (const std::string& w : command(args)) cmd += " '" + w + "'";
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    int status = p != nullptr ? pclose(p) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(SerialTool, VersionReplyInBothModesFromANoisyModem) {
    ModemProcess modem(
            {"--log-every", "2", "--event-every", "3", "--corrupt-every", "2", "--byte-gap", "50"});
    ASSERT_EQ(0u, modem.path.rfind("/dev/", 0)) << modem.path;
    for (const char* mode : {"dci", "callback"}) {
        SCOPED_TRACE(mode);
        auto [code, out] = run_tool(modem.path, {"--mode", mode, "00"});
        EXPECT_EQ(0, code) << out;
        EXPECT_NE(std::string::npos, out.find("reply: 55 bytes")) << out;
        EXPECT_NE(std::string::npos, out.find("\n  0000  00 4E 6F 76")) << out;
    }
    auto [code, out] = run_tool("/nonexistent/ttyACM0", {"00"});
    EXPECT_EQ(1, code);
    EXPECT_NE(std::string::npos,
              out.find("libdiag: cannot open diag port /nonexistent/ttyACM0: No such file"))
            << out;
    EXPECT_EQ(0, modem.stop());
}

}  // namespace
