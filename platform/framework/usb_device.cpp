#include "platform/framework/usb_device.h"

#include "platform/framework/device.h"
#include "platform/kernel/pool.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace framework {

using kernel::KernelGuard;

namespace {

// Standard requests, USB 2.0, table 9-4.
constexpr UCHAR kGetStatus = 0x00;
constexpr UCHAR kGetDescriptor = 0x06;
constexpr UCHAR kSetConfiguration = 0x09;
constexpr UCHAR kSetInterface = 0x0B;
constexpr UCHAR kDeviceToHost = 0x80;
constexpr UCHAR kToDevice = 0x00;
constexpr UCHAR kToInterface = 0x01;
constexpr USHORT kSelfPowered = 0x01; // in the answer to GET_STATUS

constexpr kernel::Time kReadTimeout = 5 * base::kSecond;
constexpr kernel::Time kChangeTimeout = 2 * base::kSecond;

// The setup packet is sent as it is in memory.
usb::SetupPacket setupPacket(const WDF_USB_CONTROL_SETUP_PACKET& packet) {
    return {packet.Packet.bm.Byte, packet.Packet.bRequest, packet.Packet.wValue.Value,
            packet.Packet.wIndex.Value, packet.Packet.wLength};
}

} // namespace

void requireTransferBuffer(const Call& call, const Object* object, const void* address, std::size_t size) {
    const auto block = kernel::findPoolBlock(address);
    if (!block) {
        if (kernel::liesInFreedBlock(address)) {
            call.fail(Rule::BufferLifetime, object, "The transfer's memory lies in a freed pool block.");
        }
        return;
    }
    if (block->type == PagedPool) {
        call.fail(Rule::Argument, object, "The transfer's memory is from paged pool.");
    }
    const auto* begin = static_cast<const std::uint8_t*>(address);
    if (size > static_cast<std::size_t>(static_cast<std::uint8_t*>(block->address) + block->size - begin)) {
        call.fail(Rule::BufferTooShort, object,
                  fmt::format("A transfer of {} bytes reaches beyond the end of its pool block.", size));
    }
}

void requireTransferMdl(const Call& call, const Object* object, const MDL* mdl) {
    if (!kernel::isLiveMdl(mdl)) {
        call.fail(Rule::BufferLifetime, object, "The transfer's MDL has been freed.");
    }
    if (!kernel::isMdlMemoryLive(mdl)) {
        call.fail(Rule::BufferLifetime, object, "The pool block that the MDL describes has been freed.");
    }
}

UsbDevice::UsbDevice(Device& device) : IoTarget(Kind::UsbDevice, device) {}

usb::Host& UsbDevice::host() {
    return device().host();
}

NTSTATUS UsbDevice::readFromDevice(UCHAR request, USHORT value, void* data, USHORT length) {
    return controlTransfer(host(), {kDeviceToHost, request, value, 0, length}, data, length,
                           kernel::now() + kReadTimeout)
        .status;
}

NTSTATUS UsbDevice::changeDevice(UCHAR recipient, UCHAR request, USHORT value, USHORT index) {
    return controlTransfer(host(), {recipient, request, value, index, 0}, nullptr, 0,
                           kernel::now() + kChangeTimeout)
        .status;
}

// As the framework does it, the length of an answer is not looked at: what the device left out is zero.
NTSTATUS UsbDevice::readConfiguration() {
    constexpr USHORT kValue = USB_CONFIGURATION_DESCRIPTOR_TYPE << 8;
    USB_CONFIGURATION_DESCRIPTOR header = {};
    NTSTATUS status = readFromDevice(kGetDescriptor, kValue, &header, sizeof(header));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    configuration_.assign(header.wTotalLength, 0);
    if (configuration_.size() < sizeof(header)) {
        return STATUS_INVALID_PARAMETER;
    }
    status = readFromDevice(kGetDescriptor, kValue, configuration_.data(), header.wTotalLength);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const USHORT length = header.wTotalLength;
    std::memcpy(&header, configuration_.data(), sizeof(header));
    return header.wTotalLength == length ? STATUS_SUCCESS : STATUS_DEVICE_DATA_ERROR;
}

