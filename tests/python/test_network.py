"""The network head server from Python, against the simulated network head."""

import gc
import os
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

import numpy as np
import pytest
import ztproxy
from conftest import IP, Recorder, wait_for

Head = ztproxy.ztSimNetworkHead
FRAME = 1280


def test_commands_return_values_and_raise_on_failure(online, head):
    device = head.device()
    head.clearCommands()

    # A setting travels with the exact payload and returns None.
    assert online.setCameraExposure(12.5) is None
    assert head.nextCommand(1000) == (7, struct.pack("<f", 12.5))
    assert online.getCameraExposure() == 12.5

    # Getters: one value, or a tuple in the order of the C++ outputs.
    device.setImageSize(640, 480)
    assert online.getImageSize() == (640, 480)
    online.setCameraROI("LEFT", 1, 2, 30, 40)
    assert online.getCameraROI() == ("LEFT", 1, 2, 30, 40)
    assert online.getCameraSN() == ["ZTSIMCAM0", "ZTSIMCAM1"]
    assert online.getFirmwareVersion() == "1-2-10-3"
    ability = online.getDeviceAbilityInfo()
    assert (ability.abilityHeader, ability.productType, ability.ability11) == (1, 42, 11)
    online.setSystemId(0x1122334455667788)
    assert online.getSystemId() == 0x1122334455667788

    # The raw result on request.
    assert online.getCameraFrameRate(check=False) == (0, 30)
    assert online.sendTrigger(check=False) == 0

    # A refused setting raises with the result code; nothing else changes.
    device.setStatus(9, -3)
    with pytest.raises(ztproxy.CommandError) as refused:
        online.setLedExposure(2.0)
    assert (refused.value.command, refused.value.result) == ("setLedExposure", -1)
    assert online.setLedExposure(2.0, check=False) == -1

    # An argument the library rejects raises with the library's log line, and nothing is sent.
    head.clearCommands()
    with pytest.raises(ztproxy.CommandError) as rejected:
        online.syncTime2Device("2024-11-15")
    assert "shorter than 32 bytes" in rejected.value.log
    with pytest.raises(ztproxy.CommandError, match="period of 0"):
        online.setPeriod(0)
    assert head.nextCommand(200) is None


def test_bad_arguments_raise_clear_errors(online, head):
    with pytest.raises(TypeError, match="setCameraExposure"):
        online.setCameraExposure("bright")
    with pytest.raises(TypeError):  # a short holds no 70000
        online.setImageROI("ROI", 70000, 0, 10, 10)
    with pytest.raises(TypeError):
        online.setDropFrameRateMode(1)  # the enumeration, not its number
    online.setDropFrameRateMode(ztproxy.FRAME_DROP_HALF)
    with pytest.raises(TypeError):
        online.registerModuleServerDataCB(42)
    with pytest.raises(ValueError, match="queue"):
        online.registerModuleServerDataCB(print, queue=0)
    with pytest.raises(ValueError, match="shorter than"):
        online.getOriImageData(bytearray(64) + struct.pack("<QHH", 0, 10, 10) + bytes(199))
    online.close()
    with pytest.raises(RuntimeError, match="closed"):
        online.getImageSize()


def test_stream_of_frames_into_numpy(online, head, recorder):
    seen = []

    def on_data(code, data):
        if code == FRAME:
            assert data.dtype == np.uint8 and data.ndim == 1
            stamp = int.from_bytes(data[57:65].tobytes(), "little")
            seen.append((stamp, data.copy()))

    online.registerModuleServerDataCB(on_data)
    payload = bytes(range(256)) * 400
    for stamp in range(1, 41):
        head.sendExtendedPacket(Head.Data, FRAME, stamp, payload)
    assert wait_for(lambda: len(seen) == 40)
    # Every frame whole and in order; the kept copies stay intact after their calls.
    assert [s for s, _ in seen] == list(range(1, 41))
    expected = np.frombuffer(Head.extendedPacket(FRAME, 40, payload)[7:-1], np.uint8)
    assert np.array_equal(seen[-1][1], expected)
    assert all(np.array_equal(frame[69:], expected[69:]) for _, frame in seen)
    assert online.frames_dropped == 0


