// The simulated ends of ztProxySim, so that Python tests run without hardware.
#include "binding.h"

#include "ztSimDevice.h"
#include "ztSimModule.h"
#include "ztSimNetworkHead.h"
#include "ztSimUsbHead.h"

#include <pybind11/stl.h>

namespace ztpy {

namespace {

using Net = ztSimNetworkHead;
using UsbSim = ztSimUsbHead;
using Release = py::call_guard<py::gil_scoped_release>;

std::vector<char> bytesOf(const std::string& s)
{
    return std::vector<char>(s.begin(), s.end());
}

py::bytes toBytes(const std::vector<char>& v)
{
    return py::bytes(v.data(), v.size());
}

// nextCommand and nextRequest: (type, payload) or None after the time-out.
template <class Head>
py::object nextCommand(Head& head, int timeoutMs)
{
    typename Head::Request request;
    bool got;
    {
        py::gil_scoped_release release;
        got = head.nextCommand(request, timeoutMs);
    }
    if (!got)
        return py::none();
    return py::make_tuple(request.type, toBytes(request.payload));
}

void bindDevice(py::module_& m)
{
    using D = ztSimDevice;
    py::class_<D>(m, "ztSimDevice", "The settable state of a simulated head and its answers to the command set.")
        .def("setStatus", &D::setStatus, py::arg("type"), py::arg("status"))
        .def("setAnswerPreTrigger", &D::setAnswerPreTrigger, py::arg("on"))
        .def("setValue", &D::setValue, py::arg("query_type"), py::arg("value"))
        .def("value", &D::value, py::arg("query_type"))
        .def("setFloatValue", &D::setFloatValue, py::arg("query_type"), py::arg("value"))
        .def("floatValue", &D::floatValue, py::arg("query_type"))
        .def("setImageSize", &D::setImageSize, py::arg("width"), py::arg("height"))
        .def("setRegister", &D::setRegister, py::arg("name"), py::arg("value"))
        .def("registerValue", &D::registerValue, py::arg("name"))
        .def("setWifi", &D::setWifi, py::arg("ssid"), py::arg("password"))
        .def("wifi", &D::wifi)
        .def("setAbility", &D::setAbility, py::arg("record"), py::arg("long_form") = true)
        .def("ability", &D::ability)
        .def("setCameraSerialNumbers", &D::setCameraSerialNumbers, py::arg("sns"))
        .def("setLightpenVersion", &D::setLightpenVersion, py::arg("version"))
        .def("setTemperatures", &D::setTemperatures, py::arg("temps"))
        .def(
            "setFile", [](D& d, unsigned short type, const std::string& bytes) { d.setFile(type, bytesOf(bytes)); },
            py::arg("query_type"), py::arg("data"))
        .def(
            "received", [](D& d, unsigned short type) { return toBytes(d.received(type)); }, py::arg("type"),
            "The payload of the last request of this type.")
        .def("receivedCount", &D::receivedCount, py::arg("type"));
}

void bindNetworkHead(py::module_& m)
{
    py::class_<Net> c(m, "ztSimNetworkHead",
                      "A simulated network scanner head: the head's end of the four TCP connections.");
    py::enum_<Net::Channel>(c, "Channel")
        .value("Command", Net::Command)
        .value("Data", Net::Data)
        .value("CommandData", Net::CommandData)
        .value("LightPen", Net::LightPen)
        .export_values();
    py::enum_<Net::RefuseHow>(c, "RefuseHow").value("Unanswered", Net::Unanswered).value("Reset", Net::Reset);
    c.def(py::init<const std::string&, int>(), py::arg("bindIP") = "127.0.0.1", py::arg("port") = Net::kDefaultPort)
        .def_readonly_static("kDefaultPort", &Net::kDefaultPort)
        .def_readonly_static("kPacketTag", &Net::kPacketTag)
        .def("start", &Net::start, Release())
        .def("stop", &Net::stop, Release())
        .def("port", &Net::port)
        .def("isConnected", &Net::isConnected, py::arg("channel"))
        .def("waitConnected", &Net::waitConnected, Release(), py::arg("channel"), py::arg("timeout_ms"))
        .def("waitDisconnected", &Net::waitDisconnected, Release(), py::arg("channel"), py::arg("timeout_ms"))
        .def("connectionsAccepted", &Net::connectionsAccepted)
        .def("setAnswerHeartbeats", &Net::setAnswerHeartbeats, py::arg("on"))
        .def("setSilent", &Net::setSilent, py::arg("on"))
        .def("setRefuseChannel", &Net::setRefuseChannel, Release(), py::arg("index"),
             py::arg("how") = Net::Unanswered)
        .def("setReplyDelay", &Net::setReplyDelay, py::arg("ms"))
        .def("setStatusReply", &Net::setStatusReply, py::arg("type"), py::arg("status"))
        .def(
            "setEchoReply", [](Net& h, unsigned short type, const std::string& p) { h.setEchoReply(type, bytesOf(p)); },
            py::arg("type"), py::arg("payload"))
        .def("setNoReply", &Net::setNoReply, py::arg("type"))
        .def(
            "setRawReply", [](Net& h, unsigned short type, const std::string& b) { h.setRawReply(type, bytesOf(b)); },
            py::arg("type"), py::arg("data"))
        .def("resetReplies", &Net::resetReplies)
        .def("device", &Net::device, py::return_value_policy::reference_internal)
        .def("nextCommand", &nextCommand<Net>, py::arg("timeout_ms"),
             "The next request as (type, payload), or None after timeout_ms.")
        .def("clearCommands", &Net::clearCommands)
        .def("heartbeatsReceived", &Net::heartbeatsReceived)
        .def("badMessagesReceived", &Net::badMessagesReceived)
        .def("waitReceived", &Net::waitReceived, Release(), py::arg("channel"), py::arg("at_least"),
             py::arg("timeout_ms"))
        .def(
            "takeReceived", [](Net& h, Net::Channel ch) { return toBytes(h.takeReceived(ch)); }, py::arg("channel"))
        .def(
            "sendBytes",
            [](Net& h, Net::Channel ch, const std::string& b) {
                py::gil_scoped_release release;
                return h.sendBytes(ch, b.data(), b.size());
            },
            py::arg("channel"), py::arg("data"))
        .def(
            "sendMessage",
            [](Net& h, Net::Channel ch, unsigned short type, const std::string& p) {
                py::gil_scoped_release release;
                return h.sendMessage(ch, type, p.data(), p.size());
            },
            py::arg("channel"), py::arg("type"), py::arg("payload"))
        .def(
            "sendExtendedPacket",
            [](Net& h, Net::Channel ch, unsigned short type, unsigned long long stamp, const std::string& p,
               bool goodTail) {
                py::gil_scoped_release release;
                return h.sendExtendedPacket(ch, type, stamp, p.data(), p.size(), goodTail);
            },
            py::arg("channel"), py::arg("type"), py::arg("stamp"), py::arg("payload"), py::arg("good_tail") = true)
        .def("closeChannel", &Net::closeChannel, Release(), py::arg("channel"))
        .def(
            "startStream",
            [](Net& h, Net::Channel ch, const std::string& unit, std::size_t count, double rate) {
                std::vector<char> bytes = bytesOf(unit);
                py::gil_scoped_release release;
                h.startStream(ch, std::move(bytes), count, rate);
            },
            py::arg("channel"), py::arg("unit"), py::arg("count") = 0, py::arg("bytes_per_second") = 0.0,
            "Writes unit on the channel count times (0: until stopStream) at up to bytes_per_second (0: as fast "
            "as the host reads).")
        .def("stopStream", &Net::stopStream, Release())
        .def("streamedBytes", &Net::streamedBytes)
        .def("waitStreamDone", &Net::waitStreamDone, Release(), py::arg("timeout_ms"))
        .def_static(
            "message",
            [](unsigned short type, const std::string& p) { return toBytes(Net::message(type, p.data(), p.size())); },
            py::arg("type"), py::arg("payload"))
        .def_static(
            "extendedPacket",
            [](unsigned short type, unsigned long long stamp, const std::string& p, bool goodTail) {
                return toBytes(Net::extendedPacket(type, stamp, p.data(), p.size(), goodTail));
            },
            py::arg("type"), py::arg("stamp"), py::arg("payload"), py::arg("good_tail") = true)
        .def_static(
            "valuePayload",
            [](unsigned int value, int status) { return toBytes(Net::valuePayload(value, status)); },
            py::arg("value"), py::arg("status") = 0)
        .def_static("defaultAbility", &Net::defaultAbility);
}

void bindUsbHead(py::module_& m)
{
    py::class_<UsbSim> c(m, "ztSimUsbHead",
                         "A simulated USB3 scanner head (emulated with umockdev: the process must run with\n"
                         "LD_PRELOAD=libumockdev-preload.so.0). One per process.");
    c.def(py::init<>())
        .def_readonly_static("kVendor", &UsbSim::kVendor)
        .def_readonly_static("kProduct", &UsbSim::kProduct)
        .def_static("emulationAvailable", &UsbSim::emulationAvailable)
        .def("start", &UsbSim::start, Release())
        .def("stop", &UsbSim::stop, Release())
        .def("devicePath", &UsbSim::devicePath)
        .def("setAnswerHeartbeats", &UsbSim::setAnswerHeartbeats, py::arg("on"))
        .def("setSilent", &UsbSim::setSilent, py::arg("on"))
        .def("failTransfers", &UsbSim::failTransfers, py::arg("on"), py::arg("error_number") = 71)
        .def("unplug", &UsbSim::unplug, Release())
        .def("replug", &UsbSim::replug, Release())
        .def("isUnplugged", &UsbSim::isUnplugged)
        .def("setStatusReply", &UsbSim::setStatusReply, py::arg("type"), py::arg("status"))
        .def(
            "setEchoReply",
            [](UsbSim& h, unsigned short type, const std::string& p) { h.setEchoReply(type, bytesOf(p)); },
            py::arg("type"), py::arg("payload"))
        .def("setNoReply", &UsbSim::setNoReply, py::arg("type"))
        .def("resetReplies", &UsbSim::resetReplies)
        .def("device", &UsbSim::device, py::return_value_policy::reference_internal)
        .def("nextCommand", &nextCommand<UsbSim>, py::arg("timeout_ms"),
             "The next request as (type, payload), or None after timeout_ms.")
        .def("clearCommands", &UsbSim::clearCommands)
        .def("heartbeatsReceived", &UsbSim::heartbeatsReceived)
        .def("badMessagesReceived", &UsbSim::badMessagesReceived)
        .def(
            "pushEvent", [](UsbSim& h, const std::string& b) { return h.pushEvent(bytesOf(b)); }, py::arg("data"))
        .def(
            "pushStream", [](UsbSim& h, const std::string& b) { return h.pushStream(bytesOf(b)); }, py::arg("data"))
        .def(
            "startStream",
            [](UsbSim& h, const std::string& unit, std::size_t count, double rate) {
                std::vector<char> bytes = bytesOf(unit);
                py::gil_scoped_release release;
                h.startStream(std::move(bytes), count, rate);
            },
            py::arg("unit"), py::arg("count") = 0, py::arg("bytes_per_second") = 0.0)
        .def("stopStream", &UsbSim::stopStream, Release())
        .def("streamedBytes", &UsbSim::streamedBytes)
        .def("waitStreamDone", &UsbSim::waitStreamDone, Release(), py::arg("timeout_ms"))
        .def_static(
            "extendedPacket",
            [](unsigned short type, unsigned long long stamp, const std::string& p, bool goodTail) {
                return toBytes(UsbSim::extendedPacket(type, stamp, p.data(), p.size(), goodTail));
            },
            py::arg("type"), py::arg("stamp"), py::arg("payload"), py::arg("good_tail") = true);
}

void bindModule(py::module_& m)
{
    py::class_<ztSimModuleState>(m, "ztSimModuleState", "What the simulated module reports.")
        .def(py::init<>())
        .def_readwrite("replyOk", &ztSimModuleState::replyOk)
        .def_readwrite("period", &ztSimModuleState::period)
        .def_readwrite("canManualSync", &ztSimModuleState::canManualSync)
        .def_readwrite("hardwareSyncMode", &ztSimModuleState::hardwareSyncMode)
        .def_readwrite("isMaster", &ztSimModuleState::isMaster)
        .def_readwrite("firmwareVersion", &ztSimModuleState::firmwareVersion)
        .def_readwrite("ventoInfo", &ztSimModuleState::ventoInfo)
        .def_readwrite("systemId", &ztSimModuleState::systemId)
        .def_readwrite("ledExposure", &ztSimModuleState::ledExposure)
        .def_readwrite("lzExposure", &ztSimModuleState::lzExposure)
        .def_readwrite("lightType", &ztSimModuleState::lightType)
        .def_readwrite("supportedLight", &ztSimModuleState::supportedLight)
        .def_readwrite("heartbeat", &ztSimModuleState::heartbeat);
    py::class_<ztSimModule>(m, "ztSimModule",
                            "A simulated device module that answers every host request from a settable state.")
        .def(py::init<>())
        .def("start", &ztSimModule::start, Release())
        .def("stop", &ztSimModule::stop, Release())
        .def("state", &ztSimModule::state)
        .def("setState", &ztSimModule::setState, py::arg("state"))
        .def("setSilent", &ztSimModule::setSilent, py::arg("silent"))
        .def_static("requestName", [](int code) -> py::object {
            const char* name = ztSimModule::requestName(code);
            return name != nullptr ? py::str(name) : py::object(py::none());
        })
        .def(
            "nextRequest",
            [](ztSimModule& s, int timeoutMs) -> py::object {
                ztSimModule::Request request;
                bool got;
                {
                    py::gil_scoped_release release;
                    got = s.nextRequest(request, timeoutMs);
                }
                if (!got)
                    return py::none();
                return py::make_tuple(request.code, toBytes(request.payload));
            },
            py::arg("timeout_ms"), "The next request as (code, payload), or None after timeout_ms.")
        .def("pendingRequests", &ztSimModule::pendingRequests)
        .def("clearRequests", &ztSimModule::clearRequests);
}

} // namespace

void bindSimulated(py::module_& m)
{
    bindDevice(m);
    bindNetworkHead(m);
    bindUsbHead(m);
    bindModule(m);
}

} // namespace ztpy
