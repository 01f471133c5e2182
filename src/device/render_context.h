// The render pipeline of one adapter: contexts, buffers, queues, thread and timers. Written by render/.
#pragma once

#include "base/lock.h"
#include "device/mode_limits.h"

#include <ntddk.h>
#include <usb.h>
#include <wdf.h>

struct DEVICE_CONTEXT;

constexpr ULONG RENDER_CONTEXT_COUNT = 4;
constexpr ULONG RENDER_BUFFER_COUNT = 4;
constexpr ULONG RENDER_BUFFER_CAPACITY = MODE_MAX_PIXELS * 3 + 54;            // from the aligned address
constexpr ULONG RENDER_BUFFER_ALLOCATION = RENDER_BUFFER_CAPACITY + 16;       // with its alignment
constexpr ULONG COMPRESSION_STAGING_ALLOCATION = RENDER_BUFFER_CAPACITY + 32; // with its alignment
constexpr ULONG RENDER_BUFFER_NONE = ~0u;                                     // in place of an index

// The states of a render context. The events that lead from one to the next: render/send.h.
enum RENDER_CONTEXT_STATE : ULONG {
    FRAME_CLEARED,   // on AvailableList
    FRAME_TAKEN,     // on no list: the frame update thread fills a render buffer for it
    FRAME_UPDATED,   // on PendingList
    FRAME_IN_FLIGHT, // on no list: its requests are queued or sent
    FRAME_OPEN,      // in flight, but its zero-length request was not sent yet
    FRAME_REFUSED,   // in flight, but one of its requests was not sent
};

// One transfer: a frame's bytes and, in most modes, the zero-length transfer that ends it.
struct RENDER_CONTEXT {
    LIST_ENTRY Link; // points to itself while on no list
    DEVICE_CONTEXT* DeviceContext;
    ULONG State; // RENDER_CONTEXT_STATE; written by the task that moves the context (shared field)
    ULONG TransferLength;
    ULONG RenderBufferIndex;  // the render buffer it sends
    LONG OutstandingRequests; // interlocked: queued or sent, and not finished
    _URB_BULK_OR_INTERRUPT_TRANSFER RenderUrb;
    WDFMEMORY RenderUrbMemory;
    WDFREQUEST RenderRequest;
    _URB_BULK_OR_INTERRUPT_TRANSFER ZeroLengthUrb;
    WDFMEMORY ZeroLengthUrbMemory;
    WDFREQUEST ZeroLengthRequest;
    PMDL RenderMdl[RENDER_BUFFER_COUNT];
};

// A collection of USB requests. It refers to the requests of the render contexts and does not own them. Lock
// and collection are null before the pipeline is built and after it is torn down.
struct REQUEST_LIST {
    DEVICE_WDF_SPIN_LOCK Lock;
    WDFCOLLECTION Requests TSA_GUARDED_BY(Lock);
};

struct RENDER_BUFFERS {
    WDFMEMORY Memory[RENDER_BUFFER_COUNT];
    UCHAR* NonAligned[RENDER_BUFFER_COUNT];
    UCHAR* Aligned[RENDER_BUFFER_COUNT]; // 16-byte boundary
};

enum FRAME_UPDATE_THREAD_STATE : ULONG {
    THREAD_NOT_STARTED = 0,
    THREAD_RUNNING = 1,
    THREAD_ENDED = 3,
};

enum DROP_FRAME_CHECK_STATE : ULONG {
    DROP_FRAME_CHECK_RESET = 0,
    DROP_FRAME_CHECK_SEEN = 1,
    DROP_FRAME_CHECK_ELAPSED = 2,
};

// What the newest frame was made of: as long as nothing of it changes, the frame is the same.
struct FRAME_ORIGIN {
    ULONGLONG PixelVersion; // 0 for none
    ULONG CompressionLevel;
    USHORT QuantLevel;
    ULONG RenderBufferIndex; // where the frame is
};

struct THREAD_START_CONTEXT {
    DEVICE_CONTEXT* DeviceContext;
};

struct RENDER_PIPELINE {
    // Created at hardware preparation, deleted at release; constant in between.
    DEVICE_WDF_SPIN_LOCK CompressionLevelLock;
    WDFLOOKASIDE RenderContextLookaside;
    WDFMEMORY RenderContextMemory[RENDER_CONTEXT_COUNT];
    RENDER_CONTEXT* RenderContexts[RENDER_CONTEXT_COUNT];
    WDFTIMER CompressionAutoUpdateTimer;
    WDFTIMER DropFrameEventCheckTimer;

    // Of the mode in force; raised and lowered while frames are encoded.
    ULONG CompressionLevel TSA_GUARDED_BY(CompressionLevelLock);

