#include "base/util.h"

void UTIL_DelayMs(ULONG milliseconds) {
    LARGE_INTEGER interval;
    interval.QuadPart = RelativeMs(milliseconds);
    KeDelayExecutionThread(KernelMode, TRUE, &interval);
}
