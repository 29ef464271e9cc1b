// --list-ports, --probe and --port auto end to end, on USB layouts faked by umockdev: its test bed
// gives libudev (in the tool, through its preload library) a sysfs and a /dev of our making, and
// each fake tty a pseudo-terminal whose master side a behaviour here serves: the pty modem for a
// diag port, AT text, an echo or silence for the others. The descriptions follow what the kernel
// and udev show for such devices (udevadm info -a).

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "child.h"
#include "port_holder.h"

#ifdef TOLVEN_HAVE_UMOCKDEV
#include <umockdev.h>

#include "pty_modem.h"
#endif

namespace {

// What answers on a tty's pty.
enum class Behaviour { kDiagHdlc, kDiagNhdlc, kAt, kEcho, kSilent, kNone };

struct Interface {
    int number;
    const char* cls;  // bInterfaceClass/SubClass/Protocol
    const char* subclass;
    const char* protocol;
    const char* driver;  // option, cdc_acm, qmi_wwan, usbfs
    const char* tty;     // ttyUSB0, ttyACM0; "" for an interface without a tty
    Behaviour behaviour;
};

struct UsbDevice {
    const char* port;  // the hub port: "3" is usb1/1-3
    const char* vendor_id;
    const char* product_id;
    const char* manufacturer;
    const char* product;
    const char* serial;
    std::vector<Interface> interfaces;
};

struct Layout {
    const char* name;
    std::vector<UsbDevice> devices;
    bool platform_uart;  // also a 16550 UART on the platform bus, for --all
};

// clang-format off
// A modem module: diag on interface 0, NMEA, two AT ports (one with echo on), and its network
// interface, which has no tty.
const UsbDevice kModule = {"3", "3a5e", "0101", "Tolven", "TL-M1 LTE Module", "7f3a21c0", {
    {0, "ff", "ff", "ff", "option", "ttyUSB0", Behaviour::kDiagHdlc},
    {1, "ff", "00", "00", "option", "ttyUSB1", Behaviour::kSilent},
    {2, "ff", "00", "00", "option", "ttyUSB2", Behaviour::kAt},
    {3, "ff", "00", "00", "option", "ttyUSB3", Behaviour::kEcho},
    {4, "ff", "ff", "ff", "qmi_wwan", "", Behaviour::kNone},
}};
// A phone switched to its diag USB mode: a vendor-class diag interface beside adb; its modem
// speaks non-HDLC framing.
const UsbDevice kPhone = {"4", "3a5e", "9091", "Tolven", "T1 Phone", "a1b2c3d4", {
    {0, "ff", "ff", "30", "option", "ttyUSB4", Behaviour::kDiagNhdlc},
    {1, "ff", "42", "01", "usbfs", "", Behaviour::kNone},
}};
const UsbDevice kSecondModule = {"5", "3a5e", "0101", "Tolven", "TL-M1 LTE Module", "7f3a21c1", {
    {0, "ff", "ff", "ff", "option", "ttyUSB5", Behaviour::kDiagHdlc},
    {2, "ff", "00", "00", "option", "ttyUSB6", Behaviour::kAt},
}};
// A board that is no modem: CDC-ACM, its control interface with the tty, its data interface.
const UsbDevice kBoard = {"6", "3a5f", "0042", "Example Labs", "Sensor Board", "0001", {
    {0, "02", "02", "01", "cdc_acm", "ttyACM0", Behaviour::kEcho},
    {1, "0a", "00", "00", "cdc_acm", "", Behaviour::kNone},
}};
// clang-format on

std::string by_id(const UsbDevice& d, const Interface& i) {
    std::string name = std::string(d.manufacturer) + "_" + d.product + "_" + d.serial;
    for (char& c : name) c = c == ' ' ? '_' : c;
    char tail[32];
    snprintf(tail, sizeof tail, "-if%02d%s", i.number,
             std::string(i.tty).rfind("ttyUSB", 0) == 0 ? "-port0" : "");
    return "/dev/serial/by-id/usb-" + name + tail;
}

#ifdef TOLVEN_HAVE_UMOCKDEV

const char kPci[] = "/devices/pci0000:00/0000:00:14.0/usb1";

// The device and its interfaces and ttys in umockdev's record format, leaf first.
std::string describe(const UsbDevice& d) {
    const std::string dev = std::string(kPci) + "/1-" + d.port;
    std::ostringstream s;
    for (const Interface& i : d.interfaces) {
        const std::string iface = dev + "/1-" + d.port + ":1." + std::to_string(i.number);
        const std::string tty = i.tty;
        if (!tty.empty()) {
            const bool acm = tty.rfind("ttyACM", 0) == 0;
            const int major = acm ? 166 : 188;
            const int minor = atoi(tty.c_str() + 6);
            const std::string parent = acm ? iface : iface + "/" + tty;
            char num[8];
            snprintf(num, sizeof num, "%02d", i.number);
            s << "P: " << parent << "/tty/" << tty << "\nN: " << tty << "\n"
              << "S: " << by_id(d, i).substr(5) << "\n"
              << "S: serial/by-path/pci-0000:00:14.0-usb-0:" << d.port << ":1." << i.number
              << (acm ? "" : "-port0") << "\n"
              << "E: DEVNAME=/dev/" << tty << "\nE: MAJOR=" << major << "\nE: MINOR=" << minor
              << "\nE: SUBSYSTEM=tty\nE: ID_BUS=usb\nE: ID_VENDOR_ID=" << d.vendor_id
              << "\nE: ID_MODEL_ID=" << d.product_id << "\nE: ID_USB_INTERFACE_NUM=" << num
              << "\nE: ID_USB_DRIVER=" << i.driver << "\nA: dev=" << major << ":" << minor
              << "\n\n";
            if (!acm) {
                s << "P: " << parent << "\nE: DRIVER=" << i.driver
                  << "1\nE: SUBSYSTEM=usb-serial\nA: port_number=0\n"
                  << "L: driver=../../../../../../../bus/usb-serial/drivers/" << i.driver
                  << "1\n\n";
            }
        }
        s << "P: " << iface << "\nE: DEVTYPE=usb_interface\nE: DRIVER=" << i.driver
          << "\nE: SUBSYSTEM=usb\nE: INTERFACE=" << i.cls << "/" << i.subclass << "/" << i.protocol
          << "\nA: bInterfaceClass=" << i.cls << "\nA: bInterfaceSubClass=" << i.subclass
          << "\nA: bInterfaceProtocol=" << i.protocol << "\nA: bInterfaceNumber=0" << i.number
          << "\nA: bAlternateSetting= 0\n"
          << "A: bNumEndpoints=03\nL: driver=../../../../../../bus/usb/drivers/" << i.driver
          << "\n\n";
    }
    s << "P: " << dev << "\nN: bus/usb/001/00" << d.port
      << "\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: SUBSYSTEM=usb\nE: ID_VENDOR_ID=" << d.vendor_id
      << "\nE: ID_MODEL_ID=" << d.product_id << "\nA: idVendor=" << d.vendor_id
      << "\nA: idProduct=" << d.product_id << "\nA: manufacturer=" << d.manufacturer
      << "\nA: product=" << d.product << "\nA: serial=" << d.serial
      << "\nA: bDeviceClass=00\nA: bNumInterfaces= " << d.interfaces.size()
      << "\nA: busnum=1\nA: devnum=" << d.port << "\nA: speed=480\n"
      << "L: driver=../../../../../bus/usb/drivers/usb\n\n";
    return s.str();
}

const char kUart[] =
        "P: /devices/platform/serial8250/serial8250:0/serial8250:0.0/tty/ttyS0\nN: ttyS0\n"
        "E: DEVNAME=/dev/ttyS0\nE: MAJOR=4\nE: MINOR=64\nE: SUBSYSTEM=tty\nA: dev=4:64\n"
        "A: type=4\nA: port=0x3F8\nA: irq=4\n\n"
        "P: /devices/platform/serial8250/serial8250:0/serial8250:0.0\nE: DRIVER=port\n"
        "E: SUBSYSTEM=serial-base\nL: driver=../../../../../bus/serial-base/drivers/port\n\n"
        "P: /devices/platform/serial8250/serial8250:0\nE: DRIVER=serial\n"
        "E: SUBSYSTEM=serial-base\n\n"
        "P: /devices/platform/serial8250\nE: DRIVER=serial8250\nE: SUBSYSTEM=platform\n\n";

// The ptys of the faked ttys that are no diag port: AT text for anything that comes, the same
// bytes back, or silence (what comes is read and dropped).
class Responders {
  public:
    Responders() : wake_(eventfd(0, EFD_CLOEXEC)) {}
    ~Responders() {
        stop();
        close(wake_);
    }
    // Before the test bed closes the ptys.
    void stop() {
        uint64_t one = 1;
        (void)!write(wake_, &one, sizeof one);
        if (thread_.joinable()) thread_.join();
    }
    void add(int master, Behaviour b) { ports_.push_back({master, b}); }
    void start() {
        thread_ = std::thread([this] { serve(); });
    }

