#include "platform/kernel/interfaces.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/platform_call.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/scheduler.h"
#include "platform/verifier/verifier.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <fmt/format.h>
#include <memory>
#include <utility>

namespace kernel {

namespace {

constexpr ULONG kStringTag = 0x6E695349; // "ISin", strings that the I/O manager hands out

struct Interface {
    PDEVICE_OBJECT pdo;
    GUID interfaceClass;
    std::u16string link;
    bool enabled;
};

struct Subscriber {
    GUID interfaceClass;
    InterfaceCallback callback;
};

struct Change {
    GUID interfaceClass;
    bool arrived;
    std::u16string link;
};

// All guarded by the kernel lock.
struct Interfaces {
    std::vector<std::pair<PDEVICE_OBJECT, std::u16string>> devices; // with their instance paths
    std::vector<Interface> registered;
    std::vector<std::shared_ptr<const Subscriber>> subscribers;
    std::deque<Change> changes; // not yet told to the subscribers
    bool telling = false;       // a worker tells the subscribers of them
};
base::MachinePart<Interfaces> interfaces;

std::u16string linkName(std::u16string_view instance, const GUID& interfaceClass,
                        std::u16string_view reference) {
    const std::string guid = fmt::format(
        "{{{:08x}-{:04x}-{:04x}-{:02x}{:02x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}}}", interfaceClass.Data1,
        interfaceClass.Data2, interfaceClass.Data3, interfaceClass.Data4[0], interfaceClass.Data4[1],
        interfaceClass.Data4[2], interfaceClass.Data4[3], interfaceClass.Data4[4], interfaceClass.Data4[5],
        interfaceClass.Data4[6], interfaceClass.Data4[7]);
    std::u16string link = u"\\??\\";
    for (char16_t character : instance) {
        link += character == u'\\' ? u'#' : character;
    }
    link += u'#';
    link.append(guid.begin(), guid.end());
    if (!reference.empty()) {
        link += u'\\';
        link += reference;
    }
    return link;
}

std::u16string_view viewOf(const UNICODE_STRING* text) {
    return text != nullptr && text->Buffer != nullptr
               ? std::u16string_view(text->Buffer, text->Length / sizeof(WCHAR))
               : std::u16string_view();
}

Interface* findLink(std::u16string_view link) {
    auto found = std::find_if(interfaces->registered.begin(), interfaces->registered.end(),
                              [link](const Interface& entry) { return entry.link == link; });
    return found != interfaces->registered.end() ? &*found : nullptr;
}

// Tells the subscribers of each change, in order, until none is left. Changes and subscriptions come before
// what a subscriber is told.
void tellSubscribers() {
    for (;;) {
        Change change;
        std::vector<std::shared_ptr<const Subscriber>> audience;
        {
            KernelGuard guard;
            if (interfaces->changes.empty()) {
                interfaces->telling = false;
                return;
            }
            change = std::move(interfaces->changes.front());
            interfaces->changes.pop_front();
            audience = interfaces->subscribers;
        }
        announceAcquire(&interfaces);
        for (const auto& subscriber : audience) {
            if (IsEqualGUID(subscriber->interfaceClass, change.interfaceClass)) {
                enterDomain(currentTask(), Domain::Host);
                subscriber->callback(change.arrived, change.link);
                enterDomain(currentTask(), Domain::Platform);
            }
        }
    }
}

// Kernel lock held. True when the caller must call `startTelling` after it has released the lock.
bool noteChange(Interface& entry, bool enabled) {
    entry.enabled = enabled;
    announceRelease(&interfaces);
    interfaces->changes.push_back({entry.interfaceClass, enabled, entry.link});
    return !std::exchange(interfaces->telling, true);
}

void startTelling() {
    queueWork("interface notification", tellSubscribers);
}

// A string for the driver, which gives it back with RtlFreeUnicodeString. False when there is no memory.
bool copyToDriver(std::u16string_view text, UNICODE_STRING& result, std::string_view call) {
    const std::size_t bytes = text.size() * sizeof(WCHAR);
    auto* buffer = static_cast<WCHAR*>(allocatePool(PagedPool, bytes + sizeof(WCHAR), kStringTag, call));
    if (buffer == nullptr) {
        return false;
    }
    std::memcpy(buffer, text.data(), bytes);
    buffer[text.size()] = 0;
    result.Buffer = buffer;
    result.Length = static_cast<USHORT>(bytes);
    result.MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
    return true;
}

} // namespace

void addInterfaceDevice(PDEVICE_OBJECT pdo, std::u16string instance) {
    KernelLockIfFree guard;
    interfaces->devices.emplace_back(pdo, std::move(instance));
}

void removeInterfaceDevice(PDEVICE_OBJECT pdo) {
    bool start = false;
    {
        KernelLockIfFree guard;
        for (Interface& entry : interfaces->registered) {
            if (entry.pdo == pdo && entry.enabled) {
                start |= noteChange(entry, false);
            }
        }
        std::erase_if(interfaces->registered, [pdo](const Interface& entry) { return entry.pdo == pdo; });
        std::erase_if(interfaces->devices, [pdo](const auto& device) { return device.first == pdo; });
    }
    if (start) {
        startTelling();
    }
}

std::vector<std::u16string> enabledInterfaces(const GUID& interfaceClass) {
    KernelLockIfFree guard;
    std::vector<std::u16string> links;
    for (const Interface& entry : interfaces->registered) {
        if (entry.enabled && IsEqualGUID(entry.interfaceClass, interfaceClass)) {
            links.push_back(entry.link);
        }
    }
    return links;
}

PDEVICE_OBJECT interfaceDevice(std::u16string_view link) {
    KernelLockIfFree guard;
    const Interface* entry = findLink(link);
    return entry != nullptr && entry->enabled ? entry->pdo : nullptr;
}

void subscribeInterfaces(const GUID& interfaceClass, InterfaceCallback callback) {
    KernelLockIfFree guard;
    announceRelease(&interfaces);
    interfaces->subscribers.push_back(
        std::make_shared<const Subscriber>(Subscriber{interfaceClass, std::move(callback)}));
}

} // namespace kernel

