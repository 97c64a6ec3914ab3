"""Helpers shared by the Python suites: a callback recorder and waiting on conditions."""

import faulthandler
import threading
import time

import pytest
import ztproxy

IP = "127.0.0.1"
FRAME = 1280  # stream packets carrying a full-frame record


def wait_for(condition, timeout=5.0):
    """True once condition() holds, False after timeout seconds."""
    end = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


def stamp(data):
    """The time stamp of a stream packet as the callback receives it."""
    return int.from_bytes(bytes(data[57:65]), "little")


class Recorder:
    """A data callback that keeps (code, bytes, thread id) of every call."""

    def __init__(self):
        self.calls = []

    def __call__(self, code, data):
        self.calls.append((code, bytes(data), threading.get_ident()))

    def codes(self):
        return [c for c, _, _ in self.calls]


@pytest.fixture(autouse=True)
def deadlock_watchdog():
    """A test that hangs (a thread waiting for the GIL while another joins it) ends the run
    with every thread's stack instead of waiting for the suite's time-out."""
    faulthandler.dump_traceback_later(30, exit=True)
    yield
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture
def head():
    h = ztproxy.ztSimNetworkHead(IP)
    assert h.start() == 0
    yield h
    h.stop()


@pytest.fixture
def online(head):
    """A network server online with the simulated head."""
    recorder = Recorder()
    server = ztproxy.ztEmbeddedModuleProxyServer()
    server.registerModuleServerDataCB(recorder)
    server.init(IP, IP, "SIM")
    assert wait_for(lambda: ztproxy.ZT_CODE_DEVICE_ONLINE in recorder.codes())
    yield server
    server.close()