  private:
    void serve() {
        for (;;) {
            std::vector<pollfd> fds = {{wake_, POLLIN, 0}};
            for (const auto& p : ports_) fds.push_back({p.first, POLLIN, 0});
            if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) return;
            if (fds[0].revents & POLLIN) return;
            for (size_t i = 1; i < fds.size(); ++i) {
                if (!(fds[i].revents & POLLIN)) {
                    // No slave open (EIO): wait for one without spinning.
                    if (fds[i].revents & POLLHUP) usleep(1000);
                    continue;
                }
                char buf[512];
                ssize_t n = read(fds[i].fd, buf, sizeof buf);
                if (n <= 0) continue;
                const Behaviour b = ports_[i - 1].second;
                if (b == Behaviour::kEcho) (void)!write(fds[i].fd, buf, static_cast<size_t>(n));
                if (b == Behaviour::kAt) (void)!write(fds[i].fd, "\r\nERROR\r\n", 9);
            }
        }
    }

    const int wake_;
    std::vector<std::pair<int, Behaviour>> ports_;
    std::thread thread_;
};

class Bed {
  public:
    explicit Bed(const Layout& layout) : testbed_(umockdev_testbed_new()) {
        std::string text;
        for (const UsbDevice& d : layout.devices) text += describe(d);
        if (layout.platform_uart) text += kUart;
        GError* error = nullptr;
        if (!umockdev_testbed_add_from_string(testbed_, text.c_str(), &error)) {
            error_ = error != nullptr ? error->message : "add_from_string failed";
            if (error != nullptr) g_error_free(error);
            return;
        }
        for (const UsbDevice& d : layout.devices) {
            for (const Interface& i : d.interfaces) {
                if (*i.tty != '\0' && !serve(std::string("/dev/") + i.tty, i.behaviour)) return;
            }
        }
        responders_.start();
    }
    ~Bed() {
        modems_.clear();
        responders_.stop();
        g_object_unref(testbed_);
    }

