#include "platform/usb/capture.h"

#include "platform/kernel/driver_call.h"
#include "platform/usb/completion_hook.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

// The file format is pcapng (IETF draft-ietf-opsawg-pcapng): one section header, one interface description,
// one enhanced packet block per event. An event is the Linux kernel's `struct mon_bin_hdr` in its 64-byte
// form (Documentation/usb/usbmon.rst), which is what link type 220 means, followed by its data.

namespace usb {

namespace {

static_assert(std::endian::native == std::endian::little, "blocks are written in the machine's byte order");

constexpr std::uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr std::uint32_t kInterfaceBlock = 1;
constexpr std::uint32_t kPacketBlock = 6;
constexpr std::uint16_t kLinkType = 220;
constexpr std::uint16_t kOptionTimeResolution = 9;
constexpr std::uint8_t kHundredNanoseconds = 7; // 10^-7 s

// The largest packet that Wireshark reads, header included; measured with tshark 4.0. A longer one is cut
// there, and its record keeps the original length.
constexpr std::uint32_t kSnapLength = 128 * 1024 * 1024;

constexpr std::uint16_t kBusNumber = 1;

struct UsbmonHeader {
    std::uint64_t id = 0;
    std::uint8_t event = 0;
    std::uint8_t transferType = 0;
    std::uint8_t endpoint = 0;
    std::uint8_t device = 0;
    std::uint16_t bus = kBusNumber;
    char setupFlag = '-'; // 0 when `setup` holds a setup packet
    char dataFlag = 0;    // 0 when data follows, else the direction that data has
    std::int64_t seconds = 0;
    std::int32_t microseconds = 0;
    std::int32_t status = 0;
    std::uint32_t length = 0;
    std::uint32_t captured = 0;
    std::array<std::uint8_t, 8> setup{};
    std::int32_t interval = 0;
    std::int32_t startFrame = 0;
    std::uint32_t flags = 0;
    std::uint32_t isochronousDescriptors = 0;
};
static_assert(sizeof(UsbmonHeader) == 64);

std::uint8_t typeCode(TransferType type) {
    switch (type) {
    case TransferType::Interrupt:
        return 1;
    case TransferType::Control:
        return 2;
    case TransferType::Bulk:
        return 3;
    }
    return 3;
}

// Linux's error numbers, as its host stack reports the same events.
std::int32_t statusCode(Status status) {
    switch (status) {
    case Status::Success:
        return 0;
    case Status::Stalled:
        return -EPIPE;
    case Status::Cancelled:
        return -ENOENT;
    case Status::Gone:
        return -ESHUTDOWN;
    case Status::Error:
        return -EPROTO;
    }
    return -EPROTO;
}

std::array<std::uint8_t, 8> setupBytes(const SetupPacket& setup) {
    const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value & 0xFF); };
    const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); };
    return {setup.requestType, setup.request,     low(setup.value),  high(setup.value),
            low(setup.index),  high(setup.index), low(setup.length), high(setup.length)};
}

class PcapngFile {
  public:
    explicit PcapngFile(const std::string& name) : name_(name), file_(std::fopen(name.c_str(), "wb")) {
        if (file_ == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        writeSectionHeader();
        writeInterface();
    }
    ~PcapngFile() {
        if (file_ != nullptr) {
            std::fclose(file_);
        }
    }
    PcapngFile(const PcapngFile&) = delete;
    PcapngFile& operator=(const PcapngFile&) = delete;

    bool isOpen() const { return file_ != nullptr; }

    void writePacket(Time time, const UsbmonHeader& header, std::span<const std::uint8_t> data) {
        const auto stamp = static_cast<std::uint64_t>(time);
        const auto original =
            static_cast<std::uint32_t>(sizeof(header) + header.length * (data.empty() ? 0 : 1));
        const auto captured = static_cast<std::uint32_t>(sizeof(header) + data.size());
        const std::array<std::uint32_t, 5> fields = {0, static_cast<std::uint32_t>(stamp >> 32),
                                                     static_cast<std::uint32_t>(stamp), captured,
                                                     std::max(original, captured)};
        writeBlock(kPacketBlock, {bytesOf(fields), bytesOf(header), data});
    }

    void close() {
        const int failure = std::fclose(std::exchange(file_, nullptr)) != 0 ? errno : error_;
        if (failure != 0) {
            throw std::system_error(failure, std::generic_category(), name_);
        }
    }

  private:
    template <typename T>
    static std::span<const std::uint8_t> bytesOf(const T& value) {
        return {reinterpret_cast<const std::uint8_t*>(&value), sizeof(value)};
    }

    void writeSectionHeader() {
        struct {
            std::uint32_t byteOrderMagic = 0x1A2B3C4D;
            std::uint16_t major = 1;
            std::uint16_t minor = 0;
            std::int64_t sectionLength = -1; // not known in advance
        } const section;
        writeBlock(kSectionHeaderBlock, {bytesOf(section)});
    }

    void writeInterface() {
        struct {
            std::uint16_t linkType = kLinkType;
            std::uint16_t reserved = 0;
            std::uint32_t snapLength = kSnapLength;
            std::uint16_t option = kOptionTimeResolution;
            std::uint16_t optionLength = 1;
            std::array<std::uint8_t, 4> resolution = {kHundredNanoseconds};
            std::uint32_t endOfOptions = 0;
        } const interface;
        writeBlock(kInterfaceBlock, {bytesOf(interface)});
    }

    // A block: type, total length, the parts padded to four bytes, total length again.
    void writeBlock(std::uint32_t type, std::initializer_list<std::span<const std::uint8_t>> parts) {
        std::size_t size = 0;
        for (const auto& part : parts) {
            size += part.size();
        }
        const std::size_t padding = (4 - size % 4) % 4;
        const auto total = static_cast<std::uint32_t>(size + padding + 3 * sizeof(std::uint32_t));
        write(bytesOf(type));
        write(bytesOf(total));
        for (const auto& part : parts) {
            write(part);
        }
        const std::array<std::uint8_t, 4> zeros{};
        write(std::span(zeros).first(padding));
        write(bytesOf(total));
    }

    void write(std::span<const std::uint8_t> bytes) {
        if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size() &&
            error_ == 0) {
            error_ = errno;
        }
    }

