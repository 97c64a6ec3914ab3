#!/usr/bin/env python3
"""Bring a network scanner head online from Python, read a few values, count the frames it
streams, and turn one full frame into an 8-bit image.

Against the simulated head (in another terminal, or in the background):

    ztproxy sim head --stream-rate 100 --full-frames &
    python3 examples/stream_frames.py --seconds 2

The data callback runs on the library's own threads. Its array views the library's buffer
only while the callback runs: keep data.copy(), never data itself. A callback that falls
behind loses frames (server.frames_dropped) rather than holding up the stream.
"""

import argparse
import sys
import threading
import time

import numpy as np
import ztproxy

FULL_FRAME = 1280  # stream packets carrying a full-frame record
RECORD_AT = 69  # the record starts 69 bytes into what the callback receives


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--local", default="127.0.0.1", help="local IPv4 address")
    parser.add_argument("--remote", default="127.0.0.1", help="the head's IPv4 address")
    parser.add_argument("--seconds", type=float, default=2.0, help="how long to count frames")
    args = parser.parse_args()

    lock = threading.Lock()
    counts = {"frames": 0, "bytes": 0}
    kept = []

    def on_data(code, data):
        if code == ztproxy.ZT_CODE_DEVICE_OFFLINE:
            print("head offline")
        if code != FULL_FRAME:
            return
        with lock:
            counts["frames"] += 1
            counts["bytes"] += len(data)
            if not kept:
                kept.append(data[RECORD_AT:].copy())  # a copy outlives the call

    with ztproxy.ztEmbeddedModuleProxyServer() as server:
        server.registerModuleServerDataCB(on_data)
        try:
            server.init(args.local, args.remote, "")
        except ztproxy.CommandError as e:
            print(f"the head at {args.remote} did not come online: {e}", file=sys.stderr)
            return 1
        width, height = server.getImageSize()
        print(f"head online, firmware {server.getFirmwareVersion()}, image {width}x{height}")
        print(f"exposure {server.getCameraExposure():.1f}, cameras {', '.join(server.getCameraSN())}")

        server.sendTrigger()
        start = time.monotonic()
        time.sleep(args.seconds)
        elapsed = time.monotonic() - start
        server.sendStopTrigger()
        with lock:
            frames, nbytes = counts["frames"], counts["bytes"]
        print(f"{frames} frames in {elapsed:.1f} s: {frames / elapsed:.1f} frames/s, "
              f"{nbytes / elapsed / 1e6:.1f} MB/s, {server.frames_dropped} dropped")

        if kept:
            image, w, h, stamp, _ = server.getOriImageData(kept[0])
            print(f"frame {stamp}: {w}x{h} image, 8-bit mean {image.mean():.1f}, max {image.max()}")
    return 0 if frames > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