    const std::string& error() const { return error_; }
    std::string root() const {
        gchar* root = umockdev_testbed_get_root_dir(testbed_);
        std::string r = root;
        g_free(root);
        return r;
    }

    // The tool under the test bed. ASan wants its runtime first among the libraries, which a
    // preloaded one is not; it works all the same.
    ChildOutcome tool(const std::vector<std::string>& args, const std::string& env = "") const {
        return run_program(
                TOLVEN_DIAG_TOOL, args,
                env +
                        " ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0 "
                        "LD_PRELOAD=libumockdev-preload.so.0 UMOCKDEV_DIR='" +
                        root() + "'",
                60);
    }

  private:
    bool serve(const std::string& node, Behaviour b) {
        const int master = umockdev_testbed_get_dev_fd(testbed_, node.c_str());
        if (master < 0) {
            error_ = "no pty for " + node;
            return false;
        }
        if (b != Behaviour::kDiagHdlc && b != Behaviour::kDiagNhdlc) {
            responders_.add(master, b);
            return true;
        }
        pty_modem::Options o;
        o.framing = b == Behaviour::kDiagHdlc ? diag_wire::FramingKind::kHdlc
                                              : diag_wire::FramingKind::kNhdlc;
        std::unique_ptr<pty_modem::Modem> m = pty_modem::Modem::adopt(master, o, &error_);
        if (m == nullptr) return false;
        m->start();
        modems_.push_back(std::move(m));
        return true;
    }

