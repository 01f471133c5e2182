// The pool type of every allocation of the driver, and the tags that tell the allocations apart.
#pragma once

#include <ntddk.h>

// NonPagedPoolNx from OS version 6.2 on, NonPagedPool before. Set by DriverEntry before any
// allocation.
extern POOL_TYPE DriverPoolType;

// A tag with its first character in the most significant byte, and one with it in the least significant
// byte, which reads in memory order.
constexpr ULONG PoolTagHighFirst(const char (&name)[5]) {
    return (ULONG(UCHAR(name[0])) << 24) | (ULONG(UCHAR(name[1])) << 16) | (ULONG(UCHAR(name[2])) << 8) |
           ULONG(UCHAR(name[3]));
}
constexpr ULONG PoolTagMemoryOrder(const char (&name)[5]) {
    return (ULONG(UCHAR(name[3])) << 24) | (ULONG(UCHAR(name[2])) << 16) | (ULONG(UCHAR(name[1])) << 8) |
           ULONG(UCHAR(name[0]));
}

constexpr ULONG POOL_TAG_DRIVER = PoolTagMemoryOrder("OSTV"); // render buffers, control buffers, descriptors
constexpr ULONG POOL_TAG_FRAME_BUFFER = PoolTagHighFirst("OSTK"); // frame buffers, cursor scratch blocks
constexpr ULONG POOL_TAG_COMPRESSION = PoolTagHighFirst("OSVd");  // the compression staging buffer