    REQUEST_LIST SendQueue;    // formatted, of the frame that is being sent
    REQUEST_LIST SentRequests; // sent and not completed

    // The count is interlocked and changes shortly after the list.
    DEVICE_SPIN_LOCK AvailableListLock;
    LIST_ENTRY AvailableList TSA_GUARDED_BY(AvailableListLock);
    LONG AvailableCount;

    // The count is interlocked and changes with the list.
    DEVICE_SPIN_LOCK PendingListLock;
    LIST_ENTRY PendingList TSA_GUARDED_BY(PendingListLock);
    LONG PendingCount;
    ULONG LatestRenderBufferIndex TSA_GUARDED_BY(PendingListLock); // of the newest frame queued since the
                                                                   // start, or RENDER_BUFFER_NONE
    RENDER_CONTEXT* OpenFrame TSA_GUARDED_BY(PendingListLock);     // the one in state FRAME_OPEN, or null
    BOOLEAN Dispatching TSA_GUARDED_BY(PendingListLock); // a dispatch is running; new work is left to it
    KEVENT DispatchIdleEvent;                            // notification; signaled while Dispatching is clear
    KEVENT DispatchRequestEvent; // synchronization; a dispatch that sent its limit leaves the rest to the
                                 // frame update thread

    LONG RenderContextsInFlight; // interlocked

    // Created at device add; they outlive the rest. NextRenderBufferIndex is never reset.
    RENDER_BUFFERS RenderBuffer;
    DEVICE_MUTEX RenderBufferIndexMutex;
    ULONG NextRenderBufferIndex TSA_GUARDED_BY(RenderBufferIndexMutex);
    ULONG RenderBufferLength[RENDER_BUFFER_COUNT]; // bytes to send; written before the buffer is queued

    // Replaced while the pipeline is stopped; the frame update uses the address.
    WDFMEMORY CompressionStaging TSA_GUARDED_BY(RenderStartStopMutex);
    UCHAR* CompressionStagingAligned; // 32-byte boundary

    // The frame update thread.
    HANDLE FrameUpdateThreadHandle; // closed as soon as the object is referenced
    PVOID FrameUpdateThreadObject;  // referenced from creation until shutdown has waited for it
    THREAD_START_CONTEXT ThreadStartContext;
    KEVENT ThreadStartStopEvent;
    BOOLEAN FrameUpdateThreadCreated TSA_GUARDED_BY(RenderStartStopMutex);

    // Between the thread and the tasks that start and stop the stream.
    ULONG FrameUpdateThreadState; // FRAME_UPDATE_THREAD_STATE (shared field); by the thread once it runs
    LONG StartedAnew;         // interlocked: set by a start, cleared by the thread at its next frame update
    BOOLEAN StopAcknowledged; // shared field: set by the thread, cleared by a stop

    // Held while the stream starts, stops or pauses; a task that also changes the mode holds it around both.
    DEVICE_MUTEX RenderStartStopMutex;
    BOOLEAN ShutDown TSA_GUARDED_BY(RenderStartStopMutex); // being torn down: no more starts
    // Paused for a sleep; resumes after it.
    BOOLEAN SuspendedWhileRunning TSA_GUARDED_BY(RenderStartStopMutex);

    // Changed under RenderStartStopMutex and PendingListLock: it cannot change while either is held. A poll
    // without them (shared field) only saves work that would be thrown away.
    ULONG RenderRunning;
    KEVENT StoppedEvent; // notification; signaled while RenderRunning is clear, and changed with it

    // Notification; signaled while the thread is not filling a render buffer. The thread clears it under
    // PendingListLock, and only while RenderRunning is set; a stop waits for it after it cleared
    // RenderRunning.
    KEVENT FrameFillIdleEvent;

    // While set, the status work item ignores frame-error reports (shared field). Power callbacks, display
    // switches and mode changes set and clear it through RENDER_SuspendFrameErrors and
    // RENDER_ResumeFrameErrors; the latest call decides.
    BOOLEAN FrameErrorHandlingSuspended;

    // Feedback from the sizes of frames. Used by the frame update thread only.
    BOOLEAN AutoUpdateArmed; // the last frame was too large; the timer was started to repeat it
    BOOLEAN SmallFrameSeen;  // the last compressed frame was small; a second one lowers the level
    FRAME_ORIGIN NewestFrame;

    // Feedback from dropped frames. Shared fields, written by the frame update thread and by those named
    // here.
    ULONG DropFrameCheckState;      // DROP_FRAME_CHECK_STATE; check timer, mode set and attach
    ULONG PixelBytesUpgradeCount;   // mode set and attach
    BOOLEAN DropFrameEventReceived; // monitor handling and stops
    LONG FrameErrorBucket;          // interlocked
};
