// Rules about requests, what they are formatted with and what they send.
#include "tests/platform/framework_world.h"

#include <gtest/gtest.h>

namespace platform_test {

namespace {

using verifier::Rule;

NTSTATUS format(World& world) {
    return WdfUsbTargetDeviceFormatRequestForUrb(world.target.usb, world.bulk.request, world.bulk.urbMemory,
                                                 nullptr);
}

std::vector<FrameworkCase> requestCases() {
    return {
        {Rule::RequestNotFormatted, "a request sent as it was created",
         [](World& world) { WdfRequestSend(world.bulk.request, world.io(), nullptr); },
         [](World& world) { world.transfer(); }},
        {Rule::RequestNotFormatted, "a completed request sent again",
         [](World& world) {
             world.transfer();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             world.transfer();
             world.transfer();
         }},
        {Rule::RequestNotFormatted, "a completed request formatted without a reuse",
         [](World& world) {
             world.transfer();
             (void)format(world);
         },
         [](World& world) {
             world.transfer();
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             EXPECT_EQ(format(world), STATUS_SUCCESS);
         }},
        {Rule::RequestNotFormatted, "a request sent to another target than its format's",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WdfRequestSend(world.bulk.request, world.pipeIo(), nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), nullptr));
             world.settle();
         }},
        {Rule::RequestNotFormatted, "a client's request formatted for the USB target",
         [](World& world) {
             world.receive([&](WDFREQUEST request) {
                 (void)WdfUsbTargetDeviceFormatRequestForUrb(world.target.usb, request, world.bulk.urbMemory,
                                                             nullptr);
             });
         },
         [](World& world) {
             world.receive([&](WDFREQUEST request) {
                 EXPECT_EQ(format(world), STATUS_SUCCESS);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         }},
        {Rule::RequestPending, "a request reused while it is out",
         [](World& world) {
             world.sendOut();
             (void)world.bulk.reuse();
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
         }},
        {Rule::RequestPending, "a request formatted while it is out",
         [](World& world) {
             world.sendOut();
             (void)format(world);
         },
         [](World& world) {
             EXPECT_EQ(format(world), STATUS_SUCCESS);
             EXPECT_EQ(format(world), STATUS_SUCCESS); // not sent in between
         }},
        {Rule::RequestPending, "a request sent while it is out",
         [](World& world) {
             world.sendOut();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             world.sendOut();
             world.callBack();
         }},
        {Rule::RequestPending, "a request sent while it waits at its stopped target",
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             world.callBack();
             EXPECT_EQ(WdfIoTargetStart(world.io()), STATUS_SUCCESS);
             world.transfer();
         }},
        {Rule::RequestPending, "a completion routine set while its request is out",
         [](World& world) {
             world.sendOut();
             WdfRequestSetCompletionRoutine(world.bulk.request, nullptr, nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WdfRequestSetCompletionRoutine(world.bulk.request, nullptr, nullptr);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), nullptr));
             world.settle();
         }},
        {Rule::RequestPending, "completion parameters read while the request is out",
         [](World& world) {
             world.sendOut();
             (void)world.completionParams();
         },
         [](World& world) {
             world.sendOut();
             world.callBack();
             EXPECT_EQ(world.completionParams().IoStatus.Status, STATUS_CANCELLED);
         }},
        {Rule::Argument, "completion parameters read after a reuse",
         [](World& world) {
             world.transfer();
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             (void)world.completionParams();
         },
         [](World& world) {
             world.transfer();
             EXPECT_EQ(world.completionParams().IoStatus.Status, STATUS_SUCCESS);
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
         }},
        {Rule::RequestCancelled, "a request sent that was cancelled before",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             EXPECT_FALSE(WdfRequestCancelSentRequest(world.bulk.request));
             WdfRequestSend(world.bulk.request, world.io(), nullptr);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             EXPECT_FALSE(WdfRequestCancelSentRequest(world.bulk.request));
             world.transfer(); // which reuses it
         }},
        {Rule::TargetState, "a target started by a completion that its stop waits for",
         [](World& world) {
             world.sendOut();
             world.bulk.onCompletion = [&] { (void)WdfIoTargetStart(world.io()); };
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
         },
         [](World& world) {
             world.sendOut();
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             EXPECT_EQ(WdfIoTargetStart(world.io()), STATUS_SUCCESS);
             world.transfer();
         }},
        {Rule::PoolLeak, "a request of the driver's that is never deleted",
         [](World& world) {
             WDFREQUEST request = nullptr;
             EXPECT_EQ(WdfRequestCreate(nullptr, world.io(), &request), STATUS_SUCCESS);
         },
         [](World& world) {
             WDF_OBJECT_ATTRIBUTES attributes = attributesOf(world.device());
             WDFREQUEST request = nullptr;
             EXPECT_EQ(WdfRequestCreate(&attributes, world.io(), &request), STATUS_SUCCESS);
         }},
        {Rule::RequestPending, "a request deleted while it is out",
         [](World& world) {
             world.sendOut();
             WdfObjectDelete(world.bulk.request);
         },
         [](World& world) {
             world.sendOut();
             world.callBack(); // and deleted after that
         }},
        {Rule::RequestCompletedTwice, "a client's request completed twice",
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfRequestComplete(request, STATUS_SUCCESS);
             });
         },
         [](World& world) {
             world.receive([](WDFREQUEST request) { WdfRequestComplete(request, STATUS_SUCCESS); });
         }},
        {Rule::RequestCompletedTwice, "the same with a reference that keeps the request",
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfObjectReference(request);
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, 0);
             });
         },
         [](World& world) {
             world.receive([](WDFREQUEST request) {
                 WdfObjectReference(request);
                 WdfRequestComplete(request, STATUS_SUCCESS);
                 WdfObjectDereference(request);
             });
         }},
    };
}