    UMockdevTestbed* testbed_;
    std::string error_;
    Responders responders_;
    std::vector<std::unique_ptr<pty_modem::Modem>> modems_;
};

#endif  // TOLVEN_HAVE_UMOCKDEV

void skip_without_umockdev() {
#ifndef TOLVEN_HAVE_UMOCKDEV
    GTEST_SKIP() << "umockdev is not built in: " TOLVEN_NO_UMOCKDEV_WHY;
#endif
}

// One layout: what --list-ports --probe says of each port, and what --port auto does.
struct Case {
    Layout layout;
    std::map<std::string, std::string> probe;    // device -> probe.result in JSON
    std::map<std::string, std::string> framing;  // device -> framing of a diag port
    int auto_exit;
    std::vector<std::string> auto_says;  // on standard output and error together
};

// The layout's name in test names and messages, not the bytes of the case.
void PrintTo(const Case& c, std::ostream* os) {
    *os << c.layout.name;
}

class Layouts : public ::testing::TestWithParam<Case> {};

TEST_P(Layouts, ListProbeAndAuto) {
    skip_without_umockdev();
#ifdef TOLVEN_HAVE_UMOCKDEV
    const Case& c = GetParam();
    Bed bed(c.layout);
    ASSERT_EQ("", bed.error());

    // The list alone: every tty of a USB device, nothing of the platform, nothing written.
    ChildOutcome list = bed.tool({"--list-ports"});
    EXPECT_EQ(0, list.exit_code) << list.err;
    for (const UsbDevice& d : c.layout.devices) {
        for (const Interface& i : d.interfaces) {
            if (*i.tty == '\0') continue;
            EXPECT_NE(std::string::npos,
                      list.out.find(std::string("/dev/") + i.tty + "\n  by-id      " + by_id(d, i)))
                    << list.out;
        }
    }
    EXPECT_EQ(std::string::npos, list.out.find("ttyS0")) << list.out;
    EXPECT_EQ(std::string::npos, list.out.find("probe")) << list.out;

    ChildOutcome probe = bed.tool({"--list-ports", "--probe", "--json"});
    EXPECT_EQ(0, probe.exit_code) << probe.err;
    std::vector<Json::Value> ports = json_lines(probe.out);
    EXPECT_EQ(c.probe.size(), ports.size()) << probe.out;
    for (const Json::Value& p : ports) {
        const std::string device = p["device"].asString();
        SCOPED_TRACE(device);
        ASSERT_TRUE(c.probe.count(device)) << probe.out;
        EXPECT_EQ(c.probe.at(device), p["probe"]["result"].asString()) << p;
        EXPECT_EQ(1u, p["by_id"].size()) << p;
        EXPECT_EQ(p["held"].asBool(), c.probe.at(device) == "held") << p;
        if (c.probe.at(device) != "diag") continue;
        EXPECT_EQ(c.framing.at(device), p["probe"]["framing"].asString());
        const Json::Value& identity = p["probe"]["identity"];
        ASSERT_EQ(2u, identity.size()) << p;
        EXPECT_EQ(8, identity[0]["diag_version"].asInt()) << p;
        EXPECT_EQ("tolven-t1", identity[1]["model_name"].asString()) << p;
        EXPECT_EQ("3a5e", p["usb"]["vendor_id"].asString());
        EXPECT_EQ(0, p["usb"]["interface"].asInt());
    }

    ChildOutcome chosen = bed.tool({"--port", "auto", "7c"});
    EXPECT_EQ(c.auto_exit, chosen.exit_code) << chosen.out << chosen.err;
    for (const std::string& said : c.auto_says) {
        EXPECT_NE(std::string::npos, (chosen.out + chosen.err).find(said))
                << said << "\n"
                << chosen.out << chosen.err;
    }
#endif
}