using namespace kernel;

extern "C" {

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID* InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName) {
    PlatformCall call;
    verifier::requireIrql("IoRegisterDeviceInterface", kPassiveLevel);
    requireSystemThread("IoRegisterDeviceInterface");
    std::u16string link;
    {
        KernelGuard guard;
        auto device = std::find_if(interfaces->devices.begin(), interfaces->devices.end(),
                                   [&](const auto& entry) { return entry.first == PhysicalDeviceObject; });
        if (device == interfaces->devices.end()) {
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        link = linkName(device->second, *InterfaceClassGuid, viewOf(ReferenceString));
    }
    if (!copyToDriver(link, *SymbolicLinkName, "IoRegisterDeviceInterface")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KernelGuard guard;
    if (findLink(link) == nullptr) {
        interfaces->registered.push_back({PhysicalDeviceObject, *InterfaceClassGuid, link, false});
    }
    return STATUS_SUCCESS;
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
    PlatformCall call;
    verifier::requireIrql("IoSetDeviceInterfaceState", kPassiveLevel);
    requireSystemThread("IoSetDeviceInterfaceState");
    // The state is kept in the registry. Switching an interface off does not fail for want of anything.
    if (Enable && faultPoint(FaultKind::Registry, "IoSetDeviceInterfaceState")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    bool start = false;
    {
        KernelGuard guard;
        Interface* entry = findLink(viewOf(SymbolicLinkName));
        if (entry == nullptr || (!Enable && !entry->enabled)) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (Enable && entry->enabled) {
            return STATUS_OBJECT_NAME_EXISTS;
        }
        start = noteChange(*entry, Enable != FALSE);
    }
    if (start) {
        startTelling();
    }
    return STATUS_SUCCESS;
}

VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    PlatformCall call;
    verifier::requireIrql("RtlFreeUnicodeString", kPassiveLevel);
    if (UnicodeString->Buffer != nullptr) {
        freePool(UnicodeString->Buffer, kStringTag, "RtlFreeUnicodeString");
        *UnicodeString = {};
    }
}

} // extern "C"
