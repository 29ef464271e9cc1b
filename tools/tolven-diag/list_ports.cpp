// --list-ports and --port auto: the ports udev lists, each probed on a thread of its own (a
// silent port costs its limit in each framing, and ports do not wait for one another).
#include <thread>

#include "output.h"
#include "port_finder.h"
#include "ports.h"
#include "probe.h"

namespace tolven_diag_tool {
namespace {

using diag_wire::FramingKind;

std::vector<FramingKind> framings_of(const std::string& framing) {
    FramingKind kind;
    if (!framing.empty() && diag_wire::parse_framing(framing, &kind)) return {kind};
    return {FramingKind::kHdlc, FramingKind::kNhdlc};
}

std::vector<Probe> probe_all(const std::vector<SerialPort>& ports,
                             const std::vector<FramingKind>& framings, int limit_ms) {
    std::vector<Probe> probes(ports.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < ports.size(); ++i) {
        threads.emplace_back([&, i] {
            probes[i] = probe_port(ports[i].device, ports[i].holders, framings, limit_ms);
            // A port that would not open: why, with the fix.
            const std::string problem =
                    probes[i].result == Probe::kFailed ? port_problem(ports[i].device) : "";
            if (!problem.empty()) probes[i].detail = problem;
        });
    }
    for (std::thread& t : threads) t.join();
    return probes;
}

std::string class_name(const std::string& cls) {
    if (cls == "02") return " (communications)";
    if (cls == "0a") return " (CDC data)";
    if (cls == "ff") return " (vendor specific)";
    return "";
}

std::string usb_text(const SerialPort& p) {
    std::string text = p.vendor_id + ":" + p.product_id;
    for (const std::string* s : {&p.manufacturer, &p.product}) {
        if (!s->empty()) text += " " + *s;
    }
    if (!p.serial.empty()) text += ", serial " + p.serial;
    return text;
}

void print_port_text(FILE* out, const SerialPort& p, const Probe* probe, int limit_ms) {
    fprintf(out, "%s\n", p.device.c_str());
    for (const std::string& name : p.by_id) fprintf(out, "  by-id      %s\n", name.c_str());
    for (const std::string& name : p.by_path) fprintf(out, "  by-path    %s\n", name.c_str());
    if (p.usb) {
        fprintf(out, "  usb        %s\n", usb_text(p).c_str());
        fprintf(out, "  interface  %d, class %s/%s/%s%s%s\n", p.interface_number,
                p.interface_class.c_str(), p.interface_subclass.c_str(),
                p.interface_protocol.c_str(), class_name(p.interface_class).c_str(),
                p.interface_name.empty() ? "" : (", \"" + p.interface_name + "\"").c_str());
    }
    fprintf(out, "  driver     %s\n", p.driver.empty() ? "(none)" : p.driver.c_str());
    if (p.holders.empty()) {
        fprintf(out, "  held       no\n");
    } else {
        for (const std::string& h : p.holders) fprintf(out, "  held       %s\n", h.c_str());
    }
    if (probe != nullptr) fprintf(out, "  probe      %s\n", probe_text(*probe, limit_ms).c_str());
}

Json::Value json_strings(const std::vector<std::string>& list) {
    Json::Value a(Json::arrayValue);
    for (const std::string& s : list) a.append(s);
    return a;
}

Json::Value port_json(const SerialPort& p, const Probe* probe, int limit_ms) {
    Json::Value j;
    j["device"] = p.device;
    j["by_id"] = json_strings(p.by_id);
    j["by_path"] = json_strings(p.by_path);
    j["driver"] = json_or_null(p.driver);
    j["held"] = !p.holders.empty();
    j["holders"] = json_strings(p.holders);
    j["usb"] = Json::Value();
    if (p.usb) {
        Json::Value& u = j["usb"];
        u["vendor_id"] = p.vendor_id;
        u["product_id"] = p.product_id;
        u["manufacturer"] = json_or_null(p.manufacturer);
        u["product"] = json_or_null(p.product);
        u["serial"] = json_or_null(p.serial);
        u["interface"] = p.interface_number;
        u["interface_class"] = p.interface_class;
        u["interface_subclass"] = p.interface_subclass;
        u["interface_protocol"] = p.interface_protocol;
        u["interface_name"] = json_or_null(p.interface_name);
    }
    j["probe"] = Json::Value();
    if (probe != nullptr) {
        Json::Value& r = j["probe"];
        r["result"] = probe_result_name(probe->result);
        r["framing"] = probe->result == Probe::kDiag
                               ? Json::Value(diag_wire::framing_name(probe->framing))
                               : Json::Value();
        r["identity"] = Json::Value(Json::arrayValue);
        for (const Decoded& d : probe->identity) r["identity"].append(json_decoded(d));
        r["detail"] = json_or_null(probe->detail);
        r["limit_ms"] = limit_ms;
    }
    return j;
}

// The name to give --port for |p|: its by-id name, which stays when the ports are renumbered.
std::string stable_name(const SerialPort& p) {
    return p.by_id.empty() ? p.device : p.by_id.front();
}

}  // namespace

int list_ports(const Options& o, FILE* out) {
    std::vector<SerialPort> ports;
    std::string why;
    if (!find_serial_ports(o.all_ports, &ports, &why)) {
        error(why);
        return kExitFailed;
    }
    std::vector<Probe> probes;
    if (o.probe) probes = probe_all(ports, framings_of(""), o.probe_ms);
    std::vector<std::string> diag;
    for (size_t i = 0; i < ports.size(); ++i) {
        const Probe* probe = o.probe ? &probes[i] : nullptr;
        if (probe != nullptr && probe->result == Probe::kDiag)
            diag.push_back(stable_name(ports[i]));
        if (o.json) {
            print_json_value(out, port_json(ports[i], probe, o.probe_ms));
        } else {
            print_port_text(out, ports[i], probe, o.probe_ms);
        }
    }
    if (o.json) return kExitOk;
    if (ports.empty()) {
        fprintf(out, "no %sserial ports found%s\n", o.all_ports ? "" : "USB ",
                o.all_ports ? "" : " (--all lists every serial device)");
    } else if (o.probe && diag.empty()) {
        fprintf(out, "no port answered a diag request\n");
    } else if (o.probe) {
        for (const std::string& name : diag) fprintf(out, "diag port: %s\n", name.c_str());
        if (diag.size() == 1)
            fprintf(out, "use it with --port auto, or --port %s\n", diag[0].c_str());
    }
    return kExitOk;
}

int choose_auto_port(Options* o) {
    std::vector<SerialPort> ports;
    std::string why;
    if (!find_serial_ports(false, &ports, &why)) {
        error("--port auto: " + why);
        return kExitFailed;
    }
    std::vector<Probe> probes = probe_all(ports, framings_of(o->framing), kDefaultProbeMs);
    std::vector<size_t> diag;
    for (size_t i = 0; i < ports.size(); ++i) {
        if (probes[i].result == Probe::kDiag) diag.push_back(i);
    }
    if (diag.size() == 1) {
        const SerialPort& p = ports[diag[0]];
        o->port = stable_name(p);
        o->framing = diag_wire::framing_name(probes[diag[0]].framing);
        o->port_auto = true;
        return kExitOk;
    }
    if (ports.empty()) {
        error("--port auto: no USB serial ports found (is the modem plugged in? --list-ports --all "
              "lists every serial device)");
        return kExitFailed;
    }
    error(diag.empty() ? "--port auto: no port answered a diag request; name one with --port:"
                       : "--port auto: " + std::to_string(diag.size()) +
                                 " ports answered a diag request; name one with --port:");
    for (size_t i = 0; i < ports.size(); ++i) {
        fprintf(stderr, "  %s: %s\n", stable_name(ports[i]).c_str(),
                probe_text(probes[i], kDefaultProbeMs).c_str());
    }
    return kExitFailed;
}

}  // namespace tolven_diag_tool
