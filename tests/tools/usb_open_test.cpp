// Opening a USB head for ztUsbProxyServer against the emulated head on real libusb. The
// tool's tests open it by vendor and product and run commands through it; here what they
// do not reach: the packet sizes read from the descriptors, the choice by serial number,
// the refusals' texts, a head unplugged and back, and opening twice.
#include "usb_open.h"
#include "ztSimUsbHead.h"

#include <gtest/gtest.h>
#include <libusb.h>

namespace zt::tools {
namespace {

using Head = ztSimUsbHead;

// Sends a trigger on the control OUT endpoint of an opened head; true once the head has it.
bool triggers(const UsbHead& h, Head& head)
{
    const int one = 1;
    std::vector<char> msg = Head::message(13, &one, sizeof one);
    int sent = 0;
    Head::Request r;
    return libusb_bulk_transfer(h.handle(), h.info().ctrlOutEndpoint, reinterpret_cast<unsigned char*>(msg.data()),
                                static_cast<int>(msg.size()), &sent, 1500) == 0 &&
           head.nextCommand(r, 1000) && r.type == 13;
}

TEST(UsbOpen, DescriptorsSerialNumbersRefusalsAndReopening)
{
    Head head;
    ASSERT_EQ(head.start(), 0);
    std::string error;
    UsbHead other;
    {
        UsbHead h;
        ASSERT_TRUE(h.open({Head::kVendor, Head::kProduct, Head::kSerialNumber}, error)) << error;
        const _ZT_USB3_DEVICE_INFO_& info = h.info();
        const _ZT_USB3_DEVICE_INFO_ expected = Head::deviceInfo();
        EXPECT_EQ(info.eventInEndpoint, expected.eventInEndpoint);
        EXPECT_EQ(info.heartbeatOutEndpoint, expected.heartbeatOutEndpoint);
        // wMaxPacketSize of each bulk IN endpoint as the head describes it (copies: the packed
        // fields are misaligned).
        EXPECT_EQ(+info.streamMaxPacket, 1024u);
        EXPECT_EQ(+info.ctrlMaxPacket, 1024u);
        EXPECT_EQ(+info.eventMaxPacket, 1024u);
        EXPECT_STREQ(info.serialNumber, Head::kSerialNumber);
        EXPECT_TRUE(triggers(h, head));
        // Opening again closes the first handle (and releases its interface) before it looks.
        EXPECT_TRUE(h.open({Head::kVendor, Head::kProduct, ""}, error)) << error;
        EXPECT_TRUE(triggers(h, head));
        EXPECT_FALSE(other.open({Head::kVendor, Head::kProduct, "ZTSIM0002"}, error));
        EXPECT_EQ(error, "no USB device 1d6b:5a01 with serial number ZTSIM0002");
        EXPECT_EQ(other.handle(), nullptr);
    }
    head.unplug();
    EXPECT_FALSE(other.open({Head::kVendor, Head::kProduct, ""}, error));
    EXPECT_EQ(error.find('\n'), std::string::npos);
    head.replug();
    EXPECT_TRUE(other.open({Head::kVendor, Head::kProduct, ""}, error)) << error;
    EXPECT_TRUE(triggers(other, head));
}

TEST(UsbOpen, IdsAreHexadecimal)
{
    unsigned short id = 0;
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
