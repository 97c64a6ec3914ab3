// The device links: the network head server, the USB head server (opened through libusb
// here), their command set, the image helpers and the UDP client.
#include "binding.h"

#include "device_outputs.h"
#include "usb_open.h"
#include "ztDeviceCommandSet.h"
#include "ztEmbeddedModuleProxyServer.h"
#include "ztImageAssembler.h"
#include "ztScanEmbeddedUDPClient.h"
#include "ztUsbProxyServer.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <optional>
#include <cstring>

namespace ztpy {

namespace {

using Set = ztDeviceCommandSet;
using Net = ztEmbeddedModuleProxyServer;
using Usb = ztUsbProxyServer;

// Commands whose methods take a buffer and its length, or answer otherwise than through
// an output parameter. Bytes arrive as std::string, which takes bytes and str alike.
namespace adapter {

using zt::device_outputs::getCameraROI;
using zt::device_outputs::getCurDeviceAbilityInfo;
using zt::device_outputs::getWifi;

int setCameraROI(Set& d, std::string name, short x, short y, short width, short height)
{
    return d.setCameraROI(name.data(), static_cast<int>(name.size()), x, y, width, height);
}

int setCameraReverse(Set& d, std::string name, int value)
{
    return d.setCameraReverse(name.data(), static_cast<int>(name.size()), value);
}

// Three values each; the head takes a[0], a[2], b[0] and b[2].
int setQRBarCenter(Set& d, std::string name, bool flag, std::array<int, 3> a, std::array<int, 3> b)
{
    return d.setQRBarCenter(name.data(), static_cast<int>(name.size()), flag, a.data(), b.data());
}

int parseDeviceAblityInfo(Set& d, std::string payload, DeviceAbilityInfo& ability)
{
    // The parser reads up to 60 bytes: shorter payloads read as zeros behind their end.
    payload.resize(std::max<std::size_t>(payload.size(), 60), '\0');
    return d.parseDeviceAblityInfo(payload.data(), &ability);
}

int setRegisterValue(Set& d, int device, unsigned int address, std::string data)
{
    return d.setRegisterValue(device, address, static_cast<int>(data.size()), data.data());
}

int setWifi(Set& d, std::string ssid, std::string password)
{
    return d.setWifi(ssid.data(), static_cast<int>(ssid.size()), password.data(), static_cast<int>(password.size()));
}

int sendSETFile(Set& d, std::string data)
{
    return d.sendSETFile(data.data(), data.size());
}

int sendRGFFile(Set& d, std::string data)
{
    return d.sendRGFFile(data.data(), data.size());
}

int sendLightpenSETFile(Set& d, std::string data)
{
    return d.sendLightpenSETFile(data.data(), data.size());
}

int updateFirmware(Set& d, std::string data)
{
    return d.updateFirmware(data.data(), data.size());
}

} // namespace adapter

// The command set of both links; the network head's own commands only where Link is Net.
template <class Link>
void addDeviceCommands(OwnedClass<Link>& c)
{
    // Trigger, scan and synchronisation.
    ZT_PY_COMMAND(c, Set, sendTrigger);
    ZT_PY_COMMAND(c, Set, sendStopTrigger);
    ZT_PY_COMMAND(c, Set, sendPreTrigger);
    ZT_PY_COMMAND(c, Set, getTriggerMode);
    ZT_PY_COMMAND(c, Set, setScanStatus, "status");
    ZT_PY_COMMAND(c, Set, setScanDataSource, "source");
    ZT_PY_COMMAND(c, Set, getScanDataSource);
    ZT_PY_COMMAND(c, Set, execSync, "start", "wait");
    ZT_PY_COMMAND(c, Set, updateSyncStat);
    ZT_PY_COMMAND(c, Set, setHardwareSyncMode, "mode");
    ZT_PY_COMMAND(c, Set, getHardwareSyncMode);
    ZT_PY_COMMAND(c, Set, setMaster, "master");
    ZT_PY_COMMAND(c, Set, getMaster);
    ZT_PY_COMMAND(c, Set, setSystemId, "system_id");
    ZT_PY_COMMAND(c, Set, getSystemId);
    ZT_PY_COMMAND(c, Set, getBandWidth);
    // Camera, exposure and frame rate.
    ZT_PY_COMMAND(c, Set, setCameraExposure, "exposure");
    ZT_PY_COMMAND(c, Set, getCameraExposure);
    ZT_PY_COMMAND(c, Set, setLedExposure, "exposure");
    ZT_PY_COMMAND(c, Set, getLedExposure);
    ZT_PY_COMMAND(c, Set, setCameraGain, "gain");
    ZT_PY_COMMAND(c, Set, getCameraGain);
    ZT_PY_COMMAND(c, Set, setCameraFrameRate, "fps");
    ZT_PY_COMMAND(c, Set, getCameraFrameRate);
    ZT_PY_COMMAND(c, Set, setPeriod, "period_ms");
    ZT_PY_COMMAND(c, Set, getPeriod);
    ZT_PY_COMMAND(c, adapter, setCameraROI, "name", "x", "y", "width", "height");
    ZT_PY_COMMAND(c, adapter, getCameraROI);
    ZT_PY_COMMAND(c, adapter, setCameraReverse, "name", "value");
    ZT_PY_COMMAND(c, Set, setImageROI, "name", "x", "y", "width", "height");
    ZT_PY_COMMAND(c, Set, getImageSize);
    ZT_PY_COMMAND(c, Set, resetCamera);
    ZT_PY_COMMAND(c, Set, setDropFrameRateMode, "mode");
    ZT_PY_COMMAND(c, Set, setLaserTriggerMode, "mode");
    ZT_PY_COMMAND(c, Set, setDeviceDropFrame, "a", "b", "c", "d", "e", "f");
    ZT_PY_COMMAND(c, adapter, setQRBarCenter, "name", "flag", "a", "b");
    // Light, laser, light pen and housekeeping.
    ZT_PY_COMMAND(c, Set, sendLightCMD, "command");
    ZT_PY_COMMAND(c, Set, sendLazerCMD, "command", "channel", "value");
    ZT_PY_COMMAND(c, Set, enableAlarmVoice, "enable");
    ZT_PY_COMMAND(c, Set, sendIsBlackObject, "black");
    ZT_PY_COMMAND(c, Set, setLightPenEnable, "enable");
    ZT_PY_COMMAND(c, Set, SetLightpenType, "type");
    ZT_PY_COMMAND(c, Set, sendGetLPFindList);
    ZT_PY_COMMAND(c, Set, sendLPSelectInfo, "sn", "value");
    ZT_PY_COMMAND(c, Set, getLightpenVersion, "sn");
    ZT_PY_COMMAND(c, Set, preheatRK, "value");
    ZT_PY_COMMAND(c, Set, setHybridComputeNum2RK, "count");
    ZT_PY_COMMAND(c, Set, syncTime2Device, "time");
    ZT_PY_COMMAND(c, Set, rebootDevice);
    ZT_PY_COMMAND(c, Set, redetectNetworkCard30);
    ZT_PY_COMMAND(c, Set, getCameraSN);
    ZT_PY_COMMAND(c, Set, getDeviceAbilityInfo);
    ZT_PY_COMMAND(c, adapter, getCurDeviceAbilityInfo);
    ZT_PY_COMMAND(c, adapter, parseDeviceAblityInfo, "payload");
    ZT_PY_COMMAND(c, Set, getFirmwareVersion);
    ZT_PY_COMMAND(c, Set, getFirmwareDate);
    ZT_PY_COMMAND(c, Set, getRKProgramVersion);
    // Registers and network settings.
    ZT_PY_COMMAND(c, Set, setIntegerRegisterValue, "name", "value");
    ZT_PY_COMMAND(c, Set, getIntegerRegisterValue, "name");
    ZT_PY_COMMAND(c, Set, setEnumerationRegisterValue, "name", "value");
    ZT_PY_COMMAND(c, Set, getEnumerationRegisterValue, "name");
    ZT_PY_COMMAND(c, Set, readRegisterValue, "device", "address", "length");
    ZT_PY_COMMAND(c, adapter, setRegisterValue, "device", "address", "data");
    ZT_PY_COMMAND(c, adapter, setWifi, "ssid", "password");
    ZT_PY_COMMAND(c, adapter, getWifi);
    ZT_PY_COMMAND(c, Set, reconnectWIFI, "ssid");
    // Files, firmware and logs.
    ZT_PY_COMMAND(c, Set, getSETFile, "data_type");
    ZT_PY_COMMAND(c, adapter, sendSETFile, "data");
    ZT_PY_COMMAND(c, adapter, sendRGFFile, "data");
    ZT_PY_COMMAND(c, Set, getLPSETFile, "sn");
    ZT_PY_COMMAND(c, adapter, sendLightpenSETFile, "data");
    ZT_PY_COMMAND(c, adapter, updateFirmware, "data");
    ZT_PY_COMMAND(c, Set, getSectionalLog);
    ZT_PY_COMMAND(c, Set, getAllLog);
    if constexpr (std::is_same_v<Link, Net>) {
        ZT_PY_COMMAND(c, Net, switchHardwareFrameRate, "type");
        ZT_PY_COMMAND(c, Net, getHardwareFrameRateType);
        ZT_PY_COMMAND(c, Net, preheatRKWithTrigger, "value");
        ZT_PY_COMMAND(c, Net, getTemp);
        ZT_PY_COMMAND(c, Net, getRGFFile);
    }
}

// ---- image helpers ----------------------------------------------------------------------

constexpr std::size_t kRecordHeader = 76; // header, stamp, width and height
constexpr std::size_t kPartHeader = 8;

std::uint16_t u16At(const char* p, std::size_t at)
{
    std::uint16_t v;
    std::memcpy(&v, p + at, sizeof v);
    return v;
}

// The bytes a record needs, from what its own fields declare; 0 when they run past size.
std::size_t recordSize(const char* record, std::size_t size, bool cutout)
{
    if (size < kRecordHeader + (cutout ? 2 : 0))
        return 0;
    const std::size_t width = u16At(record, 72);
    const std::size_t height = u16At(record, 74);
    if (!cutout)
        return kRecordHeader + width * height * 2 <= size ? kRecordHeader + width * height * 2 : 0;
    std::size_t at = kRecordHeader + 2;
    for (int part = 0, parts = u16At(record, kRecordHeader); part < parts; ++part) {
        if (at + kPartHeader > size)
            return 0;
        at += kPartHeader + static_cast<std::size_t>(u16At(record, at + 4)) * u16At(record, at + 6);
        if (at > size)
            return 0;
    }
    return at;
}

py::array_t<unsigned char> imageOf(const cv::Mat& mat)
{
    py::array_t<unsigned char> image({mat.rows, mat.cols});
    for (int r = 0; r < mat.rows; ++r)
        std::memcpy(image.mutable_data(r, 0), mat.ptr(r), static_cast<std::size_t>(mat.cols));
    return image;
}

// getOriImageData and getCutoutImageData: (image, width, height, timestamp, header).
template <class W>
py::tuple assembleImage(W& w, py::buffer record, bool cutout)
{
    const auto use = w.use();
    ztImageAssembler& assembler = *use;
    const py::buffer_info info = contiguousBytes(record, true);
    char* bytes = static_cast<char*>(info.ptr);
    const char* name = cutout ? "getCutoutImageData" : "getOriImageData";
    if (recordSize(bytes, static_cast<std::size_t>(info.size * info.itemsize), cutout) == 0)
        throw py::value_error(std::string(name) + ": the record is shorter than its width, height" +
                              (cutout ? " and parts declare" : " and pixels declare"));
    unsigned char* image = nullptr;
    short width = 0, height = 0;
    unsigned long long stamp = 0;
    char header[64];
    py::array_t<unsigned char> pixels;
    std::string log;
    int result;
    {
        py::gil_scoped_release release;
        LogCapture capture;
        result = cutout ? assembler.getCutoutImageData(bytes, image, &width, &height, &stamp, header)
                        : assembler.getOriImageData(bytes, image, &width, &height, &stamp, header);
        log = capture.text();
    }
    if (result != 0 || (image == nullptr && width != 0 && height != 0))
        raiseCommandError(name, result != 0 ? result : -1, log);
    // The pixels stay valid until the next call on this object: the array is a copy.
    const int w16 = static_cast<std::uint16_t>(width), h16 = static_cast<std::uint16_t>(height);
    pixels = py::array_t<unsigned char>({h16, w16});
    if (image != nullptr)
        std::memcpy(pixels.mutable_data(), image, static_cast<std::size_t>(w16) * static_cast<std::size_t>(h16));
    return py::make_tuple(pixels, w16, h16, stamp, py::bytes(header, sizeof header));
}

template <class W, class Cls>
void addImageHelpers(Cls& c)
{
    c.def(
         "imageFormat_16To8",
         [](W& w, py::array_t<unsigned short, py::array::c_style> src, int count, int rows, int cols) {
             const auto use = w.use();
             ztImageAssembler& assembler = *use;
             if (!src.writeable())
                 throw py::value_error("imageFormat_16To8: src is rewritten in place and must be writable");
             if (count < 0 || count > src.size())
                 throw py::value_error("imageFormat_16To8: count must lie within 0 and src.size");
             unsigned short* pixels = src.mutable_data();
             cv::Mat image;
             std::string log;
             {
                 py::gil_scoped_release release;
                 LogCapture capture;
                 image = assembler.imageFormat_16To8(pixels, count, rows, cols);
                 log = capture.text();
             }
             if (image.empty() && rows * cols != 0)
                 raiseCommandError("imageFormat_16To8", -1, log);
             return imageOf(image);
         },
         py::arg("src"), py::arg("count"), py::arg("rows"), py::arg("cols"),
         "The first count pixels of src (uint16, rewritten in place) scaled to 8 bits in a new rows x cols "
         "uint8 image.")
        .def(
            "MergePart2Complete",
            [](W& w, py::array_t<unsigned char, py::array::c_style> full, py::buffer part, int x, int y, int partWidth,
               int partRows) {
                const auto use = w.use();
                ztImageAssembler& assembler = *use;
                if (full.ndim() != 2 || !full.writeable())
                    throw py::value_error("MergePart2Complete: full must be a writable 2-D uint8 array");
                const py::buffer_info info = contiguousBytes(part, false);
                if (partWidth < 0 || partRows < 0 ||
                    static_cast<py::ssize_t>(partWidth) * partRows > info.size * info.itemsize)
                    throw py::value_error("MergePart2Complete: part holds fewer than partWidth x partRows bytes");
                cv::Mat image(static_cast<int>(full.shape(0)), static_cast<int>(full.shape(1)), CV_8UC1,
                              full.mutable_data());
                std::string log;
                {
                    py::gil_scoped_release release;
                    LogCapture capture;
                    assembler.MergePart2Complete(&image, static_cast<unsigned char*>(info.ptr), x, y, partWidth,
                                                 partRows);
                    log = capture.text();
                }
                if (!log.empty())
                    raiseCommandError("MergePart2Complete", -1, log);
            },
            py::arg("full"), py::arg("part"), py::arg("x"), py::arg("y"), py::arg("partWidth"), py::arg("partRows"),
            "Copies a packed partWidth x partRows uint8 block into full (in place) at column x, row y.")
        .def(
            "getOriImageData", [](W& w, py::buffer record) { return assembleImage(w, record, false); },
            py::arg("record"),
            "A full-frame record (writable; its pixels are rewritten) as (image, width, height, timestamp, header): "
            "image is a new height x width uint8 array.")
        .def(
            "getCutoutImageData", [](W& w, py::buffer record) { return assembleImage(w, record, true); },
            py::arg("record"), "A cut-out record as (image, width, height, timestamp, header).");
}

// The members both device links share beyond the command set.
template <class Link>
void addLinkBasics(OwnedClass<Link>& c)
{
    using W = Owned<Link>;
    addOwnedBasics<Link>(c, "registerModuleServerDataCB", &Link::registerModuleServerDataCB);
    addDeviceCommands<Link>(c);
    addImageHelpers<W>(c);
    c.def(
         "deInit",
         [](W& w) {
             const auto use = w.use();
             Link& link = *use;
             py::gil_scoped_release release;
             link.deInit();
         },
         "Stops every thread of the link; init may follow.")
        .def("isConnected", [](W& w) { return w.use()->isConnected(); })
        .def("getDeviceSN", [](W& w) { return deviceText(w.use()->getDeviceSN()); })
        .def("setHeartBeatAlive", [](W& w, bool alive) { w.use()->setHeartBeatAlive(alive); }, py::arg("alive"))
        .def("releaseClient", [](W& w) {
            const auto use = w.use();
            Link& link = *use;
            py::gil_scoped_release release;
            link.releaseClient();
        })
        .def("resetQlensNetProto", [](W& w) { w.use()->resetQlensNetProto(); })
        .def(
            "sendData",
            [](W& w, std::string data, bool check) {
                const auto use = w.use();
                Link& link = *use;
                int result;
                std::string log;
                {
                    py::gil_scoped_release release;
                    LogCapture capture;
                    result = link.sendData(data);
                    log = capture.text();
                }
                return finish("sendData", result, result >= 0, log, py::none(), false, check);
            },
            py::arg("data"), py::kw_only(), py::arg("check") = true);
}

// A command-like call of Link that takes no argument and returns a result code.
template <class Link, int (Link::*Method)()>
py::object runPlain(Owned<Link>& w, const char* name, bool check, bool zeroOnly)
{
    const auto use = w.use();
    Link& link = *use;
    int result;
    std::string log;
    {
        py::gil_scoped_release release;
        LogCapture capture;
        result = (link.*Method)();
        log = capture.text();
    }
    return finish(name, result, zeroOnly ? result == 0 : result >= 0, log, py::none(), false, check);
}

void bindNetworkServer(py::module_& m)
{
    using W = Owned<Net>;
    OwnedClass<Net> c(m, "ztEmbeddedModuleProxyServer",
                      "Host-side link to a network scanner head (four TCP connections to its port 42001).");
    c.def(py::init([] { return new W(std::make_unique<Net>()); }));
    addLinkBasics<Net>(c);
    c.def(
         "init",
         [](W& w, const std::string& localIP, const std::string& remoteIP, const std::string& deviceSN, bool check) {
             const auto use = w.use();
             Net& net = *use;
             int result;
             std::string log;
             {
                 py::gil_scoped_release release;
                 LogCapture capture;
                 result = net.init(localIP, remoteIP, deviceSN);
                 log = capture.text();
             }
             return finish("init", result, result == 0, log, py::none(), false, check);
         },
         py::arg("localIP"), py::arg("remoteIP"), py::arg("deviceSN") = "", py::kw_only(), py::arg("check") = true,
         "Connects to the head and brings it online; raises CommandError on -1 or 205 (connect time-out).")
        .def("getDataPort", [](W& w) { return w.use()->getDataPort(); })
        .def("releaseClientSignal", [](W& w) { w.use()->releaseClientSignal(); })
        .def(
            "sendHeartbeat",
            [](W& w, bool check) { return runPlain<Net, &Net::sendHeartbeat>(w, "sendHeartbeat", check, false); },
            py::kw_only(), py::arg("check") = true)
        .def("recvOnceData", [](W& w) {
            const auto use = w.use();
            Net& net = *use;
            std::string out;
            int result;
            std::string log;
            {
                py::gil_scoped_release release;
                LogCapture capture;
                result = net.recvOnceData(out);
                log = capture.text();
            }
            if (result < 0)
                raiseCommandError("recvOnceData", result, log);
            return py::bytes(out);
        })
        .def(
            "analysisTempInfo",
            [](W& w, std::string payload) {
                // One count byte behind the status word, then that many floats.
                payload.resize(std::max<std::size_t>(payload.size(), 5 + 255 * 4), '\0');
                int code = 0;
                std::vector<float> temps;
                w.use()->analysisTempInfo(payload.data(), &code, &temps);
                return py::make_tuple(code, temps);
            },
            py::arg("payload"), "A temperature reply's payload as (status, [temperatures]).");
}

void bindUsbServer(py::module_& m)
{
    using W = Owned<Usb>;
    OwnedClass<Usb> c(m, "ztUsbProxyServer",
                      "Host-side link to a USB3 scanner head, opened here with libusb by vendor and product id,\n"
                      "or by bus and address.");
    c.def(py::init([](std::optional<unsigned short> vid, std::optional<unsigned short> pid, std::optional<int> bus,
                      std::optional<int> address, const std::string& serial, unsigned int streamMaxPacket) {
              zt::tools::UsbSelector which;
              if (bus.has_value() != address.has_value())
                  throw py::value_error("give bus and address together");
              if (vid.has_value() != pid.has_value())
                  throw py::value_error("give vid and pid together");
              if (!vid && !bus)
                  throw py::value_error("give vid and pid, or bus and address");
              which.vendor = vid.value_or(0);
              which.product = pid.value_or(0);
              which.bus = bus.value_or(-1);
              which.address = address.value_or(-1);
              which.serial = serial;
              auto head = std::make_shared<zt::tools::UsbHead>();
              std::string error;
              bool opened;
              {
                  py::gil_scoped_release release;
                  opened = head->open(which, error);
              }
              if (!opened)
                  throw py::value_error(error);
              _ZT_USB3_DEVICE_INFO_ info = head->info();
              if (streamMaxPacket != 0)
                  info.streamMaxPacket = streamMaxPacket;
              return new W(std::make_unique<Usb>(info, head->handle()), head);
          }),
          py::arg("vid") = py::none(), py::arg("pid") = py::none(), py::kw_only(), py::arg("bus") = py::none(),
          py::arg("address") = py::none(), py::arg("serial") = "", py::arg("stream_max_packet") = 0,
          "Opens the head (interface 0 claimed, endpoints read from its descriptors); stream_max_packet\n"
          "overrides the stream endpoint's packet size (a stream transfer is 64 of them).");
    addLinkBasics<Usb>(c);
    c.def(
        "init", [](W& w, bool check) { return runPlain<Usb, &Usb::init>(w, "init", check, true); }, py::kw_only(),
        py::arg("check") = true, "Starts the transfers and threads and brings the head online.");
}

void bindImageAssembler(py::module_& m)
{
    OwnedClass<ztImageAssembler> c(m, "ztImageAssembler", "Image assembly on its own.");
    c.def(py::init([] { return new Owned<ztImageAssembler>(std::make_unique<ztImageAssembler>()); }));
    addImageHelpers<Owned<ztImageAssembler>>(c);
}

void bindUdpClient(py::module_& m)
{
    using U = ztScanEmbeddedUDPClient;
    py::class_<U>(m, "ztScanEmbeddedUDPClient",
                  "UDP client for network heads: broadcasts to 255.255.255.255 from local port 32002.")
        .def(py::init<>())
        .def(
            "init",
            [](U& u, bool check) {
                const int result = u.init();
                return finish("init", result, result == 0, "", py::none(), false, check);
            },
            py::kw_only(), py::arg("check") = true)
        .def(
            "connect",
            [](U& u, const std::string& bindIP, int port, bool check) {
                const int result = u.connect(bindIP, port);
                return finish("connect", result, result == 0, "", py::none(), false, check);
            },
            py::arg("bindIP"), py::arg("port"), py::kw_only(), py::arg("check") = true)
        .def(
            "send",
            [](U& u, const std::string& data) {
                int sent;
                {
                    py::gil_scoped_release release;
                    sent = u.send(reinterpret_cast<const unsigned char*>(data.data()),
                                  static_cast<unsigned int>(data.size()));
                }
                if (sent < 0)
                    raiseCommandError("send", sent, "");
                return sent;
            },
            py::arg("data"), "One datagram; the bytes sent.")
        .def(
            "sendn",
            [](U& u, const std::string& request, unsigned int capacity) {
                std::vector<unsigned char> reply(capacity);
                int result;
                std::string log;
                {
                    py::gil_scoped_release release;
                    LogCapture capture;
                    result = u.sendn(reinterpret_cast<const unsigned char*>(request.data()),
                                     static_cast<unsigned int>(request.size()), reply.data(), capacity);
                    log = capture.text();
                }
                if (result != 0)
                    raiseCommandError("sendn", result, log);
                std::uint32_t size;
                std::memcpy(&size, reply.data() + 1, sizeof size);
                return py::bytes(reinterpret_cast<const char*>(reply.data()), std::min<std::size_t>(size, capacity));
            },
            py::arg("request"), py::arg("capacity") = 65536,
            "Sends the request and waits up to 4 s for one embedded message in reply: its bytes.")
        .def(
            "recv",
            [](U& u, unsigned int capacity) -> py::object {
                std::vector<unsigned char> buffer(capacity);
                int result;
                {
                    py::gil_scoped_release release;
                    result = u.recv(buffer.data(), capacity);
                }
                if (result != 0)
                    return py::none();
                std::uint32_t size;
                std::memcpy(&size, buffer.data() + 1, sizeof size);
                return py::bytes(reinterpret_cast<const char*>(buffer.data()), std::min<std::size_t>(size, capacity));
            },
            py::arg("capacity") = 65536, "One embedded message collected for about 30 ms, or None.")
        .def("deInit", &U::deInit, py::call_guard<py::gil_scoped_release>())
        .def("getBindIP", &U::getBindIP)
        .def("getConnectIP", &U::getConnectIP)
        .def("resetConnectIP", &U::resetConnectIP)
        .def("IsConnected", &U::IsConnected);
}

} // namespace

void bindDeviceLinks(py::module_& m)
{
    bindImageAssembler(m);
    bindNetworkServer(m);
    bindUsbServer(m);
    bindUdpClient(m);
}

} // namespace ztpy
