#include "decode.h"

#include <stdio.h>

#include <algorithm>

#include "args.h"
#include "wire.h"

namespace tolven_diag_tool {
namespace {

std::string format(const char* fmt, long long v) {
    char text[64];
    snprintf(text, sizeof text, fmt, v, v);
    return text;
}

// Reads little-endian fields in order and records each that fits. The first one that does not
// fit ends the decoding and leaves a note.
class Reader {
  public:
    Reader(const uint8_t* data, size_t len, Decoded* out) : data_(data), len_(len), out_(out) {}

    // |fmt| gets the value twice, for "%lld (0x%02llX)" and the like.
    bool number(const char* name, size_t width, const char* fmt) {
        if (!fits(name, width)) return false;
        long long v = 0;
        for (size_t i = 0; i < width; ++i) v |= static_cast<long long>(data_[pos_ + i]) << (8 * i);
        pos_ += width;
        add(name, format(fmt, v), true, v);
        return true;
    }

    // Two bytes shown together, as in "1.2".
    bool pair(const char* name, const char* fmt) {
        if (!fits(name, 2)) return false;
        char text[64];
        snprintf(text, sizeof text, fmt, static_cast<long long>(data_[pos_]),
                 static_cast<long long>(data_[pos_ + 1]));
        pos_ += 2;
        add(name, text, false, 0);
        return true;
    }

    // Fixed-width text, NUL padded; several of them shown as one field joined by blanks.
    bool text(const char* name, std::initializer_list<size_t> widths) {
        size_t total = 0;
        for (size_t w : widths) total += w;
        if (!fits(name, total)) return false;
        std::string joined;
        for (size_t w : widths) {
            std::string part(reinterpret_cast<const char*>(data_ + pos_), w);
            part.resize(std::min(part.find('\0'), part.size()));
            if (!joined.empty()) joined += ' ';
            joined += part;
            pos_ += w;
        }
        add(name, printable(joined), false, 0, joined);
        return true;
    }

    // NUL-terminated text of any length.
    bool cstring(const char* name) {
        if (pos_ >= len_) return fits(name, 1);
        const uint8_t* start = data_ + pos_;
        const uint8_t* nul = std::find(start, data_ + len_, 0);
        std::string value(reinterpret_cast<const char*>(start), nul - start);
        if (nul == data_ + len_) {
            add(name, printable(value) + " (not terminated)", false, 0, value);
            pos_ = len_;
            out_->note = "short reply: ends after " + std::to_string(len_) + " bytes, inside '" +
                         name + "' before its terminating NUL";
            return false;
        }
        add(name, printable(value), false, 0, value);
        pos_ = nul - data_ + 1;
        return true;
    }

    bool skip(const char* name, size_t width) {
        if (!fits(name, width)) return false;
        pos_ += width;
        return true;
    }

    size_t pos() const { return pos_; }
    // The length of a complete reply, named in the note on a short one.
    void expect(size_t full) { full_ = full; }

    // After the last known field: what is left over.
    void finish() {
        if (pos_ < len_) {
            out_->note = std::to_string(len_ - pos_) + " more " +
                         (len_ - pos_ == 1 ? "byte" : "bytes") + " after the known fields";
        }
    }

    void add(const std::string& name, const std::string& text, bool has_number, long long v,
             const std::string& value = {}) {
        out_->fields.push_back(Field{name, text, has_number, v, value.empty() ? text : value});
    }

  private:
    bool fits(const char* name, size_t width) {
        if (pos_ + width <= len_) return true;
        std::string where = pos_ == len_ ? "before '" : "inside '";
        out_->note = "short reply: ends after " + std::to_string(len_) +
                     (len_ == 1 ? " byte, " : " bytes, ") + where + name + "'";
        if (full_ != 0) out_->note += "; a full reply has " + std::to_string(full_) + " bytes";
        return false;
    }

