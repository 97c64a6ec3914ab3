#!/usr/bin/env python3
"""Writes the seed corpora in fuzz/corpus/<target>/ from byte sequences the tests use.

The targets read their selector bytes and piece sizes from the end of the input (that is
where FuzzedDataProvider takes numbers from) and the stream from the front, so each seed
is the stream, a few piece-size bytes, then the selector byte.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def le(fmt, *values):
    return struct.pack("<" + fmt, *values)


def proxy(msg_type, sub, payload=b"", magic=0x2324):
    return le("HHiIi", magic, 0, msg_type, sub, len(payload)) + payload


def embedded(msg_type, payload=b"", head=0xAA):
    return bytes([head]) + le("IH", 8 + len(payload), msg_type) + payload + b"\xbb"


def packet(msg_type, length, extended=False, tail=0xBB):
    body = bytearray((i * 13) & 0x7F for i in range(length))
    body[0] = 0xAA
    body[1:5] = le("I", length)
    body[5:7] = le("H", msg_type)
    if extended:
        body[64:72] = le("Q", 0x0123456789ABCDEF)
        body[72:76] = le("I", 0xCC00FF55)
    body[length - 1] = tail
    return bytes(body)


def seed(stream, selector, sizes=(0x3F, 0x3F, 0x3F, 0x3F)):
    return stream + bytes(sizes) + bytes([selector])


def marker_record(count):
    rec = bytes(range(64)) + le("QHHH", 0x1122334455667788, 2048, 1536, count)
    for i in range(count):
        rec += le("ddddd", 5119.9 + i, 10.0, 1.0, 2.0, 3.0) + bytes([7 + i, 0x80 + i])
    return rec


# USB completions: (path, status pick, bytes) with path 0 stream, 1 control, 2 event and
# status pick 0 completed, 36 timed out, 44 and up an error; or (3,) to process the ready
# frames, (4,) to reset the decoder. The bytes lie at the front, the action byte and the
# two size bytes of each completion at the end, last consumed first.
def usb(completions):
    front, tail = b"", []
    for c in completions:
        if len(c) == 1:
            tail.append(c[0])
            continue
        path, status, data = c
        front += data
        tail += [status * 5 + path, len(data) >> 8, len(data) & 0xFF]
    return front + bytes(reversed(tail))


def proxy_reply(sub, payload):
    return proxy(4, sub, payload)


SEEDS = {
    "fuzz_proxy_framer": {
        "coalesced": seed(proxy(3, 0x10005, b"abc") + proxy(3, 0x10006, b"defgh") + proxy(3, 0x10007), 0),
        "split_reply": seed(proxy(1, 0x40001, b"0123456789") + proxy(1, 0x40002, b"xyz")[:9], 1, (1, 5, 9)),
        "negative_length": seed(le("HHiIi", 0x2324, 0, 3, 1, -5) + proxy(2, 0x30001, b"ok"), 0),
        "too_large": seed(proxy(2, 0x30005, bytes(60)) + proxy(2, 0x30006, b"x"), 3),
    },
    "fuzz_embedded_framer": {
        "two_messages": seed(embedded(300, b"alarm") + embedded(301, b"sync!"), 2),
        "heartbeat_reply": seed(embedded(2) + embedded(0, le("i", 0)), 0, (3, 9)),
        "eight_in_160": seed(b"".join(embedded(310 + i, b"012345678901") for i in range(8)), 2, (159, 159)),
        "bad_size": seed(b"\xaa\x03\x00\x00\x00" + embedded(5, b"x"), 4),
        "cc_head": seed(embedded(7, b"abcd", head=0xCC) + embedded(8, b"e", head=0x00), 0),
    },
    "fuzz_packet_decoder": {
        "extended_then_plain": seed(packet(1280, 160, True) + packet(513, 100), 0),
        "plain_only": seed(b"\x01\x02\x03" + packet(1000, 50) + packet(5, 8), 1),
        "plain_header_errors": seed(b"\xaa" + le("IH", 0xFFFFFFFF, 5) + b"\xaa" + le("IH", 50, 1282) + packet(7, 20), 2),
        "bad_tail": seed(packet(514, 90, tail=0x00) + packet(513, 88), 0),
    },
    # Command index, link policy (0 network, 1 USB), then the head's reply.
    "fuzz_command_replies": {
        "status_ok": bytes([0, 0]) + embedded(0, le("i", 0)),
        "status_usb": bytes([0, 1]) + embedded(0, le("i", 3)),
        "trigger_mode": bytes([3, 0]) + embedded(14, le("ii", 0, 2)),
        "camera_roi": bytes([27, 0]) + embedded(12, le("ii", 0, 3) + b"roi" + le("hhhh", 1, 2, 3, 4)),
        "camera_sn": bytes([50, 0]) + embedded(3, le("ii", 0, 1) + b"SN1".ljust(16, b"\0") + le("QQ", 3, 15)),
        "ability": bytes([51, 0]) + embedded(345, le("iIII", 0, 0, 7, 1) + le("11I", *range(11))),
        "firmware": bytes([52, 0]) + embedded(15, le("iI", 0, 0x01020A03)),
        "wifi": bytes([62, 0]) + embedded(290, le("i", 0) + b"\x03net\x04pass"),
        "hardware_rate": bytes([73, 1]) + embedded(358, le("ii", 0, 1)),
    },
    "fuzz_embedded_inbound": {
        # Packet mode: a marker record with one marker, and an alarm.
        "marker_packet": seed(embedded(513, marker_record(1)), 0, (0xFF, 0xFF)),
        "alarm_100": seed(embedded(300, le("iBB", 9, 1, 2).ljust(91, b"\0")), 0, (0,)),
        # Raw mode: temperatures and a light-pen find list.
        "raw_temps": seed(embedded(400, le("iB", 0, 2) + le("ff", 1.5, -2.25))
                          + embedded(401, le("ii", 9, 1) + b"A" * 52), 1, (0xFF,)),
        # Command-data: sync and angles, then a 160-byte receive.
        "command_data": seed(embedded(301, le("iHH", 1, 5, 6)) + embedded(302, le("ifff", 0, 1.0, 2.0, 3.0)), 2,
                             (0xFF,)),
    },
    "fuzz_usb_inbound": {
        # A plain packet in two completions and an extended one, then processed.
        "stream_packets": usb([(0, 0, packet(513, 100)[:60]), (0, 0, packet(513, 100)[60:]),
                               (0, 36, packet(1280, 160, True)), (3,)]),
        # Two coalesced events: one cut per completion, the second on an empty time-out.
        "events": usb([(2, 0, embedded(300, le("iBB", 9, 1, 2)) + embedded(301, le("iHH", 1, 5, 6))),
                       (2, 36, b""), (3,)]),
        # A reply whose tail byte comes alone, then short noise that is dropped.
        "control": usb([(1, 0, embedded(0, le("i", 0))[:-1]), (1, 0, b"\xbb"), (1, 0, b"\xaa\x01")]),
        # Error completions, and a reset of the decoder in the middle of a packet.
        "errors": usb([(2, 47, embedded(300, b"lost")), (0, 0, packet(514, 90)[:50]), (4,),
                       (0, 48, packet(514, 90)[50:]), (0, 0, packet(514, 90)), (3,)]),
    },
    # Request index (the catalogue's order), then what the module sends.
    "fuzz_host_replies": {
        "heartbeat": bytes([4]) + proxy_reply(0x10002, le("iiQ", 2, 1, 123456) + bytes(904)),
        "pre_trigger_status": bytes([5]) + proxy_reply(0x10004, le("i", 0)),
        "firmware_text": bytes([19]) + proxy_reply(0x10013, b"1.2.3"),
        "system_id": bytes([24]) + proxy_reply(0x10019, le("Q", 0x1122334455667788)),
        "object_mp_crossed": bytes([52]) + proxy_reply(0x30001, le("i", 1)),
        "led_exposure_split": bytes([28]) + proxy_reply(0x20001, le("f", 2.5)) + b"\x24\x23",
    },
    # Query index (0 enumSETFile ... 7 getCurBarFile, 8 the pre-trigger check), the header
    # choices (0xFF: the right type, sub type and magic), the output size, then the payload.
    "fuzz_module_queries": {
        "enum_set_files": le("i", 2) + le("ii", 3, 5) + b"a.setb.set." + bytes([16, 0xFF, 0]),
        "set_file_md5": b"0123456789abcdef0123456789abcdef" + bytes([16, 0xFF, 1]),
        "set_file_size": le("I", 4096) + bytes([16, 0xFF, 2]),
        "set_file": b"SET file bytes" + bytes([8, 0xFF, 3]),
        "bar_file_wrong_sub": b"bar" + le("I", 0x77) + bytes([4, 0xF1, 7]),
    },
}


def main():
    for target, seeds in SEEDS.items():
        folder = os.path.join(HERE, "corpus", target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