std::vector<FrameworkCase> bufferCases() {
    return {
        {Rule::BufferLifetime, "an MDL freed while its transfer is out",
         [](World& world) {
             world.sendOut();
             IoFreeMdl(world.bulk.mdl);
         },
         [](World& world) {
             world.sendOut();
             world.callBack(); // and freed after that
         }},
        {Rule::BufferLifetime, "an MDL freed while its request waits at a stopped target",
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             IoFreeMdl(world.bulk.mdl);
         },
         [](World& world) {
             WdfIoTargetStop(world.io(), WdfIoTargetCancelSentIo);
             world.sendOut();
             world.bulk.onCompletion = [&] {
                 // The buffer is the driver's again.
                 world.bulk.placeBytes(world.bulk.bytes.data(), 16);
             };
             world.callBack();
             EXPECT_EQ(world.bulk.completions, 1);
         }},
        {Rule::BufferLifetime, "an MDL freed before its request is sent",
         [](World& world) { world.sendWith([&](auto&) { IoFreeMdl(world.bulk.mdl); }); },
         [](World& world) { world.transfer(); }},
        {Rule::BufferLifetime, "the bytes freed while their transfer is out",
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.bulk.placeBytes(block, 100);
             world.sendOut();
             ExFreePoolWithTag(block, kTag);
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.bulk.placeBytes(block, 100);
             world.sendOut();
             world.callBack();
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "the URB freed while its transfer is out",
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendOut();
             ExFreePoolWithTag(block, kTag);
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendOut();
             world.callBack();
             world.bulk.placeUrb(&world.bulk.ownUrb);
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "the object deleted whose context holds the URB of a transfer that is out",
         [](World& world) {
             const WDFCOLLECTION owner = world.makeObject();
             world.bulk.placeUrb(&GetPlace(owner)->Urb);
             world.sendOut();
             WdfObjectDelete(owner);
         },
         [](World& world) {
             const WDFCOLLECTION owner = world.makeObject();
             world.bulk.placeUrb(&GetPlace(owner)->Urb);
             world.sendOut();
             world.callBack();
             WdfObjectDelete(owner);
         }},
        {Rule::BufferLifetime,
         "the bytes freed before their transfer is sent, and other bytes in their place",
         [](World& world) {
             // Large blocks are used again at once.
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100'000, kTag);
             world.bulk.placeBytes(block, 100);
             ExFreePoolWithTag(block, kTag);
             EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 100'000, kTag), block);
             world.transfer();
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100'000, kTag);
             world.bulk.placeBytes(block, 100);
             ExFreePoolWithTag(block, kTag);
             block = ExAllocatePoolWithTag(NonPagedPoolNx, 100'000, kTag);
             world.bulk.placeBytes(block, 100);
             world.transfer();
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "the URB freed before it is sent",
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendWith([&](auto&) { ExFreePoolWithTag(block, kTag); });
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(*world.bulk.urb), kTag);
             world.bulk.placeUrb(block);
             world.sendWith([](auto&) {});
             world.bulk.placeUrb(&world.bulk.ownUrb);
             EXPECT_EQ(world.bulk.reuse(), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferLifetime, "a control transfer into a freed block",
         [](World& world) {
             auto* block = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag));
             ExFreePoolWithTag(block, kTag);
             (void)world.readRegister(block + 4, 4);
         },
         [](World& world) {
             auto* block = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag));
             EXPECT_EQ(world.readRegister(block + 4, 4), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferTooShort, "a transfer longer than its MDL",
         [](World& world) { world.bulk.send(world.target, 4097); },
         [](World& world) {
             EXPECT_TRUE(world.bulk.send(world.target, 4096));
             world.settle();
         }},
        {Rule::BufferTooShort, "a transfer with a length and no buffer",
         [](World& world) { world.sendWith([](auto& urb) { urb.TransferBufferMDL = nullptr; }); },
         [](World& world) {
             world.sendWith([](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBufferLength = 0;
             });
         }},
        {Rule::BufferTooShort, "a transfer beyond the end of its pool block",
         [](World& world) {
             world.sendWith([](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBuffer = ExAllocatePoolWithTag(NonPagedPoolNx, 99, kTag);
             });
         },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 100, kTag);
             world.sendWith([&](auto& urb) {
                 urb.TransferBufferMDL = nullptr;
                 urb.TransferBuffer = block;
             });
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferTooShort, "a control transfer beyond the end of its pool block",
         [](World& world) { (void)world.readRegister(ExAllocatePoolWithTag(NonPagedPoolNx, 3, kTag), 4); },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 4, kTag);
             EXPECT_EQ(world.readRegister(block, 4), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::BufferTooShort, "URB memory shorter than its URB",
         [](World& world) {
             world.bulk.placeUrb(&world.bulk.ownUrb, sizeof(world.bulk.ownUrb) - 1);
             world.transfer();
         },
         [](World& world) {
             world.bulk.placeUrb(&world.bulk.ownUrb);
             world.transfer();
         }},
    };
}

