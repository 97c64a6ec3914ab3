"""The USB head server from Python, opened by its ids or its place through libusb, against
the emulated USB head (the process runs with umockdev's preload)."""

import os
import struct
import time

import numpy as np
import pytest
import ztproxy
from conftest import Recorder, wait_for

Head = ztproxy.ztSimUsbHead
FRAME = 1280

if not Head.emulationAvailable():
    if os.environ.get("ZT_REQUIRE_USB_EMULATION"):
        raise RuntimeError("the umockdev preload is not active (LD_PRELOAD=libumockdev-preload.so.0)")
    pytest.skip("the USB head is emulated with LD_PRELOAD=libumockdev-preload.so.0", allow_module_level=True)


@pytest.fixture
def head():
    h = Head()
    assert h.start() == 0
    yield h
    h.stop()


def test_open_commands_stream_unplug(head):
    with pytest.raises(ValueError, match="no USB device 1d6b:0001"):
        ztproxy.ztUsbProxyServer(0x1D6B, 0x0001)
    with pytest.raises(ValueError, match="together"):
        ztproxy.ztUsbProxyServer(vid=Head.kVendor)

    recorder = Recorder()
    with ztproxy.ztUsbProxyServer(Head.kVendor, Head.kProduct) as server:
        server.registerModuleServerDataCB(recorder)
        server.init()
        assert wait_for(lambda: ztproxy.ZT_CODE_DEVICE_ONLINE in recorder.codes())
        assert server.getDeviceSN() == "ZTSIM0001"

        head.clearCommands()
        server.setCameraExposure(33.0)
        assert head.nextCommand(1000) == (7, struct.pack("<f", 33.0))
        assert server.getCameraExposure() == 33.0
        # The USB link hands back the head's status word; a negative one raises.
        head.device().setStatus(7, -5)
        with pytest.raises(ztproxy.CommandError) as refused:
            server.setCameraExposure(1.0)
        assert refused.value.result == -5
        head.device().setStatus(7, 3)
        assert server.setCameraExposure(1.0, check=False) == 3

        # Frames cut from the stream arrive whole, in order, as NumPy arrays.
        stamps = []
        server.registerModuleServerDataCB(
            lambda code, data: stamps.append(int.from_bytes(data[57:65].tobytes(), "little"))
            if code == FRAME
            else None
        )
        payload = np.arange(30000, dtype=np.uint16).tobytes()
        for stamp in range(1, 21):
            head.pushStream(Head.extendedPacket(FRAME, stamp, payload))
        assert wait_for(lambda: len(stamps) == 20)
        assert stamps == list(range(1, 21))

        server.registerModuleServerDataCB(recorder)
        head.unplug()
        assert wait_for(lambda: ztproxy.ZT_CODE_DEVICE_OFFLINE in recorder.codes(), 5)
        with pytest.raises(ztproxy.CommandError):
            server.getImageSize()


def test_open_by_place_and_teardown_while_streaming(head):
    # The emulated head is the only USB device: bus 1, address 1.
    server = ztproxy.ztUsbProxyServer(bus=1, address=1, stream_max_packet=65536)
    busy = []
    server.registerModuleServerDataCB(lambda code, data: busy.append(int(data.sum() > 0)) if code == FRAME else None)
    server.init()
    head.startStream(Head.extendedPacket(FRAME, 1, b"\x03" * 200000), 0, 0)
    assert wait_for(lambda: len(busy) > 5)
    start = time.monotonic()
    server.close()
    assert time.monotonic() - start < 5.0
    head.stopStream()
