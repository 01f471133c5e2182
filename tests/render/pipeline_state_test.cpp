// What a render context does after its transfer, and which tasks a stop waits for, without a device. The
// contexts' requests are never formatted, because the pipeline believes that a dispatch is already running.
#include "base/util.h"
#include "device/device_context.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/clock.h"
#include "render/context_lists.h"
#include "render/drop_frames.h"
#include "render/pipeline.h"
#include "render/request_pool.h"
#include "render/send.h"
#include "render/start_stop.h"
#include "surface/present.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace {

using usb::kMillisecond;

class Pipeline {
  public:
    std::unique_ptr<DEVICE_CONTEXT> context = std::make_unique<DEVICE_CONTEXT>();
    RENDER_PIPELINE& render = context->Render;
    RENDER_CONTEXT contexts[RENDER_CONTEXT_COUNT] = {};

    Pipeline() TSA_NO_ANALYSIS {
        DEVICE_InitLocks(context.get());
        FRAMEBUFFER_InitializeList(context.get());
        RENDER_InitializeEvents(context.get());
        InitializeListHead(&render.AvailableList);
        InitializeListHead(&render.PendingList);
        for (ULONG i = 0; i < RENDER_CONTEXT_COUNT; i++) {
            InitializeListHead(&contexts[i].Link);
            contexts[i].DeviceContext = context.get();
            render.RenderContexts[i] = &contexts[i];
        }
        render.LatestRenderBufferIndex = RENDER_BUFFER_NONE;
        setThreadCreated(TRUE);
    }

    void setThreadCreated(BOOLEAN created) TSA_NO_ANALYSIS { render.FrameUpdateThreadCreated = created; }

    void returnAll() {
        for (RENDER_CONTEXT& idle : contexts) {
            RENDER_ReturnToAvailable(context.get(), &idle);
        }
    }

    // Keeps the pending list as it is.
    void holdDispatches() TSA_NO_ANALYSIS { render.Dispatching = TRUE; }

    void setLatest(ULONG index) TSA_NO_ANALYSIS { render.LatestRenderBufferIndex = index; }
};

// Runs `body` at PASSIVE_LEVEL of a machine without devices.
void onMachine(const std::function<void()>& body) {
    kernel::Scheduler scheduler{kernel::SchedulerOptions{}};
    scheduler.run(body);
}

struct Completion {
    const char* what;
    bool running = true;
    LONG inFlight = 2; // including this one
    ULONG buffer = 0;  // of this transfer
    ULONG latest = 0;  // of the newest frame
    bool newerWaits = false;
    bool refused = false;
    NTSTATUS status = STATUS_SUCCESS;
    USBD_STATUS usbdStatus = USBD_STATUS_SUCCESS;

    bool continues = false;
    bool deviceGone = false;
};

const Completion kCompletions[] = {
    {.what = "the newest frame is sent again", .continues = true},
    {.what = "the newest frame is sent again when it is alone", .inFlight = 1, .continues = true},
    {.what = "an older frame gives way to two of the newest", .inFlight = 3, .latest = 3},
    {.what = "the last but one takes the newest frame over", .inFlight = 2, .latest = 3, .continues = true},
    {.what = "a newer frame waits", .newerWaits = true},
    {.what = "the stream is stopped", .running = false},
    {.what = "the frame comes from before a stop", .latest = RENDER_BUFFER_NONE},
    {.what = "the frame was not sent", .refused = true},
    {.what = "a time-out does not stop the stream", .status = STATUS_IO_TIMEOUT, .continues = true},
    {.what = "neither does a cancellation",
     .status = STATUS_CANCELLED,
     .usbdStatus = USBD_STATUS_CANCELED,
     .continues = true},
    {.what = "the device is not connected", .status = STATUS_DEVICE_NOT_CONNECTED, .deviceGone = true},
    {.what = "there is no such device", .status = STATUS_NO_SUCH_DEVICE, .deviceGone = true},
    {.what = "the host says that the device is gone",
     .status = STATUS_UNSUCCESSFUL,
     .usbdStatus = USBD_STATUS_DEVICE_GONE,
     .deviceGone = true},
    {.what = "the pipe is halted",
     .status = STATUS_UNSUCCESSFUL,
     .usbdStatus = USBD_STATUS_ENDPOINT_HALTED,
     .deviceGone = true},
    {.what = "the device goes while the stream is stopped",
     .running = false,
     .status = STATUS_NO_SUCH_DEVICE,
     .deviceGone = true},
};

