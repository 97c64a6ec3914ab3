#!/usr/bin/env python3
"""A stream delivered into a Python callback that only counts, against the same stream
into a C++ callback that only counts (ztproxy.FrameCounter), measured in the same run.

A simulated network head in a child process streams extended-header packets on loopback
as fast as the host reads; each round brings a ztEmbeddedModuleProxyServer online, lets the
stream settle, and counts the packets delivered in a fixed window. Rounds alternate
between the two callbacks, each going first in turn; the figures are the medians of the
rounds, and the ratio is the median of the ratios of rounds run back to back, which holds
on a busy machine. Run it inside a private network namespace (the head's port is fixed):
./run bench does.

Prints frames/s, MB/s and the ratio Python / C++; appends a JSON line to $ZT_BENCH_JSON.
"""

import json
import os
import statistics
import sys
import time

import ztproxy

IP = "127.0.0.1"
TYPE = 1280
WINDOW = 1.0  # seconds counted per round
SETTLE = 0.3
ROUNDS = 6
# Full frames of 1280 x 1024 16-bit pixels, and small packets that show the cost per call.
SIZES = [("full frames, 2.6 MB", 1280 * 1024 * 2 + 76), ("packets, 256 KiB", 262144 - 77)]


def serve_stream(payload_size, ready_w, stop_r):
    """In the child: a head that streams until the parent closes its pipe."""
    head = ztproxy.ztSimNetworkHead(IP)
    if head.start() != 0:
        os._exit(2)
    unit = ztproxy.ztSimNetworkHead.extendedPacket(TYPE, 1, b"\x11" * payload_size)
    head.startStream(ztproxy.ztSimNetworkHead.Data, unit, 0, 0)
    os.write(ready_w, b"r")
    os.read(stop_r, 1)
    head.stop()
    os._exit(0)


class PythonCount:
    def __init__(self):
        self.frames = 0
        self.bytes = 0

    def __call__(self, code, data):
        if code == TYPE:
            self.frames += 1
            self.bytes += len(data)


def cpu_seconds():
    t = os.times()
    return t.user + t.system


def one_round(native):
    """Frames/s, MB/s and CPU microseconds per frame of one window, and the frames dropped."""
    counter = ztproxy.FrameCounter(TYPE) if native else PythonCount()
    server = ztproxy.ztEmbeddedModuleProxyServer()
    server.registerModuleServerDataCB(counter, queue=8)
    server.init(IP, IP, "bench")
    time.sleep(SETTLE)
    frames0, bytes0, t0, cpu0 = counter.frames, counter.bytes, time.monotonic(), cpu_seconds()
    time.sleep(WINDOW)
    frames1, bytes1, t1, cpu1 = counter.frames, counter.bytes, time.monotonic(), cpu_seconds()
    dropped = server.frames_dropped
    server.close()
    seconds = t1 - t0
    frames = max(frames1 - frames0, 1)
    return frames / seconds, (bytes1 - bytes0) / seconds / 1e6, (cpu1 - cpu0) / frames * 1e6, dropped


def measure(payload_size):
    """The rounds of each callback: (C++ rounds, Python rounds)."""
    ready_r, ready_w = os.pipe()
    stop_r, stop_w = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(ready_r)
        os.close(stop_w)
        serve_stream(payload_size, ready_w, stop_r)
    os.close(ready_w)
    os.close(stop_r)
    os.read(ready_r, 1)
    rounds = {True: [], False: []}
    for r in range(ROUNDS):
        for native in (True, False) if r % 2 == 0 else (False, True):
            rounds[native].append(one_round(native))
    os.close(stop_w)
    os.waitpid(child, 0)
    return rounds[True], rounds[False]


def main():
    ztproxy.set_log_level("off")
    print("stream into a callback that only counts, network head on loopback")
    results = []
    for label, size in SIZES:
        native_rounds, python_rounds = measure(size)
        ratio = statistics.median(p[1] / n[1] for n, p in zip(native_rounds, python_rounds) if n[1] > 0)
        native = [statistics.median(r[i] for r in native_rounds) for i in range(3)]
        python = [statistics.median(r[i] for r in python_rounds) for i in range(3)]
        dropped = sum(r[3] for r in python_rounds)
        print(f"  {label:<20} C++ callback    {native[0]:7.0f} frames/s {native[1]:6.0f} MB/s"
              f" {native[2]:6.0f} us CPU/frame")
        print(f"  {'':<20} Python callback {python[0]:7.0f} frames/s {python[1]:6.0f} MB/s"
              f" {python[2]:6.0f} us CPU/frame  ratio {ratio:.2f}, {dropped} dropped")
        results.append({"stream": label, "packet_bytes": size + 77, "cpp_fps": round(native[0]),
                        "cpp_MBps": round(native[1]), "cpp_cpu_us_per_frame": round(native[2], 1),
                        "python_fps": round(python[0]), "python_MBps": round(python[1]),
                        "python_cpu_us_per_frame": round(python[2], 1), "ratio": round(ratio, 3),
                        "python_dropped": dropped})
    path = os.environ.get("ZT_BENCH_JSON")
    if path:
        with open(path, "a") as out:
            for r in results:
                out.write(json.dumps({"benchmark": "python_callback_bench", **r}) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
