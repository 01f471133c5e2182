#include "client/exchange.h"

#include "client/commands.h"
#include "device/device_context.h"

namespace {

constexpr ULONG INTERFACE_VERSION = 1;

// One client at a time: the exchange that raises the count to 1 has the interface.
BOOLEAN TakeInterface(CLIENT_CONTEXT* client) {
    if (InterlockedIncrement(&client->ClientCount) == 1) {
        return TRUE;
    }
    InterlockedDecrement(&client->ClientCount);
    return FALSE;
}

NTSTATUS Exchange(DEVICE_CONTEXT* context, WDFREQUEST request, size_t outputBufferLength) {
    PVOID input = nullptr;
    NTSTATUS status = WdfRequestRetrieveInputBuffer(request, sizeof(INTERFACE_RECORD), &input, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    CLIENT_CONTEXT* client = &context->Client;
    if (!TakeInterface(client)) {
        return STATUS_UNSUCCESSFUL;
    }
    PVOID output = nullptr;
    status = WdfRequestRetrieveOutputBuffer(request, outputBufferLength, &output, nullptr);
    if (!NT_SUCCESS(status)) {
        // The client got no entry point to release the interface with; it must be able to try again.
        InterlockedDecrement(&client->ClientCount);
        return status;
    }

    // The two buffers may be one: read before writing.
    RtlCopyMemory(&client->ClientInterface, input, sizeof(INTERFACE_RECORD));
    INTERFACE_RECORD driverInterface = {};
    driverInterface.Version = INTERFACE_VERSION;
    driverInterface.Size = sizeof(INTERFACE_RECORD);
    driverInterface.Context = context;
    driverInterface.CommandEntry = CLIENT_Command;
    driverInterface.ReleaseEntry = CLIENT_ReleaseInterface;
    RtlCopyMemory(output, &driverInterface, sizeof(driverInterface));
    return STATUS_SUCCESS;
}

} // namespace

void CLIENT_EvtIoInternalDeviceControl(WDFQUEUE queue, WDFREQUEST request, size_t outputBufferLength,
                                       size_t inputBufferLength, ULONG ioControlCode) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(WdfIoQueueGetDevice(queue));
    NTSTATUS status;
    if (ioControlCode != IOCTL_EXCHANGE_INTERFACE) {
        status = STATUS_NOT_SUPPORTED;
    } else if (inputBufferLength < sizeof(INTERFACE_RECORD) ||
               outputBufferLength < sizeof(INTERFACE_RECORD)) {
        status = STATUS_BUFFER_TOO_SMALL;
    } else {
        status = Exchange(context, request, outputBufferLength);
    }
    WdfRequestCompleteWithInformation(request, status, NT_SUCCESS(status) ? sizeof(INTERFACE_RECORD) : 0);
}