TEST(RenderCompletion, DecidesWhatTheContextDoesNext) {
    for (const Completion& expected : kCompletions) {
        SCOPED_TRACE(expected.what);
        onMachine([&] {
            Pipeline pipeline;
            RENDER_CONTEXT& done = pipeline.contexts[0];
            RENDER_CONTEXT& newer = pipeline.contexts[1];
            pipeline.holdDispatches();
            pipeline.render.RenderRunning = 1;
            if (expected.newerWaits) {
                ASSERT_TRUE(RENDER_QueueFrame(pipeline.context.get(), &newer));
            }
            pipeline.render.RenderRunning = expected.running;
            pipeline.setLatest(expected.latest);
            pipeline.render.RenderContextsInFlight = expected.inFlight;
            done.RenderBufferIndex = expected.buffer;
            done.State = expected.refused ? FRAME_REFUSED : FRAME_IN_FLIGHT;

            WDF_USB_REQUEST_COMPLETION_PARAMS usbParams = {};
            usbParams.UsbdStatus = expected.usbdStatus;
            WDF_REQUEST_COMPLETION_PARAMS params;
            WDF_REQUEST_COMPLETION_PARAMS_INIT(&params);
            params.Type = WdfRequestTypeUsb;
            params.IoStatus.Status = expected.status;
            params.Parameters.Usb.Completion = &usbParams;
            RENDER_CompleteRenderContext(pipeline.context.get(), &done, &params);

            EXPECT_EQ(done.State, expected.continues ? FRAME_UPDATED : FRAME_CLEARED);
            if (expected.continues) {
                EXPECT_EQ(done.RenderBufferIndex, expected.latest);
            }
            EXPECT_EQ(pipeline.render.PendingCount, expected.continues + expected.newerWaits);
            EXPECT_EQ(pipeline.render.AvailableCount, !expected.continues);
            EXPECT_EQ(pipeline.render.RenderContextsInFlight, expected.inFlight - 1);
            EXPECT_EQ(pipeline.context->DeviceRemoved != 0, expected.deviceGone);
            EXPECT_EQ(KeReadStateEvent(&pipeline.render.ThreadStartStopEvent) != 0, expected.deviceGone);
        });
    }
}

TEST(RenderCompletion, WithoutUsbStatusUsesTheRequestStatus) {
    onMachine([] {
        Pipeline pipeline;
        pipeline.render.RenderContextsInFlight = 1;
        WDF_REQUEST_COMPLETION_PARAMS params;
        WDF_REQUEST_COMPLETION_PARAMS_INIT(&params);
        params.IoStatus.Status = STATUS_CANCELLED;
        RENDER_CompleteRenderContext(pipeline.context.get(), &pipeline.contexts[0], &params);
        EXPECT_EQ(pipeline.contexts[0].State, FRAME_CLEARED);
        EXPECT_FALSE(pipeline.context->DeviceRemoved);
    });
}

TEST(RenderBuffers, AreInUseWhileATransferMayReadThem) {
    onMachine([] {
        Pipeline pipeline;
        DEVICE_CONTEXT* context = pipeline.context.get();
        pipeline.render.RenderRunning = 1;
        pipeline.contexts[0].RenderBufferIndex = 1; // queued, then no longer the newest
        ASSERT_TRUE(RENDER_QueueFrame(context, &pipeline.contexts[0]));
        pipeline.contexts[1].RenderBufferIndex = 2; // in flight
        pipeline.contexts[1].State = FRAME_IN_FLIGHT;
        pipeline.contexts[2].RenderBufferIndex = 3; // idle
        pipeline.contexts[3].RenderBufferIndex = 3;
        pipeline.setLatest(0);
        EXPECT_TRUE(RENDER_IsBufferInUse(context, 0));
        EXPECT_TRUE(RENDER_IsBufferInUse(context, 1));
        EXPECT_TRUE(RENDER_IsBufferInUse(context, 2));
        EXPECT_FALSE(RENDER_IsBufferInUse(context, 3));
    });
}

// A stop must not return while another task still fills or sends a frame. Each case holds the stop up in one
// way, for longer than any of its own delays.
TEST(Stop, WaitsForRunningTasks) {
    constexpr usb::Time kHold = 700 * kMillisecond;
    struct {
        const char* what;
        std::function<void(Pipeline&)> begin;
        std::function<void(Pipeline&)> end;
    } const cases[] = {
        {"a frame being filled", [](Pipeline& p) { ASSERT_TRUE(RENDER_BeginFill(p.context.get())); },
         [](Pipeline& p) { RENDER_EndFill(p.context.get()); }},
        {"a dispatch under way", [](Pipeline& p) { KeClearEvent(&p.render.DispatchIdleEvent); },
         [](Pipeline& p) { KeSetEvent(&p.render.DispatchIdleEvent, IO_NO_INCREMENT, FALSE); }},
    };
    void (*const stops[])(DEVICE_CONTEXT*) = {RENDER_Stop, RENDER_Suspend};
    for (const auto& work : cases) {
        for (const auto stop : stops) {
            SCOPED_TRACE(work.what);
            onMachine([&] {
                Pipeline pipeline;
                pipeline.returnAll();
                (void)RENDER_Start(pipeline.context.get());
                work.begin(pipeline);
                bool stopped = false;
                kernel::Task& stopper = kernel::spawn("stopper", kernel::TaskKind::Host, [&] {
                    stop(pipeline.context.get());
                    stopped = true;
                });
                UTIL_DelayMs(kHold / kMillisecond);
                EXPECT_FALSE(stopped);
                EXPECT_FALSE(RENDER_BeginFill(pipeline.context.get()));
                work.end(pipeline);
                kernel::join(stopper);
                EXPECT_TRUE(stopped);
            });
        }
    }
}

