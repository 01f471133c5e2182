// A bulk transfer as a driver owns it: request, URB, buffer and MDL, and what its completion saw.
#pragma once

#include "tests/platform/framework_bench.h"

namespace platform_test {

struct BulkTransfer {
    WDFREQUEST request = nullptr;
    WDFMEMORY urbMemory = nullptr;
    PMDL mdl = nullptr;
    _URB_BULK_OR_INTERRUPT_TRANSFER ownUrb = {};
    _URB_BULK_OR_INTERRUPT_TRANSFER* urb = &ownUrb; // where `urbMemory` lies
    std::array<std::uint8_t, 4096> bytes = {};
    int completions = 0;
    WDF_REQUEST_COMPLETION_PARAMS params = {};
    WDF_USB_REQUEST_COMPLETION_PARAMS usb = {};
    kernel::Time completedAt = 0;
    unsigned completedIrql = 0;
    std::function<void()> onCompletion;

    void create(const Target& target) {
        ASSERT_EQ(WdfRequestCreate(nullptr, WdfUsbTargetDeviceGetIoTarget(target.usb), &request),
                  STATUS_SUCCESS);
        ASSERT_EQ(WdfMemoryCreatePreallocated(nullptr, urb, sizeof(*urb), &urbMemory), STATUS_SUCCESS);
        mdl = IoAllocateMdl(bytes.data(), static_cast<ULONG>(bytes.size()), FALSE, FALSE, nullptr);
        ASSERT_NE(mdl, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
    }

    // Has the URB in other memory, of which `size` bytes are the framework's to know.
    void placeUrb(void* memory, std::size_t size = sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER)) {
        WdfObjectDelete(urbMemory);
        urb = static_cast<_URB_BULK_OR_INTERRUPT_TRANSFER*>(memory);
        ASSERT_EQ(WdfMemoryCreatePreallocated(nullptr, memory, size, &urbMemory), STATUS_SUCCESS);
    }

    // Sends other bytes than its own.
    void placeBytes(void* memory, ULONG size) {
        IoFreeMdl(mdl);
        mdl = IoAllocateMdl(memory, size, FALSE, FALSE, nullptr);
        ASSERT_NE(mdl, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
    }

    NTSTATUS reuse() {
        WDF_REQUEST_REUSE_PARAMS params;
        WDF_REQUEST_REUSE_PARAMS_INIT(&params, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_SUCCESS);
        return WdfRequestReuse(request, &params);
    }

    void destroy() {
        WdfObjectDelete(request);
        WdfObjectDelete(urbMemory);
        IoFreeMdl(mdl);
    }

    NTSTATUS format(const Target& target, ULONG length) {
        EXPECT_EQ(reuse(), STATUS_SUCCESS);
        UsbBuildInterruptOrBulkTransferRequest(
            reinterpret_cast<PURB>(urb), sizeof(*urb), WdfUsbTargetPipeWdmGetPipeHandle(target.out), nullptr,
            length != 0 ? mdl : nullptr, length, USBD_TRANSFER_DIRECTION_OUT, nullptr);
        const NTSTATUS status =
            WdfUsbTargetDeviceFormatRequestForUrb(target.usb, request, urbMemory, nullptr);
        WdfRequestSetCompletionRoutine(request, completed, this);
        return status;
    }

    BOOLEAN send(const Target& target, ULONG length, LONGLONG timeout = 0) {
        EXPECT_EQ(format(target, length), STATUS_SUCCESS);
        WDF_REQUEST_SEND_OPTIONS options;
        WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0);
        WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, timeout); // none when it is 0
        return WdfRequestSend(request, WdfUsbTargetDeviceGetIoTarget(target.usb), &options);
    }

    static void completed(WDFREQUEST, WDFIOTARGET, PWDF_REQUEST_COMPLETION_PARAMS params,
                          WDFCONTEXT context) {
        auto& self = *static_cast<BulkTransfer*>(context);
        self.params = *params;
        self.usb = *params->Parameters.Usb.Completion;
        self.completedAt = kernel::now();
        self.completedIrql = KeGetCurrentIrql();
        self.completions++;
        if (self.onCompletion) {
            self.onCompletion();
        }
    }
};

} // namespace platform_test
