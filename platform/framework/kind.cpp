#include "platform/framework/kind.h"

#include <cstddef>

namespace framework {

std::string_view kindName(Kind kind) {
    constexpr std::string_view names[] = {"WDFDRIVER",     "WDFDEVICE",    "WDFQUEUE",        "WDFREQUEST",
                                          "WDFFILEOBJECT", "WDFUSBDEVICE", "WDFUSBINTERFACE", "WDFUSBPIPE",
                                          "WDFMEMORY",     "WDFLOOKASIDE", "WDFCOLLECTION",   "WDFSPINLOCK",
                                          "WDFWAITLOCK",   "WDFTIMER",     "WDFWORKITEM",     "WDFKEY"};
    return names[static_cast<std::size_t>(kind)];
}

} // namespace framework