TEST(Stop, EmptiesTheQueueAndRejectsFrames) {
    onMachine([] {
        Pipeline pipeline;
        DEVICE_CONTEXT* context = pipeline.context.get();
        (void)RENDER_Start(context);
        pipeline.holdDispatches();
        for (unsigned i = 0; i < 3; i++) {
            ASSERT_TRUE(RENDER_QueueFrame(context, &pipeline.contexts[i]));
        }
        RENDER_ReturnToAvailable(context, &pipeline.contexts[3]);
        RENDER_Stop(context);
        EXPECT_EQ(RENDER_CountAvailable(context), RENDER_CONTEXT_COUNT);
        EXPECT_EQ(pipeline.render.AvailableCount, LONG{RENDER_CONTEXT_COUNT});
        EXPECT_EQ(pipeline.render.PendingCount, 0);
        EXPECT_FALSE(RENDER_QueueFrame(context, RENDER_TakeAvailable(context)));
    });
}

TEST(Start, AfterASuspendRequestsANewFrame) {
    onMachine([] {
        Pipeline pipeline;
        DEVICE_CONTEXT* context = pipeline.context.get();
        pipeline.returnAll();
        (void)RENDER_Start(context);
        pipeline.setLatest(2);
        FRAMEBUFFER_ClearUpdateRequest(context);
        RENDER_Suspend(context);
        RENDER_Resume(context);
        EXPECT_FALSE(RENDER_IsBufferInUse(context, 2));
        EXPECT_TRUE(KeReadStateEvent(&context->Surface.FrameUpdateRequestEvent));
    });
}

TEST(Start, IsRefusedAfterAShutdownAndAResumeWithoutASuspend) {
    onMachine([] {
        Pipeline pipeline;
        DEVICE_CONTEXT* context = pipeline.context.get();
        pipeline.setThreadCreated(FALSE); // there is no thread to wait for
        RENDER_Resume(context);
        EXPECT_EQ(pipeline.render.RenderRunning, 0u);
        (void)RENDER_Start(context);
        EXPECT_EQ(pipeline.render.RenderRunning, 1u);
        RENDER_Stop(context);
        RENDER_Resume(context); // it was stopped and not paused
        EXPECT_EQ(pipeline.render.RenderRunning, 0u);
        (void)RENDER_Start(context);
        RENDER_Suspend(context);
        RENDER_Stop(context);
        RENDER_Resume(context); // it was paused and then stopped
        EXPECT_EQ(pipeline.render.RenderRunning, 0u);
        RENDER_Shutdown(context);
        EXPECT_EQ(RENDER_Start(context), STATUS_SUCCESS);
        EXPECT_EQ(pipeline.render.RenderRunning, 0u);
    });
}

TEST(FrameErrorBucket, HoldsEveryLevelOf32Bits) {
    onMachine([] {
        Pipeline pipeline;
        pipeline.context->Settings.UseFrameErrorBucket = 1;
        for (const ULONG level : {0x80000000u, 0xFFFFFFFFu, 1u}) {
            pipeline.render.FrameErrorBucket = static_cast<LONG>(level);
            RENDER_DecayFrameErrorBucket(pipeline.context.get());
            EXPECT_EQ(static_cast<ULONG>(pipeline.render.FrameErrorBucket), level - 1);
        }
        RENDER_DecayFrameErrorBucket(pipeline.context.get());
        EXPECT_EQ(pipeline.render.FrameErrorBucket, 0);
    });
}

TEST(RequestPools, WithoutCollectionsRefuseRequests) {
    onMachine([] {
        Pipeline pipeline;
        DEVICE_CONTEXT* context = pipeline.context.get();
        const WDFREQUEST request = reinterpret_cast<WDFREQUEST>(&pipeline);
        EXPECT_EQ(REQUEST_QueueForSend(context, request), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(REQUEST_TrackSent(context, request), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(REQUEST_TakeNextToSend(context), nullptr);
        EXPECT_TRUE(REQUEST_AllSentCompleted(context));
        REQUEST_RemoveFromSendQueue(context, request);
        REQUEST_UntrackSent(context, request);
        REQUEST_DiscardSent(context);
        REQUEST_WaitSentCompleted(context);
    });
}

} // namespace
