// tolven-diag run as a child process against the simulated modem: exit codes, messages, output.

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Outcome {
    int exit_code = -1;
    std::string out;
    std::string err;
};

// Runs the tool through the shell with |env| on top of an environment free of logging and
// simulator settings; stderr goes to a file so that only stdout can fill up and stall the child.
Outcome run_tool(const std::vector<std::string>& args, const std::string& env) {
    // Read once: the loop below clears it with the other TOLVEN_ variables.
    const char* emulator_env = getenv("TOLVEN_TEST_EMULATOR");
    static const std::string emulator = emulator_env != nullptr ? emulator_env : "";
    for (char** e = environ; *e != nullptr;) {
        std::string var = *e;
        bool ours = var.rfind("TOLVEN_", 0) == 0 || var.rfind("LIBDIAG_SIM_", 0) == 0;
        if (ours)
            unsetenv(var.substr(0, var.find('=')).c_str());
        else
            ++e;
    }
    std::string err_path = ::testing::TempDir() + "tool_test_err_" + std::to_string(getpid());
    std::string cmd = env + " " + emulator + " '" TOLVEN_DIAG_TOOL "'";
    for (const std::string& a : args) cmd += " '" + a + "'";
    Outcome r;
    FILE* out = popen((cmd + " 2>'" + err_path + "'").c_str(), "r");
    char buf[4096];
    for (size_t n; out != nullptr && (n = fread(buf, 1, sizeof(buf), out)) > 0;)
        r.out.append(buf, n);
    int status = out != nullptr ? pclose(out) : -1;
    if (status != -1 && WIFEXITED(status)) r.exit_code = WEXITSTATUS(status);
    std::stringstream err;
    err << std::ifstream(err_path).rdbuf();
    r.err = err.str();
    unlink(err_path.c_str());
    return r;
}

TEST(Tool, ExitCodesAndOutput) {
    const std::string kSlow = "LIBDIAG_SIM_DELAY_MS=2000";  // far past the 300 ms time-out
    struct Case {
        std::vector<std::string> args;
        std::string env;
        int exit_code;
        std::string out_has;  // empty: not checked
        std::string err_has;
    } cases[] = {
            {{}, "", 2, "", "no packet given\nTry 'tolven-diag --help'"},
            {{"4g"}, "", 2, "", "bad hex '4g'"},
            {{"--bogus", "00"}, "", 2, "", "unknown option --bogus"},
            {{"--timeout", "abc", "00"}, "", 2, "", "--timeout"},
            {{std::string(2 * 4097, 'a')}, "", 2, "", "4097 bytes"},
            {{"--help"}, "", 0, "Usage: tolven-diag", ""},
            {{"00"}, "", 0, "reply: 55 bytes\n  0000  00 4E 6F 76", ""},
            {{"--mode", "callback", "00"}, "", 0, "reply: 55 bytes\n  0000  00 4E 6F 76", ""},
            {{"--verbose", "00"}, "", 0, "RIL[tolven_diag_send.cpp:", ""},
            {{"--capacity", "8", "00"}, "", 0, "reply: 8 bytes\n  0000  00 4E", ""},
            {{"0x4b", "FE", "0100", "a b"}, "", 0, "6 bytes\n  0000  4B FE 01 00 0A 0B", ""},
            {{"--timeout", "300", "00"}, kSlow, 1, "reply: none", "send failed"},
            {{"--mdm"}, "", 0, "remote modem: absent", ""},
            {{"--mdm"}, "LIBDIAG_SIM_REMOTE_MASK=1", 0, "remote modem: present", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.empty() ? "(no args)" : c.args[0] + " " + c.env);
        Outcome r = run_tool(c.args, c.env);
        EXPECT_EQ(r.exit_code, c.exit_code) << r.out << r.err;
        EXPECT_NE(r.out.find(c.out_has), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(c.err_has), std::string::npos) << r.err;
        // Only --verbose brings the library's trace to stdout.
        bool verbose = !c.args.empty() && c.args[0] == "--verbose";
        EXPECT_EQ(r.out.find("RIL[") != std::string::npos, verbose) << r.out;
    }
}

}  // namespace
