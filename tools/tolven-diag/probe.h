// Asking a serial port whether it is a modem's diag port: one short diag request (diag version)
// in each framing in turn, within a limit each, and from a port that answers, its identity (the
// extended build id). A port that answers with anything but a diag reply is left alone.
#pragma once

#include <string>
#include <vector>

#include "decode.h"
#include "framing.h"

namespace tolven_diag_tool {

struct Probe {
    enum Result {
        kDiag,     // answered a diag request
        kSilent,   // nothing came back
        kGarbage,  // bytes came back, none of them a diag reply
        kEcho,     // what was sent came back as it was
        kHeld,     // another process has the port: not touched
        kFailed,   // could not be opened
    };
    Result result = kSilent;
    diag_wire::FramingKind framing = diag_wire::FramingKind::kHdlc;  // of kDiag
    std::vector<Decoded> identity;  // of kDiag: the diag version, then the build id (if answered)
    std::string detail;             // what came back, who holds it, or why it did not open
};

const char* probe_result_name(Probe::Result r);  // "diag", "silent", "garbage", ...

// Probes the device at |path| in |framings| in turn, |limit_ms| each; |holders| are the other
// processes that have it (a port with any is not touched).
Probe probe_port(const std::string& path, const std::vector<std::string>& holders,
                 const std::vector<diag_wire::FramingKind>& framings, int limit_ms);

// One line of text: "diag port, HDLC: diag version 8; software ..., model name ...".
std::string probe_text(const Probe& p, int limit_ms);

}  // namespace tolven_diag_tool