Layout layout(const char* name, std::vector<UsbDevice> devices, bool uart = false) {
    return Layout{name, std::move(devices), uart};
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Faked, Layouts, ::testing::Values(
    Case{layout("module", {kModule}, true),
         {{"/dev/ttyUSB0", "diag"}, {"/dev/ttyUSB1", "silent"}, {"/dev/ttyUSB2", "garbage"},
          {"/dev/ttyUSB3", "echo"}},
         {{"/dev/ttyUSB0", "hdlc"}},
         0, {"port " + by_id(kModule, kModule.interfaces[0]) + " (hdlc, found by --port auto)",
             "model name         tolven-t1\n", "result: 0 (ok)"}},
    Case{layout("phone", {kPhone}),
         {{"/dev/ttyUSB4", "diag"}}, {{"/dev/ttyUSB4", "nhdlc"}},
         0, {"(nhdlc, found by --port auto)", "result: 0 (ok)"}},
    Case{layout("two_modems_and_a_board", {kModule, kSecondModule, kBoard}),
         {{"/dev/ttyUSB0", "diag"}, {"/dev/ttyUSB1", "silent"}, {"/dev/ttyUSB2", "garbage"},
          {"/dev/ttyUSB3", "echo"}, {"/dev/ttyUSB5", "diag"}, {"/dev/ttyUSB6", "garbage"},
          {"/dev/ttyACM0", "echo"}},
         {{"/dev/ttyUSB0", "hdlc"}, {"/dev/ttyUSB5", "hdlc"}},
         1, {"--port auto: 2 ports answered a diag request; name one with --port:",
             by_id(kModule, kModule.interfaces[0]) + ": diag port, HDLC",
             by_id(kSecondModule, kSecondModule.interfaces[0]) + ": diag port, HDLC",
             by_id(kBoard, kBoard.interfaces[0]) + ": sends back what it gets"}},
    Case{layout("no_modem", {kBoard}),
         {{"/dev/ttyACM0", "echo"}}, {},
         1, {"--port auto: no port answered a diag request",
             "sends back what it gets (an echo): not a diag port"}}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.layout.name); });
// clang-format on

// A port that another process holds is listed as held and never written to, and --port auto
// says who holds it; --all lists the platform's UART too; a by-id name works as --port.
TEST(HeldPort, ListedNotProbed) {
    skip_without_umockdev();
#ifdef TOLVEN_HAVE_UMOCKDEV
    Bed bed(layout("held", {kModule}, true));
    ASSERT_EQ("", bed.error());
    PortHolder holder(bed.root() + "/dev/ttyUSB0", true);
    ASSERT_TRUE(holder.holding());
    const std::string who = "process " + std::to_string(holder.pid());

    ChildOutcome list = bed.tool({"--list-ports", "--probe", "--all"});
    EXPECT_EQ(0, list.exit_code) << list.err;
    EXPECT_NE(std::string::npos, list.out.find("/dev/ttyS0\n  driver     port\n")) << list.out;
    EXPECT_NE(std::string::npos, list.out.find("  held       " + who + " (")) << list.out;
    EXPECT_NE(std::string::npos, list.out.find("  probe      not probed: " + who)) << list.out;
    EXPECT_NE(std::string::npos, list.out.find("no port answered a diag request")) << list.out;

    ChildOutcome chosen = bed.tool({"--port", "auto", "00"});
    EXPECT_EQ(1, chosen.exit_code);
    EXPECT_NE(std::string::npos,
              chosen.err.find(by_id(kModule, kModule.interfaces[0]) + ": not probed: " + who))
            << chosen.err;

    holder.release();
    ChildOutcome named =
            bed.tool({"--port", by_id(kModule, kModule.interfaces[0]), "-t", "1000", "1c"},
                     "LIBDIAG_SIM_TRACE=1");
    EXPECT_EQ(0, named.exit_code) << named.out << named.err;
    EXPECT_NE(std::string::npos, named.out.find("diag version       8")) << named.out;
    // The faked tty takes no exclusive-open flag: used under its lock, and the trace says so.
    EXPECT_NE(std::string::npos, named.err.find(": not exclusive (TIOCEXCL: Inappropriate ioctl"))
            << named.err;
#endif
}

}  // namespace
