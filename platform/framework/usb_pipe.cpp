#include "platform/base/machine_state.h"
#include "platform/framework/device.h"
#include "platform/framework/usb_device.h"
#include "platform/framework/usb_reader.h"

#include <algorithm>

namespace framework {

using kernel::KernelGuard;

namespace {

constexpr UCHAR kRequestToEndpoint = 0x02;
constexpr UCHAR kClearFeature = 0x01;
constexpr USHORT kEndpointHalt = 0;

// Pipe handles look like kernel addresses and are never used twice, so that one from before the last
// selection is recognized.
struct PipeHandles {
    std::uint64_t last = 0xFFFFE000'00000000;
};
base::MachinePart<PipeHandles> pipeHandles; // guarded by the kernel lock

USBD_PIPE_HANDLE nextPipeHandle() {
    KernelGuard guard;
    pipeHandles->last += 0x10;
    return reinterpret_cast<USBD_PIPE_HANDLE>(pipeHandles->last);
}

} // namespace

UsbPipe::UsbPipe(UsbInterface& owner, const USB_ENDPOINT_DESCRIPTOR& endpoint, UCHAR settingIndex)
    : IoTarget(Kind::UsbPipe, owner.device().device()), owner_(owner), endpoint_(endpoint),
      settingIndex_(settingIndex), pipeHandle_(nextPipeHandle()) {}

UsbPipe::~UsbPipe() = default;

UsbDevice& UsbPipe::usbDevice() const {
    return owner_.device();
}

std::shared_ptr<Submission> UsbPipe::urbSubmission(const Call& call, const Object& request,
                                                   const Memory& memory, std::size_t offset, Done done) {
    return usbDevice().urbSubmission(call, request, memory, offset, std::move(done));
}

std::shared_ptr<Submission> UsbPipe::controlSubmission(const WDF_USB_CONTROL_SETUP_PACKET& setup, void* data,
                                                       std::size_t size, Done done) {
    return usbDevice().controlSubmission(setup, data, size, std::move(done));
}

usb::TransferType UsbPipe::transferType() const {
    return (endpoint_.bmAttributes & USB_ENDPOINT_TYPE_MASK) == USB_ENDPOINT_TYPE_INTERRUPT
               ? usb::TransferType::Interrupt
               : usb::TransferType::Bulk;
}

// USB 2.0, table 9-13; the same at SuperSpeed.
usb::Time UsbPipe::interval() const {
    constexpr usb::Time kMicroframe = 125 * usb::kMicrosecond;
    constexpr UCHAR kMaximum = 16;
    const UCHAR exponent = std::clamp<UCHAR>(endpoint_.bInterval, 1, kMaximum);
    return kMicroframe << (exponent - 1);
}

WDF_USB_PIPE_INFORMATION UsbPipe::information() const {
    // What the host controller's driver takes in one transfer.
    constexpr ULONG kMaximumTransferSize = 0x400000;
    WDF_USB_PIPE_INFORMATION information;
    WDF_USB_PIPE_INFORMATION_INIT(&information);
    information.MaximumPacketSize = maximumPacketSize();
    information.EndpointAddress = address();
    information.Interval = endpoint_.bInterval;
    information.SettingIndex = settingIndex_;
    information.PipeType =
        static_cast<WDF_USB_PIPE_TYPE>((endpoint_.bmAttributes & USB_ENDPOINT_TYPE_MASK) + 1);
    information.MaximumTransferSize = kMaximumTransferSize;
    return information;
}

bool UsbPipe::halted() const {
    KernelGuard guard;
    return halted_;
}

void UsbPipe::noteResult(const TransferResult& result) {
    if (result.usbdStatus == USBD_STATUS_STALL_PID || result.usbdStatus == USBD_STATUS_XACT_ERROR) {
        KernelGuard guard;
        halted_ = true;
    }
}

NTSTATUS UsbPipe::reset() {
    const NTSTATUS status =
        usbDevice().changeDevice(kRequestToEndpoint, kClearFeature, kEndpointHalt, address());
    if (NT_SUCCESS(status)) {
        KernelGuard guard;
        halted_ = false;
    }
    return status;
}

void UsbPipe::urbStarted() {
    KernelGuard guard;
    urbsOut_++;
}

void UsbPipe::urbEnded() {
    KernelGuard guard;
    urbsOut_--;
}

unsigned UsbPipe::urbsOut() const {
    KernelGuard guard;
    return urbsOut_;
}

NTSTATUS UsbPipe::configureReader(const Call& call, const WDF_USB_CONTINUOUS_READER_CONFIG& config) {
    if (config.Size != sizeof(config)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    if (device().pnpState() != PnpState::Preparing) {
        call.fail(Rule::UsbTarget, this, "A continuous reader is configured in EvtDevicePrepareHardware.");
    }
    if (!isIn() ||
        (transferType() != usb::TransferType::Interrupt && transferType() != usb::TransferType::Bulk)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (config.EvtUsbTargetPipeReadComplete == nullptr || config.TransferLength == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    Ref<Object> parent;
    const NTSTATUS attributesStatus =
        checkAttributes(call, config.BufferAttributes, {.parentAllowed = false}, this, parent);
    if (!NT_SUCCESS(attributesStatus)) {
        return attributesStatus;
    }
    // An IN transfer that is no multiple of the packet size can be overrun by a device that sends more.
    if (packetSizeCheck_ && (maximumPacketSize() == 0 || config.TransferLength % maximumPacketSize() != 0)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (reader_) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (call.fault(kernel::FaultKind::Creation)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    reader_ = std::make_unique<Reader>(*this, config);
    return STATUS_SUCCESS;
}

void UsbPipe::requireReaderStopped(std::string_view call) const {
    bool idle = false;
    {
        KernelGuard guard;
        idle = readerIdleLocked();
    }
    if (!idle) {
        verifier::fail(Rule::ReaderRunning, call, name(), "The pipe's continuous reader still runs.");
    }
}

void UsbPipe::requireStoppable(const Call& call) const {
    if (!reader_) {
        return;
    }
    // The reads are waited for, whatever becomes of other requests.
    verifier::requireIrql(call.name(), kernel::kPassiveLevel);
    if (reader_->recoversHere()) {
        call.fail(Rule::TargetState, this,
                  "The readers-failed callback stops its pipe, for which the stop waits.");
    }
}

void UsbPipe::dispose() {
    requireReaderStopped("removal of a pipe");
    IoTarget::dispose();
    if (reader_) {
        reader_->dropBuffers();
    }
}

void UsbPipe::startReader() {
    if (reader_) {
        reader_->start();
    }
}

void UsbPipe::stopReader() {
    if (reader_) {
        reader_->stop();
    }
}

bool UsbPipe::readerIdleLocked() const {
    return !reader_ || reader_->idleLocked();
}

} // namespace framework

using framework::Call;
using framework::Rule;
using kernel::kDispatchLevel;

VOID WdfUsbTargetPipeGetInformation(WDFUSBPIPE Pipe, PWDF_USB_PIPE_INFORMATION PipeInformation) {
    Call call("WdfUsbTargetPipeGetInformation", kDispatchLevel);
    auto pipe = call.object<framework::UsbPipe>(Pipe);
    if (PipeInformation->Size != sizeof(WDF_USB_PIPE_INFORMATION)) {
        call.fail(Rule::Argument, pipe.get(), "WDF_USB_PIPE_INFORMATION has a wrong size.");
    }
    *PipeInformation = pipe->information();
}

VOID WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(WDFUSBPIPE Pipe) {
    Call call("WdfUsbTargetPipeSetNoMaximumPacketSizeCheck", kDispatchLevel);
    call.object<framework::UsbPipe>(Pipe)->skipPacketSizeCheck();
}

NTSTATUS WdfUsbTargetPipeConfigContinuousReader(WDFUSBPIPE Pipe, PWDF_USB_CONTINUOUS_READER_CONFIG Config) {
    Call call("WdfUsbTargetPipeConfigContinuousReader", kDispatchLevel);
    return call.object<framework::UsbPipe>(Pipe)->configureReader(call, *Config);
}

USBD_PIPE_HANDLE WdfUsbTargetPipeWdmGetPipeHandle(WDFUSBPIPE UsbPipe) {
    Call call("WdfUsbTargetPipeWdmGetPipeHandle", kDispatchLevel);
    return call.object<framework::UsbPipe>(UsbPipe)->pipeHandle();
}
