// Delays and bounded polls.
#pragma once

#include "base/annotations.h"

// Relative due times are negative, in units of 100 ns.
constexpr LONGLONG RelativeMs(ULONG milliseconds) {
    return -static_cast<LONGLONG>(milliseconds) * 10000;
}

// Blocks the calling thread until the clock's first tick after that time. Ticks are 15.6 ms apart, or 1 ms
// while a program asks for that, so a loop of short delays takes a tick or more for each.
_IRQL_requires_(PASSIVE_LEVEL)
void UTIL_DelayMs(ULONG milliseconds);

enum class POLL_RESULT { Again, Done, Failed };

// Asks `probe(context)` at most `maximumCount` times, with `intervalMs` after every answer of Again. Returns
// the last answer: Again means that the count ran out.
template <typename Context>
_IRQL_requires_(PASSIVE_LEVEL)
POLL_RESULT UTIL_Poll(ULONG intervalMs, ULONG maximumCount, POLL_RESULT (*probe)(Context*),
                      Context* context) {
    for (ULONG count = 0; count < maximumCount; count++) {
        const POLL_RESULT result = probe(context);
        if (result != POLL_RESULT::Again) {
            return result;
        }
        if (intervalMs != 0) {
            UTIL_DelayMs(intervalMs);
        }
    }
    return POLL_RESULT::Again;
}
