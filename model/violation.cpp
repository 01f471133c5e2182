#include "model/violation.h"

#include <utility>

namespace model {

std::string_view name(ViolationKind kind) {
    switch (kind) {
    case ViolationKind::BadRequest:
        return "bad request";
    case ViolationKind::NotConfigured:
        return "not configured";
    case ViolationKind::UnknownRegister:
        return "unknown register";
    case ViolationKind::SerialBusy:
        return "serial master busy";
    case ViolationKind::SerialUnpowered:
        return "serial master unpowered";
    case ViolationKind::BadTiming:
        return "bad timing";
    case ViolationKind::BadClock:
        return "bad clock";
    case ViolationKind::OutputWithoutClock:
        return "output without clock";
    case ViolationKind::UnexpectedData:
        return "unexpected data";
    case ViolationKind::BadFrameLength:
        return "bad frame length";
    case ViolationKind::BadStream:
        return "bad stream";
    case ViolationKind::MissingZeroLength:
        return "missing zero-length transfer";
    case ViolationKind::ExtraZeroLength:
        return "extra zero-length transfer";
    case ViolationKind::WrongBank:
        return "wrong bank";
    case ViolationKind::UnpoweredFunction:
        return "unpowered function";
    case ViolationKind::LockedRegister:
        return "locked register";
    case ViolationKind::BadInfoFrame:
        return "bad InfoFrame";
    case ViolationKind::BadTransmitterSetup:
        return "bad transmitter setup";
    }
    return "unknown";
}

void ViolationLog::add(usb::Time time, ViolationKind kind, std::string cause) {
    total_++;
    if (list_.size() < kKept) {
        list_.push_back({time, kind, std::move(cause)});
    }
}

void ViolationLog::clear() {
    list_.clear();
    total_ = 0;
}

} // namespace model
