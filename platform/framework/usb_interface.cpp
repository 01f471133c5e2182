// Interfaces of a USB device: their settings and the pipes of the selected one.
#include "platform/framework/usb_device.h"

#include <algorithm>
#include <cstddef>

namespace framework {

using kernel::KernelGuard;

UsbInterface::UsbInterface(UsbDevice& device, InterfaceLayout layout)
    : Object(Kind::UsbInterface), device_(device), layout_(std::move(layout)) {}

bool UsbInterface::hasSetting(std::size_t setting) const {
    KernelGuard guard;
    return setting_ == setting;
}

NTSTATUS UsbInterface::selectSetting(const Call& call, std::size_t setting,
                                     const WDF_OBJECT_ATTRIBUTES* attributes) {
    if (setting >= settingCount()) {
        return STATUS_INVALID_PARAMETER;
    }
    if (hasSetting(setting)) {
        return STATUS_SUCCESS;
    }
    Pipes pipes;
    NTSTATUS status = makePipes(call, setting, attributes, pipes);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    dropPipes(call);
    status = device_.sendSelectInterface(*this, setting);
    if (!NT_SUCCESS(status)) {
        discard(pipes);
        return status;
    }
    takePipes(setting, std::move(pipes));
    return STATUS_SUCCESS;
}

NTSTATUS UsbInterface::makePipes(const Call& call, std::size_t setting,
                                 const WDF_OBJECT_ATTRIBUTES* attributes, Pipes& pipes) {
    for (const USB_ENDPOINT_DESCRIPTOR& endpoint : layout_.settings[setting].endpoints) {
        Ref<UsbPipe> pipe;
        const NTSTATUS status =
            createObject(call, attributes, {.parentAllowed = false}, this, pipe,
                         [&](Object*) { return new UsbPipe(*this, endpoint, static_cast<UCHAR>(setting)); });
        if (!NT_SUCCESS(status)) {
            discard(std::exchange(pipes, {}));
            return status;
        }
        pipes.push_back(pipe.get());
    }
    return STATUS_SUCCESS;
}

void UsbInterface::takePipes(std::size_t setting, Pipes pipes) {
    KernelGuard guard;
    setting_ = setting;
    pipes_ = std::move(pipes);
}

void UsbInterface::discard(const Pipes& pipes) {
    for (UsbPipe* pipe : pipes) {
        pipe->remove();
    }
}

void UsbInterface::dropPipes(const Call& call) {
    for (const Ref<UsbPipe>& pipe : pipes()) {
        if (pipe->urbsOut() != 0) {
            call.fail(Rule::UsbPipeHandle, pipe.get(),
                      "The pipe is selected anew while transfers are out on it.");
        }
        pipe->requireReaderStopped(call.name());
    }
    Pipes old;
    {
        KernelGuard guard;
        setting_.reset();
        old.swap(pipes_);
    }
    discard(old);
}

std::vector<Ref<UsbPipe>> UsbInterface::pipes() const {
    std::vector<Ref<UsbPipe>> pipes;
    KernelGuard guard;
    for (UsbPipe* pipe : pipes_) {
        pipes.push_back(refLocked(pipe));
    }
    return pipes;
}

std::size_t UsbInterface::pipeCount() const {
    KernelGuard guard;
    return pipes_.size();
}

Ref<UsbPipe> UsbInterface::pipe(std::size_t index) const {
    KernelGuard guard;
    return index < pipes_.size() ? refLocked(pipes_[index]) : Ref<UsbPipe>();
}

Ref<UsbPipe> UsbInterface::pipeOf(USBD_PIPE_HANDLE handle) const {
    KernelGuard guard;
    const auto found = std::find_if(pipes_.begin(), pipes_.end(),
                                    [handle](UsbPipe* pipe) { return pipe->pipeHandle() == handle; });
    return found != pipes_.end() ? refLocked(*found) : Ref<UsbPipe>();
}

} // namespace framework

using framework::Call;
using framework::Rule;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

BYTE WdfUsbInterfaceGetNumConfiguredPipes(WDFUSBINTERFACE UsbInterface) {
    Call call("WdfUsbInterfaceGetNumConfiguredPipes", kDispatchLevel);
    return static_cast<BYTE>(call.object<framework::UsbInterface>(UsbInterface)->pipeCount());
}

WDFUSBPIPE WdfUsbInterfaceGetConfiguredPipe(WDFUSBINTERFACE UsbInterface, UCHAR PipeIndex,
                                            PWDF_USB_PIPE_INFORMATION PipeInfo) {
    Call call("WdfUsbInterfaceGetConfiguredPipe", kDispatchLevel);
    auto interface = call.object<framework::UsbInterface>(UsbInterface);
    if (PipeInfo != nullptr && PipeInfo->Size != sizeof(WDF_USB_PIPE_INFORMATION)) {
        call.fail(Rule::Argument, interface.get(), "WDF_USB_PIPE_INFORMATION has a wrong size.");
    }
    const auto pipe = interface->pipe(PipeIndex);
    if (!pipe) {
        return nullptr;
    }
    if (PipeInfo != nullptr) {
        *PipeInfo = pipe->information();
    }
    return pipe->wdf();
}

NTSTATUS WdfUsbInterfaceSelectSetting(WDFUSBINTERFACE UsbInterface, PWDF_OBJECT_ATTRIBUTES PipesAttributes,
                                      PWDF_USB_INTERFACE_SELECT_SETTING_PARAMS Params) {
    Call call("WdfUsbInterfaceSelectSetting", kPassiveLevel);
    auto interface = call.object<framework::UsbInterface>(UsbInterface);
    if (Params->Size != sizeof(WDF_USB_INTERFACE_SELECT_SETTING_PARAMS)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    switch (Params->Type) {
    case WdfUsbInterfaceSelectSettingTypeSetting:
        return interface->selectSetting(call, Params->Types.Interface.SettingIndex, PipesAttributes);
    case WdfUsbInterfaceSelectSettingTypeDescriptor: {
        const USB_INTERFACE_DESCRIPTOR* descriptor = Params->Types.Descriptor.InterfaceDescriptor;
        if (descriptor == nullptr || descriptor->bInterfaceNumber != interface->number()) {
            return STATUS_INVALID_PARAMETER;
        }
        return interface->selectSetting(call, descriptor->bAlternateSetting, PipesAttributes);
    }
    case WdfUsbInterfaceSelectSettingTypeUrb: {
        const URB* urb = Params->Types.Urb.Urb;
        if (urb == nullptr || urb->UrbHeader.Function != URB_FUNCTION_SELECT_INTERFACE ||
            urb->UrbHeader.Length < offsetof(_URB_SELECT_INTERFACE, Interface.Pipes)) {
            return STATUS_INVALID_PARAMETER;
        }
        return interface->selectSetting(call, urb->UrbSelectInterface.Interface.AlternateSetting,
                                        PipesAttributes);
    }
    default:
        return STATUS_INVALID_PARAMETER;
    }
}