    std::string name_;
    std::FILE* file_;
    int error_ = 0; // of the first write that failed
};

} // namespace

struct Capture::State : std::enable_shared_from_this<State> {
    State(Device& innerDevice, Clock& captureClock, const std::string& name, std::uint16_t number)
        : inner(innerDevice), clock(captureClock), device(static_cast<std::uint8_t>(number)), file(name) {}

    Device& inner;
    Clock& clock;
    const std::uint8_t device;

    std::mutex mutex;
    PcapngFile file;          // guarded by `mutex`
    std::uint64_t lastId = 0; // guarded by `mutex`

    void submit(Transfer& transfer) {
        std::uint64_t id = 0;
        {
            // The time is read under the lock, so that the events in the file are in its order.
            std::lock_guard lock(mutex);
            id = ++lastId;
            recordSubmission(id, transfer);
        }
        hookCompletion(transfer, [self = shared_from_this(), id](Transfer& done) {
            {
                std::lock_guard lock(self->mutex);
                self->recordCompletion(id, done);
            }
            completeTransfer(done);
        });
        inner.submit(transfer);
    }

    void recordSubmission(std::uint64_t id, const Transfer& transfer) {
        UsbmonHeader header = headerFor(id, 'S', transfer);
        if (transfer.type == TransferType::Control) {
            header.setupFlag = 0;
            header.setup = setupBytes(transfer.setup);
        }
        header.status = -EINPROGRESS;
        header.length = static_cast<std::uint32_t>(transfer.data.size());
        record(header, transfer, !transfer.isIn(), transfer.data.size());
    }

    void recordCompletion(std::uint64_t id, const Transfer& transfer) {
        UsbmonHeader header = headerFor(id, 'C', transfer);
        header.status = statusCode(transfer.status);
        header.length = transfer.actual;
        record(header, transfer, transfer.isIn(), transfer.actual);
    }

    UsbmonHeader headerFor(std::uint64_t id, char event, const Transfer& transfer) const {
        UsbmonHeader header;
        header.id = id;
        header.event = static_cast<std::uint8_t>(event);
        header.transferType = typeCode(transfer.type);
        header.endpoint =
            static_cast<std::uint8_t>((transfer.endpoint & 0x7F) | (transfer.isIn() ? 0x80 : 0));
        header.device = device;
        return header;
    }

    void record(UsbmonHeader& header, const Transfer& transfer, bool withData, std::size_t size) {
        if (!file.isOpen()) {
            return;
        }
        const Time time = clock.now();
        header.seconds = time / kSecond;
        header.microseconds = static_cast<std::int32_t>(time % kSecond / kMicrosecond);
        std::span<const std::uint8_t> data;
        if (withData) {
            data = std::span<const std::uint8_t>(transfer.data).first(std::min(size, transfer.data.size()));
            data = data.first(std::min<std::size_t>(data.size(), kSnapLength - sizeof(header)));
        } else {
            header.dataFlag = transfer.isIn() ? '<' : '>';
        }
        header.captured = static_cast<std::uint32_t>(data.size());
        file.writePacket(time, header, data);
    }

    void finish() {
        std::lock_guard lock(mutex);
        if (file.isOpen()) {
            file.close();
        }
    }
};

Capture::Capture(Device& inner, Clock& clock, const std::string& file, std::uint16_t deviceNumber)
    : state_(std::make_shared<State>(inner, clock, file, deviceNumber)) {}

Capture::~Capture() {
    try {
        finish();
    } catch (const std::system_error&) {
        // A caller that needs the error calls `finish` before.
    }
}

Speed Capture::speed() const {
    return state_->inner.speed();
}

void Capture::submit(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->submit(transfer);
}

void Capture::cancel(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->inner.cancel(transfer);
}

void Capture::disconnect() {
    kernel::PlatformCall call;
    state_->inner.disconnect();
}

void Capture::finish() {
    kernel::PlatformCall call;
    state_->finish();
}

} // namespace usb
