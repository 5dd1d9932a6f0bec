// Choosing ports by --match pattern, and the rows of the several-device display.
#include <gtest/gtest.h>

#include "port_select.h"

namespace {

using quelworks::cli::globMatch;

TEST(PortSelect, GlobMatchesLikeAShell) {
    EXPECT_TRUE(globMatch("ttyUSB*", "ttyUSB0"));
    EXPECT_TRUE(globMatch("ttyUSB*", "ttyUSB"));
    EXPECT_TRUE(globMatch("/dev/tty?SB1*", "/dev/ttyUSB12"));
    EXPECT_TRUE(globMatch("*", ""));
    EXPECT_TRUE(globMatch("/tmp/*/dev*", "/tmp/line/devA"));
    EXPECT_TRUE(globMatch("*a*b*c", "xxaxxbxxbxxc"));  // needs backtracking past a false 'b'
    EXPECT_FALSE(globMatch("ttyUSB?", "ttyUSB10"));
    EXPECT_FALSE(globMatch("ttyACM*", "ttyUSB0"));
    EXPECT_FALSE(globMatch("", "x"));
    EXPECT_FALSE(globMatch("*a*b*c", "xxaxxbxxbxxd"));
    // Many stars on a long text that nearly matches: must not take exponential time.
    EXPECT_FALSE(globMatch("*a*a*a*a*a*a*a*a*a*b", std::string(200, 'a')));
}

TEST(PortSelect, PatternsMatchIdsSerialNumbersAndNames) {
    int vendor = 0, product = 0;
    EXPECT_TRUE(quelworks::cli::parseVidPid("0403:6001", &vendor, &product));
    EXPECT_EQ(vendor, 0x0403);
    EXPECT_EQ(product, 0x6001);
    EXPECT_TRUE(quelworks::cli::parseVidPid("1209:5BF0", &vendor, &product));
    EXPECT_EQ(product, 0x5bf0);
    for (const char* bad : {"0403:601", "0403-6001", "04030:6001", "0x03:6001", "zzzz:0000", ""})
        EXPECT_FALSE(quelworks::cli::parseVidPid(bad, &vendor, &product)) << bad;

    quelworks::PortDetails adapter;
    adapter.name = "/dev/ttyUSB3";
    adapter.vendorId = 0x0403;
    adapter.productId = 0x6001;
    adapter.serialNumber = "A6008isP";
    quelworks::PortDetails uart;
    uart.name = "/dev/ttyS0";
    using quelworks::cli::portMatches;
    EXPECT_TRUE(portMatches(adapter, "0403:6001"));
    EXPECT_FALSE(portMatches(adapter, "0403:6015"));
    EXPECT_FALSE(portMatches(uart, "0403:6001"));
    EXPECT_TRUE(portMatches(adapter, "A6008isP"));
    EXPECT_FALSE(portMatches(adapter, "A6008is"));  // a serial number matches whole
    EXPECT_FALSE(portMatches(uart, ""));            // an empty serial number matches nothing
    EXPECT_TRUE(portMatches(adapter, "ttyUSB*"));   // the name's last part
    EXPECT_TRUE(portMatches(adapter, "/dev/ttyUSB?"));
    EXPECT_FALSE(portMatches(uart, "ttyUSB*"));
    EXPECT_TRUE(quelworks::cli::isPathPattern("/dev/serial/by-id/*"));
    EXPECT_FALSE(quelworks::cli::isPathPattern("ttyUSB*"));
    EXPECT_EQ(quelworks::cli::formatVidPid(0x0403, 0x6001), "0403:6001");
    EXPECT_EQ(quelworks::cli::formatVidPid(-1, 0x6001), "");
}

TEST(PortSelect, DeviceRowsKeepTheirColumnsAndFitTheTerminal) {
    using quelworks::cli::deviceRow;
    std::string half = deviceRow("/dev/pts/3", "SN1", 500, 1000, 11468.8, "writing", 12, 200);
    EXPECT_EQ(half, "/dev/pts/3    SN1         [##########..........]  50%  11.2 KiB/s    writing");
    // Rows of ports of different lengths line up; an unknown serial shows as '-'.
    std::string other = deviceRow("/dev/pts/12", "", 0, 0, 0, "connecting", 12, 200);
    EXPECT_EQ(other.find('['), half.find('['));
    EXPECT_EQ(other.substr(0, 27), "/dev/pts/12   -           [");
    EXPECT_TRUE(other.find("  0%") != std::string::npos);
    // Never more than the terminal's width less one column.
    EXPECT_EQ(deviceRow("/dev/pts/3", "SN1", 1000, 1000, 1, "verified", 12, 40).size(), 39u);
    // More than the total (never expected) still draws a full bar, not past it.
    EXPECT_NE(deviceRow("p", "s", 2000, 1000, 0, "", 1, 200).find("[####################]"),
              std::string::npos);
}

}  // namespace