def test_a_callback_keeping_its_view_is_warned(online, head):
    kept = []
    online.registerModuleServerDataCB(lambda code, data: kept.append(data) if code == FRAME else None)
    with pytest.warns(RuntimeWarning, match=r"data.copy\(\)"):
        head.sendExtendedPacket(Head.Data, FRAME, 1, b"\x05" * 1000)
        assert wait_for(lambda: kept)


def test_image_helpers_return_numpy_arrays():
    assembler = ztproxy.ztImageAssembler()
    pixels = np.array([0, 144, 145, 1024, 1027, 1028, 2000, 500], np.uint16)
    scaled = (np.maximum(pixels.astype(np.int64), 144) - 144) * 255 // 880
    record = bytearray(b"H" * 64) + struct.pack("<QHH", 99, 4, 2) + pixels.tobytes()
    image, width, height, stamp, header = assembler.getOriImageData(record)
    assert image.dtype == np.uint8 and image.shape == (2, 4)
    # The low byte of the scaled value: 1028 and above wrap.
    assert np.array_equal(image.ravel(), scaled & 0xFF)
    assert (width, height, stamp, header) == (4, 2, 99, b"H" * 64)
    # The record's pixels are rewritten in place.
    assert np.array_equal(np.frombuffer(bytes(record[76:]), np.uint16), scaled)

    src = pixels.copy()
    image = assembler.imageFormat_16To8(src, 6, 2, 4)
    assert np.array_equal(image.ravel(), np.append(scaled[:6] & 0xFF, [0, 0]))

    full = np.zeros((4, 5), np.uint8)
    assembler.MergePart2Complete(full, bytes([1, 2, 3, 4]), 1, 2, 2, 2)
    assert full[2:4, 1:3].tolist() == [[1, 2], [3, 4]] and full.sum() == 10
    with pytest.raises(ztproxy.CommandError):
        assembler.MergePart2Complete(full, bytes(4), 4, 3, 2, 2)
    with pytest.raises(ValueError):
        assembler.MergePart2Complete(full, bytes(3), 0, 0, 2, 2)


def test_slow_consumer_drops_frames_instead_of_stalling_the_stream(online, head):
    calls = []

    def slow(code, data):
        if code == FRAME:
            calls.append(len(data))
            time.sleep(0.05)

    online.registerModuleServerDataCB(slow, queue=2)
    unit = Head.extendedPacket(FRAME, 1, b"\x07" * 20000)
    head.startStream(Head.Data, unit, 200, 0)
    # 200 frames at 50 ms each would hold a stalled stream for 10 s.
    start = time.monotonic()
    assert head.waitStreamDone(5000)
    assert time.monotonic() - start < 3.0
    # Every frame is either handed on or counted dropped (up to the queue and the one in
    # hand), and the link stays up.
    assert wait_for(lambda: len(calls) + online.frames_dropped >= 200 - 3)
    assert len(calls) < 200
    assert online.getImageSize() == (1280, 1024)


