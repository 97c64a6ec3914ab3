// The Python module ztproxy: records, enumerations, codes, logging and the classes.
#include "binding.h"

#include "ztLog.h"
#include "ztProxyTypes.h"
#include "ztProxyVersion.h"

#include <pybind11/stl.h>

#include <cstring>
#include <optional>

namespace ztpy {

void bindRecords(py::module_& m)
{
    py::class_<DeviceAbilityInfo>(m, "DeviceAbilityInfo", "What a scanner head can do: twelve 32-bit values.")
        .def(py::init<>())
        .def_readwrite("abilityHeader", &DeviceAbilityInfo::abilityHeader)
        .def_readwrite("productType", &DeviceAbilityInfo::productType)
        .def_readwrite("ability2", &DeviceAbilityInfo::ability2)
        .def_readwrite("ability3", &DeviceAbilityInfo::ability3)
        .def_readwrite("ability4", &DeviceAbilityInfo::ability4)
        .def_readwrite("ability5", &DeviceAbilityInfo::ability5)
        .def_readwrite("ability6", &DeviceAbilityInfo::ability6)
        .def_readwrite("ability7", &DeviceAbilityInfo::ability7)
        .def_readwrite("ability8", &DeviceAbilityInfo::ability8)
        .def_readwrite("ability9", &DeviceAbilityInfo::ability9)
        .def_readwrite("ability10", &DeviceAbilityInfo::ability10)
        .def_readwrite("ability11", &DeviceAbilityInfo::ability11)
        .def("__repr__", [](const DeviceAbilityInfo& a) {
            return "DeviceAbilityInfo(abilityHeader=" + std::to_string(a.abilityHeader) +
                   ", productType=" + std::to_string(a.productType) + ", ...)";
        });

    py::class_<_ZT_HEARTBEAT_INFO_>(m, "HeartbeatInfo", "The module's 920-byte heartbeat record.")
        .def(py::init([]() { return _ZT_HEARTBEAT_INFO_{}; }))
        .def_readwrite("deviceStatus", &_ZT_HEARTBEAT_INFO_::deviceStatus)
        .def_readwrite("deviceCount", &_ZT_HEARTBEAT_INFO_::deviceCount)
        .def_readwrite("timestamp", &_ZT_HEARTBEAT_INFO_::timestamp)
        .def_property(
            "moduleData",
            [](const _ZT_HEARTBEAT_INFO_& h) {
                return py::bytes(reinterpret_cast<const char*>(h.moduleData), sizeof h.moduleData);
            },
            [](_ZT_HEARTBEAT_INFO_& h, const std::string& data) {
                if (data.size() > sizeof h.moduleData)
                    throw py::value_error("moduleData holds at most 904 bytes");
                std::memset(h.moduleData, 0, sizeof h.moduleData);
                std::memcpy(h.moduleData, data.data(), data.size());
            });

    py::enum_<FRAME_DROP_MODE>(m, "FRAME_DROP_MODE")
        .value("FRAME_DROP_NONE", FRAME_DROP_NONE)
        .value("FRAME_DROP_HALF", FRAME_DROP_HALF)
        .value("FRAME_DROP_THIRD", FRAME_DROP_THIRD)
        .value("FRAME_DROP_QUARTER", FRAME_DROP_QUARTER)
        .export_values();
    py::enum_<SetFileDataType>(m, "SetFileDataType")
        .value("SET_FILE_DATA_0", SET_FILE_DATA_0)
        .value("SET_FILE_DATA_1", SET_FILE_DATA_1)
        .value("SET_FILE_DATA_2", SET_FILE_DATA_2)
        .export_values();
    py::enum_<_ZT_WORK_BUSINESS_>(m, "WorkBusiness")
        .value("ZT_WORK_SCAN", ZT_WORK_SCAN)
        .value("ZT_WORK_TRACK", ZT_WORK_TRACK)
        .value("ZT_WORK_PHOTOGRAMMETRY", ZT_WORK_PHOTOGRAMMETRY)
        .value("ZT_WORK_CALIBRATE", ZT_WORK_CALIBRATE)
        .export_values();
    py::enum_<_ZT_DEVICE_STATUS_>(m, "DeviceStatus")
        .value("ZT_DEVICE_STATUS_OFFLINE", ZT_DEVICE_STATUS_OFFLINE)
        .value("ZT_DEVICE_STATUS_ONLINE", ZT_DEVICE_STATUS_ONLINE)
        .value("ZT_DEVICE_STATUS_WORKING", ZT_DEVICE_STATUS_WORKING)
        .value("ZT_DEVICE_STATUS_ERROR", ZT_DEVICE_STATUS_ERROR)
        .export_values();

    m.attr("ZT_CODE_DEVICE_OFFLINE") = static_cast<int>(ZT_CODE_DEVICE_OFFLINE);
    m.attr("ZT_CODE_DEVICE_ONLINE") = static_cast<int>(ZT_CODE_DEVICE_ONLINE);
    m.attr("ZT_CODE_LIGHTPEN_DATA") = static_cast<int>(ZT_CODE_LIGHTPEN_DATA);
    m.attr("ZT_MODULE_CMD_PORT") = static_cast<int>(ZT_MODULE_CMD_PORT);
    m.attr("ZT_MODULE_DATA_PORT") = static_cast<int>(ZT_MODULE_DATA_PORT);
}

} // namespace ztpy

PYBIND11_MODULE(ztproxy, m)
{
    namespace py = pybind11;
    using namespace ztpy;
    m.doc() = "Python bindings of libztProxyProtocol: the scanner-head links, the module proxy and the simulated "
              "heads.";
    // NumPy is loaded now rather than by the first callback, on one of the library's threads.
    py::module_::import("numpy");
    py::array_t<unsigned char> warmUp(0);
    installLogRouting();
    defineCommandError(m);
    bindRecords(m);

    py::class_<FrameCounter>(m, "FrameCounter",
                             "A data callback in C++ that only counts messages (of one code, or all): pass it\n"
                             "where a callback goes to measure a link without Python in the way.")
        .def(py::init([](std::optional<int> code) { return new FrameCounter(code.value_or(-1)); }),
             py::arg("code") = py::none())
        .def_property_readonly("frames", &FrameCounter::frames)
        .def_property_readonly("bytes", &FrameCounter::bytes)
        .def("reset", &FrameCounter::reset)
        .def("wait", &FrameCounter::wait, py::call_guard<py::gil_scoped_release>(), py::arg("count"),
             py::arg("timeout"), "Waits until count messages arrived or timeout seconds passed; whether they did.");

    bindDeviceLinks(m);
    bindModuleProxy(m);
    bindSimulated(m);

    m.def(
        "set_log_level",
        [](py::object level) {
            const int value = py::isinstance<py::str>(level) ? ztLogParseLevel(level.cast<std::string>().c_str())
                                                             : level.cast<int>();
            if (value < 0)
                throw py::value_error("log level: trace, debug, info, warn, error or off");
            ztLogSetLevel(value);
        },
        py::arg("level"), "Sets the library's log level: trace, debug, info, warn, error or off (or 0 to 6).");
    m.def("log_level", &ztLogGetLevel);
    m.attr("__version__") = ztProxyVersion();

    // Objects still open at exit are closed while Python's threads still run, so that no
    // library thread waits for the GIL of an interpreter that is going away.
    py::module_::import("atexit").attr("register")(py::cpp_function([] {
        py::gil_scoped_release release;
        Closable::closeAll();
    }));
}
