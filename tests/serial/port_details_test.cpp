// Port details read from fake sysfs trees built from the layouts real kernels show.
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "platform/serial_ports_posix.h"

namespace {

namespace fs = std::filesystem;

// Builds the tree described by `layoutFile` below a fresh folder and returns the folder.
std::string buildTree(const std::string& layoutFile) {
    std::string root = ::testing::TempDir() + "qw_sysfs_" + std::to_string(::getpid());
    fs::remove_all(root);
    std::ifstream layout(layoutFile);
    EXPECT_TRUE(layout) << layoutFile;
    std::string line;
    while (std::getline(layout, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        std::string kind, path, rest;
        words >> kind >> path;
        std::getline(words >> std::ws, rest);
        fs::path full = fs::path(root) / path;
        fs::create_directories(full.parent_path());
        if (kind == "f") {
            std::ofstream(full) << rest << "\n";
        } else {
            fs::create_symlink(rest, full);
        }
    }
    return root;
}

const quelworks::PortDetails* find(const std::vector<quelworks::PortDetails>& ports,
                                   const std::string& name) {
    for (const auto& port : ports)
        if (port.name == name) return &port;
    return nullptr;
}

TEST(PortDetails, EachKindOfPortFromItsSysfsLayout) {
    std::string root = buildTree("data/sysfs_layouts.txt");
    auto ports = quelworks::detail::listSerialDeviceDetails(root + "/class/tty", "/dev");

    // The same ports, in the same order, as the plain listing: no placeholder, no console.
    std::vector<std::string> names;
    for (const auto& port : ports) names.push_back(port.name);
    EXPECT_EQ(names, quelworks::detail::listSerialDevices(root + "/class/tty", "/dev"));
    EXPECT_EQ(names, (std::vector<std::string>{"/dev/ttyACM0", "/dev/ttyAMA0", "/dev/ttyS0",
                                               "/dev/ttyUSB0"}));

    // USB-serial adapter: ids and texts from the USB device two levels above the port, the
    // interface as location, the usb-serial driver.
    const auto* usb = find(ports, "/dev/ttyUSB0");
    ASSERT_NE(usb, nullptr);
    EXPECT_EQ(usb->vendorId, 0x0403);
    EXPECT_EQ(usb->productId, 0x6001);
    EXPECT_EQ(usb->serialNumber, "A6008isP");
    EXPECT_EQ(usb->manufacturer, "FTDI");
    EXPECT_EQ(usb->product, "FT232R USB UART");
    EXPECT_EQ(usb->description, "FT232R USB UART");
    EXPECT_EQ(usb->location, "1-1.2:1.0");
    EXPECT_EQ(usb->driver, "ftdi_sio");

    // CDC-ACM: the tty's device is the interface itself.
    const auto* acm = find(ports, "/dev/ttyACM0");
    ASSERT_NE(acm, nullptr);
    EXPECT_EQ(acm->vendorId, 0x1209);
    EXPECT_EQ(acm->productId, 0x5bf0);
    EXPECT_EQ(acm->serialNumber, "QW1234");
    EXPECT_EQ(acm->manufacturer, "Quel Works");
    EXPECT_EQ(acm->description, "Bench Controller");
    EXPECT_EQ(acm->location, "1-3:1.0");
    EXPECT_EQ(acm->driver, "cdc_acm");

    // A real UART: no USB ids, the chip from the port type, the PNP driver and not the
    // serial-base "port" driver in between.
    const auto* uart = find(ports, "/dev/ttyS0");
    ASSERT_NE(uart, nullptr);
    EXPECT_EQ(uart->vendorId, -1);
    EXPECT_EQ(uart->productId, -1);
    EXPECT_EQ(uart->serialNumber, "");
    EXPECT_EQ(uart->description, "16550A UART");
    EXPECT_EQ(uart->driver, "serial");
    EXPECT_EQ(uart->location, "00:01");

    // A platform UART: its device-tree node as location, a port type without a chip name.
    const auto* soc = find(ports, "/dev/ttyAMA0");
    ASSERT_NE(soc, nullptr);
    EXPECT_EQ(soc->vendorId, -1);
    EXPECT_EQ(soc->driver, "uart-pl011");
    EXPECT_EQ(soc->location, "fe201000.serial");
    EXPECT_EQ(soc->description, "serial port");

    fs::remove_all(root);
}

TEST(PortDetails, BrokenTreesGiveNamesWithoutDetails) {
    std::string root = buildTree("data/sysfs_layouts.txt");
    // The USB device loses its attributes and the port's device link dangles: the port is
    // still listed by name, with empty details, and nothing is read from elsewhere.
    std::string usb = root + "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1.2";
    for (const char* file : {"idVendor", "idProduct", "serial", "manufacturer", "product"})
        fs::remove(usb + "/" + file);
    fs::remove_all(root + "/devices/pci0000:00/0000:00:14.0/usb1/1-3/1-3:1.0/tty/ttyACM0/device");
    fs::create_symlink("../../../gone", root +
                                            "/devices/pci0000:00/0000:00:14.0/usb1/1-3/1-3:1.0/"
                                            "tty/ttyACM0/device");
    auto ports = quelworks::detail::listSerialDeviceDetails(root + "/class/tty", "/dev");
    const auto* adapter = find(ports, "/dev/ttyUSB0");
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->vendorId, -1);
    EXPECT_EQ(adapter->serialNumber, "");
    EXPECT_EQ(adapter->driver, "ftdi_sio");
    // A dangling device link: the plain listing skips the port, and so do the details.
    EXPECT_EQ(find(ports, "/dev/ttyACM0"), nullptr);
    EXPECT_TRUE(quelworks::detail::listSerialDeviceDetails(root + "/missing", "/dev").empty());
    fs::remove_all(root);
}

}  // namespace
