// Opening a USB head for ztUsbProxyServer against the emulated head on real libusb: the
// endpoint description from the descriptors, the serial number, refusals, release on close.
#include "usb_open.h"
#include "ztSimUsbHead.h"

#include <gtest/gtest.h>
#include <libusb.h>

#include <string>
#include <vector>

namespace zt::tools {
namespace {

using Head = ztSimUsbHead;

// Sends a trigger command on the control OUT endpoint of an opened head.
int sendTrigger(const UsbHead& h)
{
    const int one = 1;
    std::vector<char> msg = Head::message(13, &one, sizeof one);
    int sent = 0;
    return libusb_bulk_transfer(h.handle(), h.info().ctrlOutEndpoint, reinterpret_cast<unsigned char*>(msg.data()),
                                static_cast<int>(msg.size()), &sent, 1500);
}

TEST(UsbOpen, FillsTheEndpointDescriptionFromTheDescriptors)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    {
        UsbHead h;
        std::string error;
        ASSERT_TRUE(h.open({Head::kVendor, Head::kProduct, ""}, error)) << error;
        ASSERT_NE(h.handle(), nullptr);
        const _ZT_USB3_DEVICE_INFO_& info = h.info();
        const _ZT_USB3_DEVICE_INFO_ expected = Head::deviceInfo();
        EXPECT_EQ(info.streamInEndpoint, expected.streamInEndpoint);
        EXPECT_EQ(info.ctrlInEndpoint, expected.ctrlInEndpoint);
        EXPECT_EQ(info.eventInEndpoint, expected.eventInEndpoint);
        EXPECT_EQ(info.ctrlOutEndpoint, expected.ctrlOutEndpoint);
        EXPECT_EQ(info.heartbeatOutEndpoint, expected.heartbeatOutEndpoint);
        // wMaxPacketSize of each bulk IN endpoint as the head describes it (compared as
        // copies: the packed fields are misaligned).
        EXPECT_EQ(+info.streamMaxPacket, 1024u);
        EXPECT_EQ(+info.ctrlMaxPacket, 1024u);
        EXPECT_EQ(+info.eventMaxPacket, 1024u);
        EXPECT_STREQ(info.serialNumber, Head::kSerialNumber);
        const std::vector<unsigned char> zeros(5, 0);
        EXPECT_EQ(std::vector<unsigned char>(info.reserved0, info.reserved0 + 5), zeros);

        // Interface 0 is claimed: a command goes out on the control endpoint.
        ASSERT_EQ(sendTrigger(h), 0);
        Head::Request r;
        ASSERT_TRUE(head.nextCommand(r, 1000));
        EXPECT_EQ(r.type, 13);
    }
    // Closed and released: the head opens again, now chosen by its serial number.
    {
        UsbHead h;
        std::string error;
        ASSERT_TRUE(h.open({Head::kVendor, Head::kProduct, Head::kSerialNumber}, error)) << error;
        EXPECT_EQ(sendTrigger(h), 0);
        Head::Request r;
        EXPECT_TRUE(head.nextCommand(r, 1000));
    }
    head.stop();
}

TEST(UsbOpen, RefusesWithOneLineWhenNoDeviceFits)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    UsbHead h;
    std::string error;
    EXPECT_FALSE(h.open({Head::kVendor, Head::kProduct, "ZTSIM0002"}, error));
    EXPECT_EQ(error, "no USB device 1d6b:5a01 with serial number ZTSIM0002");
    EXPECT_EQ(h.handle(), nullptr);
    EXPECT_FALSE(h.open({0x1234, 0x5678, ""}, error));
    EXPECT_EQ(error, "no USB device 1234:5678");

    head.unplug();
    EXPECT_FALSE(h.open({Head::kVendor, Head::kProduct, ""}, error));
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_EQ(h.handle(), nullptr);
    head.replug();
    EXPECT_TRUE(h.open({Head::kVendor, Head::kProduct, ""}, error)) << error;
    EXPECT_EQ(sendTrigger(h), 0);
    // Opening again closes the first handle before it looks.
    EXPECT_TRUE(h.open({Head::kVendor, Head::kProduct, ""}, error)) << error;
    EXPECT_EQ(sendTrigger(h), 0);
}

TEST(UsbOpen, IdsAreHexadecimal)
{
    unsigned short id = 0;
    EXPECT_TRUE(parseUsbId("1d6b", id));
    EXPECT_EQ(id, 0x1d6b);
    EXPECT_TRUE(parseUsbId("0x5A01", id));
    EXPECT_EQ(id, 0x5a01);
    EXPECT_TRUE(parseUsbId("ffff", id));
    EXPECT_EQ(id, 0xffff);
    for (const char* bad : {"", "0x", "10000", "-1", "1d6g", " 1d6b", "0x0x1"})
        EXPECT_FALSE(parseUsbId(bad, id)) << bad;
    EXPECT_EQ(id, 0xffff);
}

} // namespace
} // namespace zt::tools
