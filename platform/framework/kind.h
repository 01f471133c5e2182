// The types of framework objects.
#pragma once

#include <cstdint>
#include <string_view>

namespace framework {

enum class Kind : std::uint8_t {
    Driver,
    Device,
    Queue,
    Request,
    FileObject,
    UsbDevice,
    UsbInterface,
    UsbPipe,
    Memory,
    Lookaside,
    Collection,
    SpinLock,
    WaitLock,
    Timer,
    WorkItem,
    Key,
};
std::string_view kindName(Kind kind); // "WDFREQUEST"

} // namespace framework
