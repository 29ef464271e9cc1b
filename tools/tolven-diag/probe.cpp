// A probe writes to a port the user did not name, so it is as small as it can be: one request of
// one byte, in a framing at a time, to a port nobody else has, under the port's lock, and only
// after a diag reply a second one for the identity.
#include "probe.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>

#include "matcher.h"
#include "serial_device.h"
#include "text.h"

namespace tolven_diag_tool {
namespace {

using Clock = std::chrono::steady_clock;
using diag_wire::Bytes;
using diag_wire::FramingKind;

const Bytes kDiagVersion = {0x1C};
const Bytes kBuildId = {0x7C};

// What one request got back within its limit.
struct Exchange : diag_wire::FrameSink {
    Bytes request;
    Bytes reply;  // the frame that answers the request; empty: none
    bool echo = false;
    Bytes raw;  // what came back, as it came (the first bytes)

    void on_frame(const uint8_t* frame, size_t n) override {
        if (!reply.empty()) return;
        // A frame that is the request itself is a port sending back what it got, not a reply.
        if (Bytes(frame, frame + n) == request) {
            echo = true;
        } else if (matcher::answers(request, frame, n)) {
            reply.assign(frame, frame + n);
        }
    }
    void on_drop(const char*) override {}
};

int ms_left(Clock::time_point end) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Sends |request| in |kind| on |fd| and reads until a reply or |limit_ms|; false when the port
// failed, with the reason in |*why|.
bool exchange(int fd, FramingKind kind, const Bytes& request, int limit_ms, Exchange* x,
              std::string* why) {
    x->request = request;
    std::unique_ptr<diag_wire::Framing> framing = diag_wire::open_framing(kind, x);
    Bytes frame;
    framing->encode(request.data(), request.size(), &frame);
    // What an earlier request left is not this one's answer.
    tcflush(fd, TCIFLUSH);
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(limit_ms);
    size_t written = 0;
    uint8_t buf[4096];
    while (x->reply.empty() && !x->echo) {
        const int left = ms_left(end);
        if (left == 0) break;
        pollfd p{fd, static_cast<short>(POLLIN | (written < frame.size() ? POLLOUT : 0)), 0};
        if (poll(&p, 1, left) < 0) {
            if (errno == EINTR) continue;
            *why = std::string("poll: ") + strerror(errno);
            return false;
        }
        if ((p.revents & POLLOUT) && written < frame.size()) {
            ssize_t n = write(fd, frame.data() + written, frame.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                *why = std::string("write: ") + strerror(errno);
                return false;
            }
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = read(fd, buf, sizeof buf);
            if (n > 0) {
                if (x->raw.size() < 64) {
                    x->raw.insert(x->raw.end(), buf, buf + std::min<size_t>(n, 64 - x->raw.size()));
                }
                framing->feed(buf, static_cast<size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                *why = n == 0 ? "end of file" : std::string("read: ") + strerror(errno);
                return false;
            }
        }
    }
    return true;
}

std::string framing_title(FramingKind kind) {
    return kind == FramingKind::kHdlc ? "HDLC" : "non-HDLC";
}

// The first bytes that came back, as text where they are text ("\r\nERROR\r\n").
std::string shown(const Bytes& raw) {
    return "\"" + diag_wire::printable(std::string(raw.begin(), raw.end())) + "\"" +
           (raw.size() >= 64 ? "..." : "");
}

}  // namespace

const char* probe_result_name(Probe::Result r) {
    switch (r) {
        case Probe::kDiag:
            return "diag";
        case Probe::kSilent:
            return "silent";
        case Probe::kGarbage:
            return "garbage";
        case Probe::kEcho:
            return "echo";
        case Probe::kHeld:
            return "held";
        case Probe::kFailed:
            return "failed";
    }
    return "";
}

Probe probe_port(const std::string& path, const std::vector<std::string>& holders,
                 const std::vector<FramingKind>& framings, int limit_ms) {
    Probe p;
    if (!holders.empty()) {
        p.result = Probe::kHeld;
        p.detail = holders.front();
        return p;
    }
    std::string error;
    std::unique_ptr<diag_port::SerialDevice> device =
            diag_port::SerialDevice::open(path, diag_port::kDefaultBaud, &error);
    if (device == nullptr) {
        p.result = Probe::kFailed;
        p.detail = error;
        return p;
    }
    // Taken meanwhile: its lock is not ours, and nothing is written.
    if (!device->holder().empty()) {
        p.result = Probe::kHeld;
        p.detail = device->holder() + " holds its lock";
        return p;
    }
    std::vector<std::string> got;  // what each framing got, for a port that never answered
    bool garbage = false, echo = false;
    for (FramingKind kind : framings) {
        Exchange x;
        if (!exchange(device->fd(), kind, kDiagVersion, limit_ms, &x, &error)) {
            p.result = Probe::kFailed;
            p.detail = error;
            return p;
        }
        if (!x.reply.empty()) {
            p.result = Probe::kDiag;
            p.framing = kind;
            Decoded version;
            if (decode_reply(kDiagVersion, x.reply.data(), x.reply.size(), &version)) {
                p.identity.push_back(version);
            }
            Exchange id;
            Decoded build;
            if (exchange(device->fd(), kind, kBuildId, limit_ms, &id, &error) && !id.reply.empty() &&
                decode_reply(kBuildId, id.reply.data(), id.reply.size(), &build)) {
                p.identity.push_back(build);
            }
            return p;
        }
        echo = echo || x.echo;
        garbage = garbage || (!x.echo && !x.raw.empty());
        got.push_back(framing_title(kind) + ": " +
                      (x.echo          ? "the request came back"
                       : x.raw.empty() ? "nothing"
                                       : shown(x.raw)));
    }
    p.result = echo ? Probe::kEcho : garbage ? Probe::kGarbage : Probe::kSilent;
    for (size_t i = 0; i < got.size(); ++i) p.detail += (i ? "; " : "") + got[i];
    return p;
}

std::string probe_text(const Probe& p, int limit_ms) {
    switch (p.result) {
        case Probe::kDiag: {
            std::string text = "diag port, " + framing_title(p.framing);
            for (const Decoded& d : p.identity) {
                text += d.kind == "diag version" || d.kind == "extended build id"
                                ? "; "
                                : "; " + d.kind + ": ";
                for (size_t i = 0; i < d.fields.size(); ++i) {
                    const Field& f = d.fields[i];
                    text += (i ? ", " : "") + f.name + " " + f.text;
                }
            }
            return text;
        }
        case Probe::kSilent:
            return "no answer within " + std::to_string(limit_ms) + " ms (" + p.detail + ")";
        case Probe::kGarbage:
            return "answered, but with no diag reply: not a diag port (" + p.detail + ")";
        case Probe::kEcho:
            return "sends back what it gets (an echo): not a diag port (" + p.detail + ")";
        case Probe::kHeld:
            return "not probed: " + p.detail;
        case Probe::kFailed:
            return "could not be probed: " + p.detail;
    }
    return "";
}

}  // namespace tolven_diag_tool
