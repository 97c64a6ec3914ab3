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
from conftest import FRAME, IP, stamp, wait_for

Head = ztproxy.ztSimNetworkHead


def test_command_results_values_and_errors(online, head):
    device = head.device()
    head.clearCommands()
    assert online.setCameraExposure(12.5) is None
    assert head.nextCommand(1000) == (7, struct.pack("<f", 12.5))
    # Several values come back as a tuple in the order of the C++ outputs.
    device.setImageSize(640, 480)
    assert online.getImageSize() == (640, 480)
    online.setCameraROI("LEFT", 1, 2, 30, 40)
    assert online.getCameraROI() == ("LEFT", 1, 2, 30, 40)
    assert online.getCameraSN() == ["ZTSIMCAM0", "ZTSIMCAM1"]
    # check=False: the raw result, paired with the values when there are some.
    assert online.getCameraFrameRate(check=False) == (0, 30)
    assert online.sendTrigger(check=False) == 0

    device.setStatus(9, -3)
    with pytest.raises(ztproxy.CommandError) as refused:
        online.setLedExposure(2.0)
    assert (refused.value.command, refused.value.result) == ("setLedExposure", -1)
    assert online.setLedExposure(2.0, check=False) == -1
    # An argument the library refuses: its warning in the error, and nothing sent.
    head.clearCommands()
    with pytest.raises(ztproxy.CommandError) as rejected:
        online.syncTime2Device("2024-11-15")
    assert "shorter than 32 bytes" in rejected.value.log
    assert head.nextCommand(200) is None


def test_frames_reach_the_callback_whole_and_in_order(online, head):
    frames = []
    online.registerModuleServerDataCB(lambda code, data: frames.append(data.copy()) if code == FRAME else None)
    payload = bytes(range(256)) * 400
    for n in range(1, 41):
        head.sendExtendedPacket(Head.Data, FRAME, n, payload)
    assert wait_for(lambda: len(frames) == 40)
    assert [stamp(f) for f in frames] == list(range(1, 41))
    expected = np.frombuffer(Head.extendedPacket(FRAME, 40, payload)[7:-1], np.uint8)
    assert frames[-1].dtype == np.uint8 and np.array_equal(frames[-1], expected)
    assert all(np.array_equal(f[69:], expected[69:]) for f in frames)
    assert online.frames_dropped == 0


def test_a_callback_keeping_its_view_is_warned(online, head):
    kept = []
    online.registerModuleServerDataCB(lambda code, data: kept.append(data) if code == FRAME else None)
    with pytest.warns(RuntimeWarning, match=r"data.copy\(\)"):
        head.sendExtendedPacket(Head.Data, FRAME, 1, b"\x05" * 1000)
        assert wait_for(lambda: kept)


def test_a_stuck_callback_gets_a_bounded_queue_and_the_link_reads_on(online, head):
    stamps, stuck, release = [], threading.Event(), threading.Event()

    def on_data(code, data):
        if code != FRAME:
            return
        stamps.append(stamp(data))
        if len(stamps) == 1:
            time.sleep(0.05)  # too slow to be called directly: later frames are queued
        elif len(stamps) == 2:
            stuck.set()
            release.wait(10)

    head.setAnswerHeartbeats(False)  # nothing but frames takes a place in the queue
    online.registerModuleServerDataCB(on_data, queue=2)
    for n in range(1, 11):
        head.sendExtendedPacket(Head.Data, FRAME, n, b"\x07" * 20000)
        if n == 2:
            assert stuck.wait(5)
    # Two frames wait for the stuck callback; the other six are read and dropped.
    assert wait_for(lambda: online.frames_dropped == 6)
    release.set()
    assert wait_for(lambda: stamps == [1, 2, 3, 4])


def test_image_records_into_numpy():
    assembler = ztproxy.ztImageAssembler()
    pixels = np.array([0, 144, 145, 1024, 1027, 500], np.uint16)
    scaled = (np.maximum(pixels.astype(np.int64), 144) - 144) * 255 // 880
    record = bytearray(b"H" * 64) + struct.pack("<QHH", 99, 3, 2) + pixels.tobytes()
    image, width, height, when, header = assembler.getOriImageData(record)
    assert image.dtype == np.uint8 and image.shape == (2, 3)
    assert np.array_equal(image.ravel(), scaled)
    assert (width, height, when, header) == (3, 2, 99, b"H" * 64)
    # The record's pixels are rewritten in place.
    assert np.array_equal(np.frombuffer(bytes(record[76:]), np.uint16), scaled)
    with pytest.raises(ValueError, match="shorter than"):  # 3 x 2 pixels need 12 bytes
        assembler.getOriImageData(record[:-1])

    full = np.zeros((4, 5), np.uint8)
    assembler.MergePart2Complete(full, bytes([1, 2, 3, 4]), 1, 2, 2, 2)
    assert full[2:4, 1:3].tolist() == [[1, 2], [3, 4]] and full.sum() == 10
    with pytest.raises(ValueError):
        assembler.MergePart2Complete(full, bytes(3), 0, 0, 2, 2)


@pytest.mark.parametrize("how", ["close", "del"])
def test_teardown_while_the_callback_runs(head, how):
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
    start = time.monotonic()
    if how == "close":
        server.close()
        with pytest.raises(RuntimeError, match="object is closed"):
            server.getImageSize()
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

    def answer():
        _, sender = responder.recvfrom(2048)
        responder.sendto(reply, sender)

    server = threading.Thread(target=answer)
    server.start()
    client = ztproxy.ztScanEmbeddedUDPClient()
    try:
        client.init()
        client.connect(IP, 42002)
        assert client.sendn(Head.message(1, b"?")) == reply
        server.join(5)
        assert client.recv() is None  # nothing more arrives
    finally:
        client.deInit()
        responder.close()