    const uint8_t* data_;
    size_t len_;
    Decoded* out_;
    size_t pos_ = 1;  // past the command code
    size_t full_ = 0;
};

void version_info(Reader& r) {
    r.expect(55);
    bool ok = r.text("compiled", {11, 8}) && r.text("released", {11, 8}) &&
              r.text("version directory", {8}) && r.number("station class", 1, "0x%02llX") &&
              r.number("CAI revision", 1, "%lld") && r.number("model", 1, "%lld (0x%02llX)") &&
              r.number("firmware revision", 2, "0x%04llX") &&
              r.number("slot cycle index", 1, "%lld") && r.pair("hardware version", "%lld.%lld");
    if (ok) r.finish();
}

void build_id(Reader& r) {
    bool ok = r.number("build id version", 1, "%lld") && r.skip("reserved", 2) &&
              r.number("MSM revision", 4, "0x%08llX") && r.number("model", 4, "%lld (0x%llX)") &&
              r.cstring("software") && r.cstring("model name");
    if (ok) r.finish();
}

void event_report(Reader& r, const std::vector<uint8_t>& request) {
    std::string state = "unknown (the request does not say)";
    if (request.size() == 2 && request[0] == 0x60 && request[1] <= 1) {
        state = request[1] == 1 ? "on" : "off";
    }
    r.add("event reporting", state, false, 0);
    r.expect(3);
    if (r.number("length", 2, "%lld")) r.finish();
}

void subsystem(Reader& r, size_t len) {
    if (r.number("subsystem", 1, "0x%02llX") && r.number("command", 2, "0x%04llX")) {
        r.add("payload", std::to_string(len - r.pos()) + (len - r.pos() == 1 ? " byte" : " bytes"),
              true, static_cast<long long>(len - r.pos()));
    }
}

bool decode_packet(const std::vector<uint8_t>& request, const uint8_t* reply, size_t len,
                   Decoded* out) {
    if (len == 0) return false;
    Reader r(reply, len, out);
    const uint8_t code = reply[0];
    if (const char* name = diag_wire::error_name(code)) {
        out->kind = "error reply";
        r.add("error", format("0x%02llX ", code) + name, true, code);
        const uint8_t* echo = reply + 1;
        size_t echo_len = len - 1;
        r.add("echoed request", echo_len == 0 ? "(none)" : hex_bytes(echo, echo_len, 32), false, 0);
        bool same = echo_len == request.size() && std::equal(echo, echo + echo_len, request.data());
        r.add("same as sent", same ? "yes" : "no", false, 0);
        return true;
    }
    switch (code) {
        case 0x00:
            out->kind = "version info";
            version_info(r);
            return true;
        case 0x7C:
            out->kind = "extended build id";
            build_id(r);
            return true;
        case 0x1C:
            out->kind = "diag version";
            r.expect(3);
            if (r.number("diag version", 2, "%lld")) r.finish();
            return true;
        case 0x60:
            out->kind = "event report";
            event_report(r, request);
            return true;
        case 0x4B:
            out->kind = "subsystem";
            subsystem(r, len);
            return true;
    }
    return false;
}

}  // namespace

bool decode_reply(const std::vector<uint8_t>& request, const uint8_t* reply, size_t len,
                  Decoded* out) {
    *out = Decoded{};
    diag_wire::Unwrapped u = diag_wire::unwrap(reply, len);
    if (!u.wrapped) return decode_packet(request, reply, len, out);
    out->wrapped = true;
    out->subscription = u.subscription;
    // The packet inside answers the packet inside the request.
    diag_wire::Unwrapped asked = diag_wire::unwrap(request.data(), request.size());
    decode_packet(std::vector<uint8_t>(asked.inner, asked.inner + asked.inner_len), u.inner,
                  u.inner_len, out);
    return true;
}

std::string hex_bytes(const uint8_t* data, size_t len, size_t max_bytes) {
    std::string out;
    char pair[4];
    for (size_t i = 0; i < len && i < max_bytes; ++i) {
        snprintf(pair, sizeof pair, i == 0 ? "%02X" : " %02X", data[i]);
        out += pair;
    }
    if (len > max_bytes) out += " ... (" + std::to_string(len) + " bytes)";
    return out;
}

}  // namespace tolven_diag_tool
