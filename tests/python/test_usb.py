"""The USB head server from Python, opened by its ids or its place through libusb, against
the emulated USB head (the process runs with umockdev's preload)."""

import os
import struct

import pytest
import ztproxy
from conftest import FRAME, Recorder, stamp, wait_for

Head = ztproxy.ztSimUsbHead

if not Head.emulationAvailable():
    if os.environ.get("ZT_REQUIRE_USB_EMULATION"):
        raise RuntimeError("the umockdev preload is not active (LD_PRELOAD=libumockdev-preload.so.0)")
    pytest.skip("the USB head is emulated with LD_PRELOAD=libumockdev-preload.so.0", allow_module_level=True)


def test_open_by_ids_or_place_commands_and_frames():
    head = Head()
    assert head.start() == 0
    try:
        with pytest.raises(ValueError, match="no USB device 1d6b:0001"):
            ztproxy.ztUsbProxyServer(0x1D6B, 0x0001)
        with pytest.raises(ValueError, match="together"):
            ztproxy.ztUsbProxyServer(vid=Head.kVendor)

        recorder = Recorder()
        with ztproxy.ztUsbProxyServer(Head.kVendor, Head.kProduct) as server:
            server.registerModuleServerDataCB(recorder)
            server.init()
            assert wait_for(lambda: ztproxy.ZT_CODE_DEVICE_ONLINE in recorder.codes())
            head.clearCommands()
            server.setCameraExposure(33.0)
            assert head.nextCommand(1000) == (7, struct.pack("<f", 33.0))
            # Frames cut from the stream arrive whole and in order.
            for n in range(1, 21):
                head.pushStream(Head.extendedPacket(FRAME, n, bytes(range(256)) * 200))
            assert wait_for(lambda: recorder.codes().count(FRAME) == 20)
            assert [stamp(d) for c, d, _ in recorder.calls if c == FRAME] == list(range(1, 21))

        # The with block released the head: it opens again by its place, the only USB device.
        with ztproxy.ztUsbProxyServer(bus=1, address=1, stream_max_packet=65536) as server:
            server.init()
            assert server.getDeviceSN() == "ZTSIM0001"
    finally:
        head.stop()