def test_callbacks_and_commands_from_several_threads(online, head, recorder):
    unit = Head.extendedPacket(FRAME, 1, b"\x01" * 50000)
    head.startStream(Head.Data, unit, 0, 20e6)
    errors = []

    def commands(n):
        try:
            for i in range(15):
                online.setCameraGain(float(n * 100 + i))
                assert isinstance(online.getCameraGain(), float)
                assert online.getImageSize() == (1280, 1024)
        except Exception as e:  # reported below, with its thread
            errors.append((n, e))

    threads = [threading.Thread(target=commands, args=(n,)) for n in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(20)
    head.stopStream()
    assert not errors
    assert not any(t.is_alive() for t in threads)
    # Frames arrived meanwhile, on the library's own threads.
    frames = [tid for code, _, tid in recorder.calls if code == FRAME]
    assert frames and threading.get_ident() not in frames


def test_head_going_offline_and_coming_back(online, head, recorder):
    head.setSilent(True)
    # Five silent heartbeat periods of 500 ms.
    assert wait_for(lambda: ztproxy.ZT_CODE_DEVICE_OFFLINE in recorder.codes(), 5)
    assert not online.isConnected()
    with pytest.raises(ztproxy.CommandError):
        online.getImageSize()
    head.setSilent(False)
    online.deInit()
    online.init(IP, IP, "SIM")
    assert wait_for(lambda: recorder.count(ztproxy.ZT_CODE_DEVICE_ONLINE) == 2)
    assert online.getImageSize() == (1280, 1024)


@pytest.mark.parametrize("how", ["close", "del", "deInit"])
def test_teardown_while_streaming(head, how):
    server = ztproxy.ztEmbeddedModuleProxyServer()
    busy = threading.Event()

    def on_data(code, data):
        if code == FRAME:
            busy.set()
            sum(range(2000))  # Python work while holding the GIL

    server.registerModuleServerDataCB(on_data)
    server.init(IP, IP, "SIM")
    head.startStream(Head.Data, Head.extendedPacket(FRAME, 1, b"\x02" * 100000), 0, 0)
    assert busy.wait(5)
    ended = []
    asking = threading.Event()

    def commands():
        # Commands from another thread run into the close, never into a freed object.
        for _ in range(2000):
            try:
                asking.set()
                server.getImageSize()
            except RuntimeError as e:  # CommandError included
                if "closed" in str(e):
                    ended.append(e)
                    return

    worker = threading.Thread(target=commands)
    start = time.monotonic()
    if how == "close":
        worker.start()
        assert asking.wait(5)
        server.close()
        worker.join(10)
        assert ended
    elif how == "deInit":
        server.deInit()
        server.deInit()
    else:
        del server
        gc.collect()
    assert time.monotonic() - start < 5.0
    head.stopStream()


@pytest.mark.skipif("ZTPROXY_TOOL" not in os.environ, reason="needs the ztproxy tool (ZTPROXY_TOOL)")
def test_the_example_runs_against_the_tool_s_simulated_head():
    example = Path(__file__).resolve().parents[2] / "examples" / "stream_frames.py"
    sim = subprocess.Popen([os.environ["ZTPROXY_TOOL"], "sim", "head", "--stream-rate", "100", "--full-frames"],
                           stdout=subprocess.PIPE, text=True)
    try:
        assert "listening" in sim.stdout.readline()
        run = subprocess.run([sys.executable, str(example), "--seconds", "0.5"], capture_output=True, text=True,
                             timeout=30)
    finally:
        sim.terminate()
        sim.wait(10)
    assert run.returncode == 0, run.stderr
    assert "head online, firmware 1-2-10-3, image 1280x1024" in run.stdout
    assert "frame 1: 1280x1024 image, 8-bit mean" in run.stdout


def test_udp_client_broadcasts_and_collects_one_reply():
    # Broadcasts reach only this namespace's loopback once the limited broadcast address is
    # routed there.
    route = subprocess.run(["ip", "route", "add", "255.255.255.255/32", "dev", "lo"], capture_output=True, text=True)
    if route.returncode != 0 and "File exists" not in route.stderr:
        pytest.skip("needs a private network namespace: " + route.stderr.strip())
    responder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    responder.bind(("0.0.0.0", 42002))
    reply = Head.message(7, b"sn=ZT0001")
    seen = []

    def answer():
        request, sender = responder.recvfrom(2048)
        seen.append((request, sender))
        responder.sendto(reply[:5], sender)  # one message in two datagrams
        responder.sendto(reply[5:], sender)

    server = threading.Thread(target=answer)
    server.start()
    client = ztproxy.ztScanEmbeddedUDPClient()
    try:
        client.init()
        client.connect(IP, 42002)
        assert client.sendn(Head.message(1, b"?")) == reply
        server.join(5)
        assert seen == [(Head.message(1, b"?"), (IP, 32002))]
        assert client.getConnectIP() == IP
        assert client.recv() is None  # nothing more arrives
    finally:
        client.deInit()
        responder.close()
