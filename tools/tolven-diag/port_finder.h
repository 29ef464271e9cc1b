// The host's serial devices as udev knows them, each with its stable names, its USB identity and
// who else has it.
#pragma once

#include <string>
#include <vector>

namespace tolven_diag_tool {

struct SerialPort {
    std::string device;                // /dev/ttyUSB0
    std::vector<std::string> by_id;    // /dev/serial/by-id/...
    std::vector<std::string> by_path;  // /dev/serial/by-path/...
    std::string driver;                // the kernel driver: option, cdc_acm, serial8250...
    bool usb = false;
    // Of a USB port; each as sysfs has it, "" when it does not.
    std::string vendor_id, product_id, manufacturer, product, serial;
    int interface_number = -1;
    std::string interface_class, interface_subclass, interface_protocol, interface_name;
    // Who else has it: "process 12 (name) holds its lock", "process 34 (name) has it open".
    std::vector<std::string> holders;
};

// USB serial and CDC-ACM devices, or with |all| every serial device that has hardware behind it
// (not the virtual consoles); in the order of their names, ttyUSB2 before ttyUSB10. False with
// the reason in |*error| when udev cannot be asked.
bool find_serial_ports(bool all, std::vector<SerialPort>* out, std::string* error);

// Who else has the device at |path|, as SerialPort::holders.
std::vector<std::string> port_holders(const std::string& path);

}  // namespace tolven_diag_tool