std::vector<FrameworkCase> requestArgumentCases() {
    return {
        {Rule::Argument, "a send option that there is not",
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WDF_REQUEST_SEND_OPTIONS options;
             WDF_REQUEST_SEND_OPTIONS_INIT(&options, 0x8000);
             WdfRequestSend(world.bulk.request, world.io(), &options);
         },
         [](World& world) {
             EXPECT_EQ(world.bulk.format(world.target, 100), STATUS_SUCCESS);
             WDF_REQUEST_SEND_OPTIONS options;
             WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE);
             EXPECT_TRUE(WdfRequestSend(world.bulk.request, world.io(), &options));
             world.settle();
         }},
        {Rule::Argument, "a target stopped with an action that there is not",
         [](World& world) { WdfIoTargetStop(world.io(), static_cast<WDF_IO_TARGET_SENT_IO_ACTION>(0)); },
         [](World& world) { WdfIoTargetStop(world.io(), WdfIoTargetLeaveSentIoPending); }},
        {Rule::Argument, "a bulk OUT URB with the direction IN",
         [](World& world) {
             world.sendWith([](auto& urb) { urb.TransferFlags = USBD_TRANSFER_DIRECTION_IN; });
         },
         [](World& world) {
             world.sendWith([](auto& urb) { urb.TransferFlags = USBD_TRANSFER_DIRECTION_OUT; });
         }},
        {Rule::Argument, "an MDL that was never built",
         [](World& world) {
             world.sendWith([&](auto& urb) {
                 urb.TransferBufferMDL = IoAllocateMdl(world.bulk.bytes.data(), 100, FALSE, FALSE, nullptr);
             });
         },
         [](World& world) {
             world.bulk.placeBytes(world.bulk.bytes.data(), 100);
             world.transfer();
         }},
        {Rule::Argument, "a control transfer into paged pool",
         [](World& world) { (void)world.readRegister(ExAllocatePoolWithTag(PagedPool, 4, kTag), 4); },
         [](World& world) {
             void* block = ExAllocatePoolWithTag(NonPagedPoolNx, 4, kTag);
             EXPECT_EQ(world.readRegister(block, 4), STATUS_SUCCESS);
             ExFreePoolWithTag(block, kTag);
         }},
        {Rule::Argument, "an URB of another function",
         [](World& world) {
             world.sendWith([](auto& urb) { urb.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION; });
         },
         [](World& world) {
             world.sendWith([](auto& urb) { urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER; });
         }},
        {Rule::Argument, "the driver's own request completed as a client's",
         [](World& world) { WdfRequestComplete(world.bulk.request, STATUS_SUCCESS); },
         [](World& world) { world.transfer(); }},
        {Rule::Argument, "completion parameters of a wrong size",
         [](World& world) {
             world.transfer();
             WDF_REQUEST_COMPLETION_PARAMS params = {};
             WdfRequestGetCompletionParams(world.bulk.request, &params);
         },
         [](World& world) {
             world.transfer();
             EXPECT_EQ(world.completionParams().IoStatus.Status, STATUS_SUCCESS);
         }},
    };
}

} // namespace

std::vector<FrameworkCase> requestRules() {
    return together({requestCases(), bufferCases(), requestArgumentCases()});
}

} // namespace platform_test
