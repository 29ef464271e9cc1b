// Enumerated through libudev, as the mobile-broadband daemons do: udev knows the stable names
// (its database) and walks the device tree to the USB interface and device of each port.
#include "port_finder.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <libudev.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "port_users.h"

namespace tolven_diag_tool {
namespace {

struct UdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
};
template <typename T>
using UdevPtr = std::unique_ptr<T, UdevDeleter>;

std::string attr(udev_device* d, const char* name) {
    const char* v = d != nullptr ? udev_device_get_sysattr_value(d, name) : nullptr;
    return v != nullptr ? v : "";
}

// "ttyUSB10" after "ttyUSB2": the trailing number compared as a number.
bool by_name(const SerialPort& a, const SerialPort& b) {
    auto split = [](const std::string& s) {
        size_t i = s.size();
        while (i > 0 && isdigit(static_cast<unsigned char>(s[i - 1]))) --i;
        return std::make_pair(s.substr(0, i), i < s.size() ? atol(s.c_str() + i) : -1L);
    };
    return split(a.device) < split(b.device);
}

// The links in |dir| to the device |node|: its stable names where udev's database has none (no
// udevd, as in a container or a test bed, while the links were made).
std::vector<std::string> links_to(const std::string& dir, const char* node) {
    std::vector<std::string> links;
    struct stat target;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr || stat(node, &target) != 0) {
        if (d != nullptr) closedir(d);
        return links;
    }
    while (dirent* e = readdir(d)) {
        struct stat st;
        const std::string link = dir + "/" + e->d_name;
        if (e->d_name[0] != '.' && stat(link.c_str(), &st) == 0 && st.st_dev == target.st_dev &&
            st.st_ino == target.st_ino) {
            links.push_back(link);
        }
    }
    closedir(d);
    return links;
}

// The port of the tty |d|, or false when it is not one to list.
bool describe(udev_device* d, bool all, SerialPort* p) {
    const char* node = udev_device_get_devnode(d);
    // Virtual terminals, ptys and consoles have no hardware behind them.
    udev_device* parent = udev_device_get_parent(d);
    if (node == nullptr || parent == nullptr ||
        strstr(udev_device_get_syspath(d), "/virtual/") != nullptr) {
        return false;
    }
    // Borrowed from |d|, which keeps its parents.
    udev_device* iface = udev_device_get_parent_with_subsystem_devtype(d, "usb", "usb_interface");
    udev_device* usb = udev_device_get_parent_with_subsystem_devtype(d, "usb", "usb_device");
    p->usb = iface != nullptr && usb != nullptr;
    if (!p->usb && !all) return false;
    p->device = node;
    for (udev_list_entry* e = udev_device_get_devlinks_list_entry(d); e != nullptr;
         e = udev_list_entry_get_next(e)) {
        std::string link = udev_list_entry_get_name(e);
        if (link.find("/serial/by-id/") != std::string::npos) p->by_id.push_back(link);
        if (link.find("/serial/by-path/") != std::string::npos) p->by_path.push_back(link);
    }
    if (p->by_id.empty() && p->by_path.empty()) {
        p->by_id = links_to("/dev/serial/by-id", node);
        p->by_path = links_to("/dev/serial/by-path", node);
    }
    std::sort(p->by_id.begin(), p->by_id.end());
    std::sort(p->by_path.begin(), p->by_path.end());
    // The interface's driver is the module that made the port (option, cdc_acm); a port of
    // another bus has its own parent's.
    const char* driver = udev_device_get_driver(p->usb ? iface : parent);
    if (driver == nullptr) driver = udev_device_get_driver(parent);
    p->driver = driver != nullptr ? driver : "";
    if (p->usb) {
        p->vendor_id = attr(usb, "idVendor");
        p->product_id = attr(usb, "idProduct");
        p->manufacturer = attr(usb, "manufacturer");
        p->product = attr(usb, "product");
        p->serial = attr(usb, "serial");
        std::string number = attr(iface, "bInterfaceNumber");
        if (!number.empty())
            p->interface_number = static_cast<int>(strtol(number.c_str(), nullptr, 16));
        p->interface_class = attr(iface, "bInterfaceClass");
        p->interface_subclass = attr(iface, "bInterfaceSubClass");
        p->interface_protocol = attr(iface, "bInterfaceProtocol");
        p->interface_name = attr(iface, "interface");
    }
    p->holders = port_holders(p->device);
    return true;
}

}  // namespace

std::vector<std::string> port_holders(const std::string& path) {
    std::vector<std::string> holders;
    const int pid = diag_port::lock_holder(path);
    const std::string holder = pid > 0 ? diag_port::process_name(pid) : "";
    if (pid > 0) holders.push_back(holder + " holds its lock");
    for (const std::string& user : diag_port::other_users(path)) {
        // The lock holder has it open too: said once.
        if (pid > 0 && user == holder) continue;
        holders.push_back(user + " has it open");
    }
    return holders;
}

bool find_serial_ports(bool all, std::vector<SerialPort>* out, std::string* error) {
    UdevPtr<udev> u(udev_new());
    UdevPtr<udev_enumerate> e(u != nullptr ? udev_enumerate_new(u.get()) : nullptr);
    if (e == nullptr || udev_enumerate_add_match_subsystem(e.get(), "tty") < 0 ||
        udev_enumerate_scan_devices(e.get()) < 0) {
        *error = std::string("cannot ask udev for the serial devices: ") + strerror(errno);
        return false;
    }
    out->clear();
    for (udev_list_entry* entry = udev_enumerate_get_list_entry(e.get()); entry != nullptr;
         entry = udev_list_entry_get_next(entry)) {
        UdevPtr<udev_device> d(
                udev_device_new_from_syspath(u.get(), udev_list_entry_get_name(entry)));
        SerialPort p;
        if (d != nullptr && describe(d.get(), all, &p)) out->push_back(std::move(p));
    }
    std::sort(out->begin(), out->end(), by_name);
    return true;
}

}  // namespace tolven_diag_tool
