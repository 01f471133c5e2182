// From a filled render buffer to USB transfers and back: the dispatch of pending contexts and the completion
// of their requests.
//
// The life of a render context. PendingListLock is held at every event of FRAME_UPDATED and at the end of a
// transfer; RenderRunning changes under that lock, too. So once a stop has cleared it, nothing is queued or
// dispatched any more.
//
//   state            event                                next state       what happens besides
//   FRAME_CLEARED    a frame update takes it              FRAME_TAKEN
//                    the transfer sent last is the only   FRAME_UPDATED    it carries the newest frame, so
//                    that the one in flight, nothing is pending                     pipe does not run dry
//   FRAME_TAKEN      its render buffer is filled          FRAME_UPDATED    its frame is the newest one
//                    nothing to send, or a stop           FRAME_CLEARED
//   FRAME_UPDATED    a dispatch, requests formatted       FRAME_IN_FLIGHT  its requests are sent in order
//                    a dispatch, requests not formatted   FRAME_CLEARED    the dispatch ends
//                    a stop                               FRAME_CLEARED
//   FRAME_IN_FLIGHT  a request is refused                 FRAME_REFUSED    the rest of its frame is not sent
//   FRAME_IN_FLIGHT  the last of its requests is done:
//                    - the device is gone                 FRAME_CLEARED    the device is given up
//                    - the stream is stopped              FRAME_CLEARED
//                    - a newer frame is pending           FRAME_CLEARED    the newer frame is dispatched
//                    - it carried the newest frame        FRAME_UPDATED    the frame is sent again
//                    - it carried an older frame, and     FRAME_UPDATED    the newest frame is sent in its
//                    place:
//                      one other context is in flight                      two transfers of it are enough
//                    - otherwise                          FRAME_CLEARED    if nothing is in flight, the
//                    newest
//                                                                          frame is converted again later
//   FRAME_REFUSED    the last of its requests is done     FRAME_CLEARED    as above for a gone device, a stop
//   and a
//                                                                          newer frame; else as "otherwise"
#pragma once

#include "device/device_context.h"

// Sends what is on PendingList, and the newest frame a second time when it would be alone in flight. Returns
// at once when another dispatch is running: that one finds the new work. No lock is held by the caller.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_DispatchPendingContexts(DEVICE_CONTEXT* context);

// Context: the RENDER_CONTEXT. Up to DISPATCH_LEVEL.
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_RenderRequestCompleted;
EVT_WDF_REQUEST_COMPLETION_ROUTINE RENDER_ZeroLengthRequestCompleted;

// All requests of the context are done; `params` are those of the last one.
_IRQL_requires_max_(DISPATCH_LEVEL)
void RENDER_CompleteRenderContext(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                  PWDF_REQUEST_COMPLETION_PARAMS params);
