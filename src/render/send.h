// From a filled render buffer to USB transfers: the dispatch of pending contexts and the completion of their
// requests.
//
// The life of a render context. RenderRunning changes under PendingListLock, and each change to or from
// FRAME_UPDATED holds that lock, too. So after a stop has cleared RenderRunning, no context is queued, and
// none is taken off PendingList to be sent.
//
//   state            event                              next state       what happens besides
//   FRAME_CLEARED    a frame update takes it            FRAME_TAKEN
//                    it joins a lone transfer (1)       FRAME_UPDATED    it sends the newest frame, too
//   FRAME_TAKEN      its render buffer is filled        FRAME_UPDATED    its frame is the newest one
//                    nothing to send, or a stop         FRAME_CLEARED
//   FRAME_UPDATED    a dispatch queues its requests     FRAME_IN_FLIGHT  they are sent in order
//                    a dispatch fails to queue them     FRAME_CLEARED    the dispatch ends; (2)
//                    a stop                             FRAME_CLEARED
//   FRAME_IN_FLIGHT  the request of its frame is        FRAME_REFUSED    nothing of it is sent
//                    refused
//                    its zero-length request is refused FRAME_OPEN       (4)
//                    the last of its requests is done:
//                    - it says: the device is gone      FRAME_CLEARED    the device is given up
//                    - the stream is stopped            FRAME_CLEARED
//                    - a newer frame is pending         FRAME_CLEARED    the newer frame is dispatched
//                    - no frame since the last start    FRAME_CLEARED
//                    - it carried the newest frame      FRAME_UPDATED    the frame is sent again
//                    - one other context is in flight   FRAME_UPDATED    it sends the newest frame, too
//                    - otherwise                        FRAME_CLEARED    (2)
//   FRAME_OPEN       a dispatch                         FRAME_IN_FLIGHT  the request is sent before others
//                    the dispatch is refused again      FRAME_OPEN       (4)
//                    a stop                             FRAME_REFUSED    (5)
//   FRAME_REFUSED    the last of its requests is done   FRAME_CLEARED    (3)
//
// (1) A dispatch finds nothing pending, the context that it sent last is the only one in flight, and no
//     request was refused: a second transfer follows, so that the pipe always has one to continue with.
// (2) When nothing is in flight any more, the newest frame is converted and sent again after 100 ms.
// (3) The same cases as for FRAME_IN_FLIGHT, but in place of becoming FRAME_UPDATED it is returned, and (2)
//     applies.
// (4) What is pending returns to FRAME_CLEARED. With the next completion, or with the newest frame after
//     100 ms, the zero-length request is tried again. A device that is gone leads to FRAME_REFUSED.
// (5) The frame needs no end: after every stop the adapter's frame input is flushed before the next frame.
//
// What the last request of a context says:
//
//   STATUS_DEVICE_NOT_CONNECTED    the device is given up: the stream and its thread end, and commands and
//   STATUS_NO_SUCH_DEVICE          register transfers are refused, until the next hardware preparation
//   USBD_STATUS_DEVICE_GONE
//   USBD_STATUS_ENDPOINT_HALTED
//   anything else                  the stream goes on as after a success: a time-out, a cancellation, and
//                                  also a stall or an error on the bus
//
// A stall or an error on the bus halts the pipe: the next transfer reports ENDPOINT_HALTED. Only a new pipe
// ends the halt; hardware preparation selects the configuration and thereby makes one.
#pragma once

#include "device/device_context.h"

// Sends what is on PendingList, and the newest frame a second time when it would be alone in flight. Returns
// at once when another dispatch is running: that one finds the new work.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_DispatchPendingContexts(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Render.PendingListLock);

// At a stop, when no dispatch is running: returns what is pending and gives up the end of an open frame.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_EmptyQueue(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Render.PendingListLock);

// Their completion context is the RENDER_CONTEXT.
_IRQL_requires_max_(DISPATCH_LEVEL)
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_RenderRequestCompleted;
_IRQL_requires_max_(DISPATCH_LEVEL)
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_ZeroLengthRequestCompleted;

// All requests of the context are done; `params` are those of the last one.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_CompleteRenderContext(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                  _In_ PWDF_REQUEST_COMPLETION_PARAMS params)
    TSA_EXCLUDES(context->Render.PendingListLock);
