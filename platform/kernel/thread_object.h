// Thread objects, as the dispatcher and the thread functions share them. Private to the kernel layer.
#pragma once

#include "platform/kernel/task.h"

#include <ntddk.h>

struct _KTHREAD {
    DISPATCHER_HEADER Header; // signaled once the thread has ended

    bool system = false; // made by PsCreateSystemThread

    // Guarded by the kernel lock.
    kernel::Task* task = nullptr; // null once it has ended
    unsigned references = 0;      // handles, pointers, and the running thread itself
};

namespace kernel {

// Values of DISPATCHER_HEADER::Type.
constexpr UCHAR kNotificationEvent = 0;
constexpr UCHAR kSynchronizationEvent = 1;
constexpr UCHAR kMutant = 2;
constexpr UCHAR kThread = 6;

// The task's thread object, made at the first call.
_KTHREAD& threadObjectOf(Task& task);

// Ends the waits that `header`'s state satisfies now. Kernel lock held.
void satisfyWaiters(DISPATCHER_HEADER& header);

} // namespace kernel
