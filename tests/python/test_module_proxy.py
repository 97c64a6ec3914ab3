"""The module proxy from Python: the host against the simulated module, and a module written
in Python answering the host from its callback."""

import struct
import threading

import pytest
import ztproxy
from conftest import IP, Recorder, wait_for

# Request codes by the host's method names.
CODES = {
    ztproxy.ztSimModule.requestName(code): code
    for base in (0, 0x10000, 0x20000, 0x30000)
    for code in range(base, base + 0x100)
    if ztproxy.ztSimModule.requestName(code)
}


@pytest.fixture
def sim_module():
    module = ztproxy.ztSimModule()
    assert module.start() == 0
    yield module
    module.stop()


def test_host_requests_against_the_simulated_module(sim_module):
    with ztproxy.ztModuleProxyServer() as host:
        with pytest.raises(ztproxy.CommandError):
            host.getFirmwareVersion()  # no session yet
        host.init(IP)
        assert host.waitRegistered(3000)
        assert host.getFirmwareVersion() == "ZT-MOD 2.4.1"
        assert host.getFirmwareVersion2() == (2, 4, 1)
        assert host.getSystemId() == 0x5A54000000000001
        assert host.getLedExposure() == 1.5
        beat = host.heartbeat()
        assert (beat.deviceStatus, beat.deviceCount) == (ztproxy.ZT_DEVICE_STATUS_ONLINE, 1)

        sim_module.clearRequests()
        host.setPeriod(40)
        assert sim_module.nextRequest(1000) == (CODES["setPeriod"], struct.pack("<i", 40))
        host.sendStartDevice(ztproxy.ZT_WORK_TRACK)
        assert sim_module.nextRequest(1000) == (CODES["sendStartDevice"], struct.pack("<i", 1))



def test_a_module_in_python_answers_the_host_from_its_callback():
    client = ztproxy.ztModuleProxyClient()
    requests = Recorder()
    answers = {
        CODES["sendRegister"]: lambda: client.sendRegisterRep(True),
        CODES["getLedExposure"]: lambda: client.sendGetLedExposureRep(7.25),
        CODES["getFirmwareVersion"]: lambda: client.sendGetFirmwareVersionRep("PY 1.0"),
        # The wrong reply: the host refuses it.
        CODES["setLZOpen"]: lambda: client.sendGetIsMasterRep(3),
    }

    def on_request(code, payload):
        requests(code, payload)
        if code in answers:
            answers[code]()

    client.registerModuleClientDataCB(on_request)
    client.init()
    host = ztproxy.ztModuleProxyServer()
    notices = Recorder()
    host.registerModuleServerDataCB(notices)
    try:
        host.init(IP)
        assert host.waitRegistered(3000)
        # Requests from several Python threads, each answered on the module's thread.
        results = []

        def ask():
            results.append((host.getLedExposure(), host.getFirmwareVersion()))

        threads = [threading.Thread(target=ask) for _ in range(3)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(15)
        assert results == [(7.25, "PY 1.0")] * 3
        assert threading.get_ident() not in {tid for _, _, tid in requests.calls}

        # A wrong reply fails the request.
        with pytest.raises(ztproxy.CommandError) as refused:
            host.setLZOpen(True)
        assert refused.value.result == -1

        # Notifications from the module reach the host's callback with their bytes.
        client.sendDeviceData(5, 6, b"\x01\x02\x03", 7)
        assert wait_for(lambda: any(b"\x01\x02\x03" in d for _, d, _ in notices.calls))
    finally:
        host.close()
        client.close()
