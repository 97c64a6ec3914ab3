// Records a scanner head session into one file: every byte the device link carries in both
// directions (the network link's four connections, the USB link's transfers) with its
// connection or endpoint and a time stamp, and every device command with its request,
// reply and result. A header names the link, the library version, and the head's serial
// number and ability record.
//
// Attach a recorder to a server with ztDeviceCommandSet::attachRecorder (before init, so
// that the connection and the online procedure are recorded too). Recording never holds
// the stream up: the hooks copy into a bounded queue that a writer thread drains to the
// file; when the disk falls behind and the queue is full, what does not fit is counted as
// not recorded (stats(), and a note in the file) instead of waiting.
//
// A file cut short (Ctrl-C, a crash, a full disk) reads up to its last whole record.
// load() reads a recording back; the simulated heads of ztProxySim replay one.
#ifndef ZT_RECORDER_H
#define ZT_RECORDER_H

#include "ztProxyExport.h"
#include "ztProxyTypes.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zt {
class RecorderCore;
}

class ZT_PROXY_API ztRecorder {
public:
    enum Link : std::uint32_t { UnknownLink = 0, NetworkLink = 1, UsbLink = 2 };
    enum Kind : std::uint8_t {
        // Bytes from the head: a receive on a network connection, or a finished USB IN
        // transfer (status: libusb's transfer status).
        BytesIn = 1,
        // Bytes to the head: a send on a network connection, or a USB OUT transfer (status:
        // libusb's result).
        BytesOut = 2,
        // A device command: the request message, then the reply message (none when nothing
        // came back); status is the command's result.
        Command = 3,
        // Records that did not fit into the queue: channel 0, status the number of records,
        // bytes the 64-bit little-endian count of their bytes.
        NotRecorded = 4,
    };

    struct Header {
        Link link = UnknownLink;
        std::string libraryVersion;
        std::string serialNumber;
        bool abilityKnown = false;
        DeviceAbilityInfo ability{};
        // USB: stream IN, control IN, event IN, control OUT and heartbeat OUT.
        unsigned char endpoints[5] = {0, 0, 0, 0, 0};
    };

    struct Record {
        Kind kind = BytesIn;
        // Network: the connection (0 command, 1 data, 2 command-data, 3 light pen). USB: the
        // endpoint address.
        unsigned channel = 0;
        int status = 0;
        // Nanoseconds since the recorder was opened.
        unsigned long long timeNs = 0;
        std::vector<char> bytes;
        // Command: the request's bytes at the front of bytes; the reply follows.
        std::size_t requestSize = 0;
    };

    struct Contents {
        Header header;
        std::vector<Record> records;
        // The file ended inside a record (the part was left out).
        bool cut = false;
    };

    struct Stats {
        unsigned long long records = 0;
        unsigned long long bytes = 0; // bytes carried by the records written
        unsigned long long notRecorded = 0;
        unsigned long long notRecordedBytes = 0;
    };

    // queueBytes (at least 4 KiB) bounds the memory that records waiting for the disk hold.
    explicit ztRecorder(std::size_t queueBytes = std::size_t(256) << 20);
    ~ztRecorder(); // closes
    ztRecorder(const ztRecorder&) = delete;
    ztRecorder& operator=(const ztRecorder&) = delete;

    // Creates (or empties) the file, writes the header and starts the writer: 0, or -1 when
    // the file cannot be written. Opening an open recorder closes the first file.
    int open(const std::string& path);
    // Writes everything queued and the final header, and closes the file. Safe twice.
    void close();
    bool isOpen() const;
    Stats stats() const;

    // Reads a recording: 0, or -1 (with a log line) when the file cannot be read or is no
    // recording. A cut file gives its whole records and cut = true.
    static int load(const std::string& path, Contents& out);

private:
    friend class ztDeviceCommandSet;
    std::unique_ptr<zt::RecorderCore> m_core;
};

#endif