NTSTATUS UsbDevice::enumerate(const Call& call) {
    NTSTATUS status =
        readFromDevice(kGetDescriptor, USB_DEVICE_DESCRIPTOR_TYPE << 8, &descriptor_, sizeof(descriptor_));
    if (NT_SUCCESS(status)) {
        status = readConfiguration();
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // A device that does not say is not self-powered.
    USHORT deviceStatus = 0;
    selfPowered_ = NT_SUCCESS(readFromDevice(kGetStatus, 0, &deviceStatus, sizeof(deviceStatus))) &&
                   (deviceStatus & kSelfPowered) != 0;
    std::vector<InterfaceLayout> layouts;
    status = parseConfiguration(configuration_, layouts);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    for (InterfaceLayout& layout : layouts) {
        Ref<UsbInterface> interface;
        status = createObject(call, nullptr, {}, this, interface,
                              [&](Object*) { return new UsbInterface(*this, std::move(layout)); });
        if (!NT_SUCCESS(status)) {
            return status;
        }
        interfaces_.push_back(interface.get());
    }
    return STATUS_SUCCESS;
}

WDF_USB_DEVICE_INFORMATION UsbDevice::information() const {
    constexpr ULONG kUsbdVersion = 0x600;
    constexpr UCHAR kRemoteWake = 0x20; // in the configuration's attributes
    const auto& header = *reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(configuration_.data());
    WDF_USB_DEVICE_INFORMATION information;
    WDF_USB_DEVICE_INFORMATION_INIT(&information);
    information.UsbdVersionInformation = {kUsbdVersion, descriptor_.bcdUSB};
    // The trait is named "at high speed", but the stack sets it for every faster link as well.
    information.Traits = WDF_USB_DEVICE_TRAIT_AT_HIGH_SPEED;
    if (selfPowered_) {
        information.Traits |= WDF_USB_DEVICE_TRAIT_SELF_POWERED;
    }
    if ((header.bmAttributes & kRemoteWake) != 0) {
        information.Traits |= WDF_USB_DEVICE_TRAIT_REMOTE_WAKE_CAPABLE;
    }
    return information;
}

NTSTATUS UsbDevice::sendSelectInterface(const UsbInterface& interface, std::size_t setting) {
    return changeDevice(kToInterface, kSetInterface, static_cast<USHORT>(setting), interface.number());
}

// The setting of each interface that the parameters ask for.
NTSTATUS UsbDevice::settingsOf(const Call& call, const WDF_USB_DEVICE_SELECT_CONFIG_PARAMS& params,
                               std::vector<std::size_t>& settings) const {
    settings.assign(interfaces_.size(), 0);
    switch (params.Type) {
    case WdfUsbTargetDeviceSelectConfigTypeSingleInterface:
        return interfaces_.size() == 1 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    case WdfUsbTargetDeviceSelectConfigTypeMultiInterface:
        return STATUS_SUCCESS;
    case WdfUsbTargetDeviceSelectConfigTypeInterfacesPairs:
        break;
    default:
        return STATUS_NOT_SUPPORTED;
    }
    std::vector<bool> named(interfaces_.size(), false);
    for (UCHAR i = 0; i < params.Types.MultiInterface.NumberInterfaces; i++) {
        const WDF_USB_INTERFACE_SETTING_PAIR& pair = params.Types.MultiInterface.Pairs[i];
        const auto interface = call.object<UsbInterface>(pair.UsbInterface);
        const auto found = std::find(interfaces_.begin(), interfaces_.end(), interface.get());
        if (found == interfaces_.end() || pair.SettingIndex >= interface->settingCount()) {
            return STATUS_INVALID_PARAMETER;
        }
        const auto index = static_cast<std::size_t>(found - interfaces_.begin());
        settings[index] = pair.SettingIndex;
        named[index] = true;
    }
    return std::find(named.begin(), named.end(), false) == named.end() ? STATUS_SUCCESS
                                                                       : STATUS_INVALID_PARAMETER;
}

// After the configuration the framework selects the setting of every interface but the first that has
// endpoints, also setting 0, with which a configuration starts anyway. Interfaces before a failure keep their
// pipes, and the pipes of the others are left in `pipes`.
NTSTATUS UsbDevice::sendSelectConfiguration(const std::vector<std::size_t>& settings,
                                            std::vector<UsbInterface::Pipes>& pipes) {
    const auto& header = *reinterpret_cast<const USB_CONFIGURATION_DESCRIPTOR*>(configuration_.data());
    NTSTATUS status = changeDevice(kToDevice, kSetConfiguration, header.bConfigurationValue, 0);
    for (std::size_t i = 0; NT_SUCCESS(status) && i < interfaces_.size(); i++) {
        // The bus driver does the same for the first one when its setting is not the one of the start.
        if ((i != 0 && interfaces_[i]->hasEndpoints(settings[i])) || settings[i] != 0) {
            status = sendSelectInterface(*interfaces_[i], settings[i]);
        }
        if (NT_SUCCESS(status)) {
            interfaces_[i]->takePipes(settings[i], std::exchange(pipes[i], {}));
        }
    }
    return status;
}

NTSTATUS UsbDevice::selectConfig(const Call& call, const WDF_OBJECT_ATTRIBUTES* pipeAttributes,
                                 WDF_USB_DEVICE_SELECT_CONFIG_PARAMS& params) {
    if (params.Size != sizeof(params)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (interfaces_.empty()) {
        return STATUS_SUCCESS;
    }
    std::vector<std::size_t> settings;
    NTSTATUS status = settingsOf(call, params, settings);
    std::vector<UsbInterface::Pipes> pipes(interfaces_.size());
    for (std::size_t i = 0; NT_SUCCESS(status) && i < interfaces_.size(); i++) {
        status = interfaces_[i]->makePipes(call, settings[i], pipeAttributes, pipes[i]);
    }
    if (NT_SUCCESS(status)) {
        for (UsbInterface* interface : interfaces_) {
            interface->dropPipes(call);
        }
        status = sendSelectConfiguration(settings, pipes);
    }
    for (const UsbInterface::Pipes& unused : pipes) {
        UsbInterface::discard(unused);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (params.Type == WdfUsbTargetDeviceSelectConfigTypeSingleInterface) {
        params.Types.SingleInterface.NumberConfiguredPipes = static_cast<UCHAR>(interfaces_[0]->pipeCount());
        params.Types.SingleInterface.ConfiguredUsbInterface = interfaces_[0]->wdf();
    } else {
        params.Types.MultiInterface.NumberOfConfiguredInterfaces = static_cast<UCHAR>(interfaces_.size());
    }
    return STATUS_SUCCESS;
}

std::vector<Ref<IoTarget>> UsbDevice::parts() const {
    std::vector<Ref<IoTarget>> parts;
    for (const UsbInterface* interface : interfaces_) {
        for (const Ref<UsbPipe>& pipe : interface->pipes()) {
            parts.emplace_back(pipe.get());
        }
    }
    return parts;
}

void UsbDevice::requireReadersStopped(std::string_view callback) const {
    for (const UsbInterface* interface : interfaces_) {
        for (const Ref<UsbPipe>& pipe : interface->pipes()) {
            pipe->requireReaderStopped(callback);
        }
    }
}

std::shared_ptr<Submission> UsbDevice::controlSubmission(const WDF_USB_CONTROL_SETUP_PACKET& setup,
                                                         void* data, std::size_t size, Done done) {
    auto submission = std::make_shared<Submission>(host(), "control transfer", std::move(done));
    submission->transfer().type = usb::TransferType::Control;
    submission->transfer().setup = setupPacket(setup);
    submission->transfer().data = {static_cast<std::uint8_t*>(data), size};
    if (size != 0) {
        submission->use(data, size, "control transfer");
    }
    return submission;
}

namespace {

// The bytes that an URB sends or fills, after checking that they are there.
void* urbData(const Call& call, const Object& request, const _URB_BULK_OR_INTERRUPT_TRANSFER& urb) {
    if (urb.TransferBufferLength == 0) {
        return nullptr;
    }
    if (urb.TransferBufferMDL == nullptr) {
        if (urb.TransferBuffer == nullptr) {
            call.fail(Rule::BufferTooShort, &request, "The URB has a length and no buffer.");
        }
        requireTransferBuffer(call, &request, urb.TransferBuffer, urb.TransferBufferLength);
        return urb.TransferBuffer;
    }
    requireTransferMdl(call, &request, urb.TransferBufferMDL);
    if (MmGetMdlByteCount(urb.TransferBufferMDL) < urb.TransferBufferLength) {
        call.fail(Rule::BufferTooShort, &request,
                  fmt::format("The URB sends {} bytes of an MDL of {}.", urb.TransferBufferLength,
                              MmGetMdlByteCount(urb.TransferBufferMDL)));
    }
    return MmGetSystemAddressForMdlSafe(urb.TransferBufferMDL, NormalPagePriority);
}

// Counts an URB on its pipe until the transfer has ended or was not sent after all.
class UrbOut {
  public:
    explicit UrbOut(Ref<UsbPipe> pipe) : pipe_(std::move(pipe)) { pipe_->urbStarted(); }
    ~UrbOut() { pipe_->urbEnded(); }
    UrbOut(const UrbOut&) = delete;
    UrbOut& operator=(const UrbOut&) = delete;

  private:
    Ref<UsbPipe> pipe_;
};

} // namespace

std::shared_ptr<Submission> UsbDevice::urbSubmission(const Call& call, const Object& request,
                                                     const Memory& memory, std::size_t offset, Done done) {
    const auto& urb = *reinterpret_cast<const _URB_BULK_OR_INTERRUPT_TRANSFER*>(
        static_cast<const std::uint8_t*>(memory.buffer()) + offset);
    requireTransferBuffer(call, &request, &urb, sizeof(_URB_HEADER));
    if (memory.size() - offset < sizeof(urb) || urb.Hdr.Length != sizeof(urb)) {
        call.fail(Rule::BufferTooShort, &request, "The URB is shorter than a bulk or interrupt transfer's.");
    }
    if (urb.Hdr.Function != URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER || urb.UrbLink != nullptr) {
        call.fail(Rule::Argument, &request, fmt::format("URB function 0x{:04x}.", urb.Hdr.Function));
    }
    Ref<UsbPipe> pipe;
    for (UsbInterface* interface : interfaces_) {
        if (!pipe) {
            pipe = interface->pipeOf(urb.PipeHandle);
        }
    }
    if (!pipe) {
        call.fail(Rule::UsbPipeHandle, &request,
                  fmt::format("{} is no pipe of the current configuration.", urb.PipeHandle));
    }
    const bool in = USBD_TRANSFER_DIRECTION(urb.TransferFlags) == USBD_TRANSFER_DIRECTION_IN;
    if (in != pipe->isIn()) {
        call.fail(Rule::Argument, &request, "The URB's direction is not the pipe's.");
    }
    void* data = urbData(call, request, urb);

    const bool mayBeShort = !in || (urb.TransferFlags & USBD_SHORT_TRANSFER_OK) != 0;
    auto submission = std::make_shared<Submission>(
        host(), in ? "IN transfer" : "bulk OUT transfer",
        [pipe, out = std::make_shared<UrbOut>(pipe), mayBeShort, wanted = urb.TransferBufferLength,
         done = std::move(done)](const TransferResult& result) mutable {
            TransferResult seen = result;
            if (NT_SUCCESS(seen.status) && !mayBeShort && seen.actual < wanted) {
                seen.status = STATUS_UNSUCCESSFUL;
                seen.usbdStatus = USBD_STATUS_ERROR_SHORT_TRANSFER;
            }
            pipe->noteResult(seen);
            out.reset();
            done(seen);
        });
    if (pipe->halted()) {
        submission->endAtOnce({STATUS_UNSUCCESSFUL, USBD_STATUS_ENDPOINT_HALTED, 0});
    }
    usb::Transfer& transfer = submission->transfer();
    transfer.type = pipe->transferType();
    transfer.endpoint = pipe->address();
    transfer.data = {static_cast<std::uint8_t*>(data), urb.TransferBufferLength};
    submission->use(&urb, sizeof(urb), "URB");
    if (data != nullptr) {
        submission->use(data, urb.TransferBufferLength, "transfer buffer");
    }
    if (urb.TransferBufferMDL != nullptr) {
        submission->use(urb.TransferBufferMDL, sizeof(MDL), "transfer MDL");
    }
    return submission;
}

} // namespace framework
