"""The module proxy from Python: a module written in Python answers the host from its
callback."""

import struct
import threading

import pytest
import ztproxy
from conftest import IP, Recorder

# Request codes by the host's method names.
CODES = {
    ztproxy.ztSimModule.requestName(code): code
    for base in (0, 0x10000, 0x20000, 0x30000)
    for code in range(base, base + 0x100)
    if ztproxy.ztSimModule.requestName(code)
}


def test_a_module_in_python_answers_the_host_from_its_callback():
    client = ztproxy.ztModuleProxyClient()
    requests = Recorder()
    answers = {
        CODES["sendRegister"]: lambda: client.sendRegisterRep(True),
        CODES["sendStartDevice"]: lambda: client.sendDeviceStartRep(True),
        CODES["getLedExposure"]: lambda: client.sendGetLedExposureRep(7.25),
        CODES["getFirmwareVersion2"]: lambda: client.sendGetFirmwareVersion2Rep(2, 4, 1),
    }

    def on_request(code, payload):
        requests(code, payload)
        if code in answers:
            answers[code]()

    client.registerModuleClientDataCB(on_request)
    client.init()
    try:
        with ztproxy.ztModuleProxyServer() as host:
            with pytest.raises(ztproxy.CommandError):
                host.getLedExposure()  # no session yet
            host.init(IP)
            assert host.waitRegistered(3000)
            host.sendStartDevice(ztproxy.ZT_WORK_TRACK)
            assert (CODES["sendStartDevice"], struct.pack("<i", 1)) in [(c, d) for c, d, _ in requests.calls]
            # Requests from several Python threads, each answered on the module's thread.
            results = []

            def ask():
                results.append((host.getLedExposure(), host.getFirmwareVersion2()))

            threads = [threading.Thread(target=ask) for _ in range(3)]
            for t in threads:
                t.start()
            for t in threads:
                t.join(15)
            assert results == [(7.25, (2, 4, 1))] * 3
            assert threading.get_ident() not in {tid for _, _, tid in requests.calls}
        # Leaving the with block closed the host.
        with pytest.raises(RuntimeError, match="object is closed"):
            host.getLedExposure()
    finally:
        client.close()
