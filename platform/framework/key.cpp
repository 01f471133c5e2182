// Registry keys. The kernel does not check the access mask of a key that kernel code opens, and neither does
// this.
#include "platform/framework/driver.h"
#include "platform/framework/object.h"
#include "platform/kernel/registry.h"

#include <cstring>
#include <optional>

namespace framework {

class Key final : public Object {
  public:
    explicit Key(std::shared_ptr<kernel::RegistryKey> key) : Object(Kind::Key), key_(std::move(key)) {}
    kernel::RegistryKey& registry() { return *key_; }

  private:
    const std::shared_ptr<kernel::RegistryKey> key_;
};

namespace {

std::u16string_view view(PCUNICODE_STRING text) {
    return {text->Buffer, text->Length / sizeof(WCHAR)};
}

bool isValid(PCUNICODE_STRING text) {
    return text != nullptr && text->Length % sizeof(WCHAR) == 0 && text->MaximumLength % sizeof(WCHAR) == 0 &&
           text->Length <= text->MaximumLength && (text->Buffer != nullptr || text->MaximumLength == 0);
}

// A value as a driver asks for it: refused for a bad name, and for want of memory or of the value.
NTSTATUS findValue(const Call& call, Key& key, PCUNICODE_STRING name,
                   std::optional<kernel::RegistryValue>& value) {
    if (!isValid(name)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(kernel::FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    value = key.registry().value(view(name));
    return value ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
}

} // namespace

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::FaultKind;
using kernel::kPassiveLevel;

NTSTATUS WdfDriverOpenParametersRegistryKey(WDFDRIVER Driver, ACCESS_MASK DesiredAccess,
                                            PWDF_OBJECT_ATTRIBUTES KeyAttributes, WDFKEY* Key) {
    Call call("WdfDriverOpenParametersRegistryKey", kPassiveLevel);
    auto driver = call.object<framework::Driver>(Driver);
    if (Key == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *Key = nullptr;
    if (call.fault(FaultKind::Registry)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    // Access to more than reading creates the key if it is not there.
    auto parameters = (DesiredAccess & ~KEY_READ) != 0 ? kernel::parametersKey(driver->service)
                                                       : kernel::existingParametersKey(driver->service);
    if (parameters == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    Ref<framework::Key> key;
    const NTSTATUS status = createObject(call, KeyAttributes, {}, driver.get(), key, [&](framework::Object*) {
        return new framework::Key(std::move(parameters));
    });
    if (NT_SUCCESS(status)) {
        *Key = static_cast<WDFKEY>(key->handle());
    }
    return status;
}

VOID WdfRegistryClose(WDFKEY Key) {
    Call call("WdfRegistryClose", kPassiveLevel);
    call.requireNotDeleted(Key);
    call.object<framework::Key>(Key)->removeForDriver(call.name());
}

NTSTATUS WdfRegistryQueryValue(WDFKEY Key, PCUNICODE_STRING ValueName, ULONG ValueLength, PVOID Value,
                               PULONG ValueLengthQueried, PULONG ValueType) {
    Call call("WdfRegistryQueryValue", kPassiveLevel);
    auto key = call.object<framework::Key>(Key);
    if (ValueLength != 0 && Value == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::optional<kernel::RegistryValue> value;
    const NTSTATUS status = framework::findValue(call, *key, ValueName, value);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (ValueLengthQueried != nullptr) {
        *ValueLengthQueried = static_cast<ULONG>(value->data.size());
    }
    if (ValueType != nullptr) {
        *ValueType = value->type;
    }
    if (Value == nullptr || value->data.size() > ValueLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(Value, value->data.data(), value->data.size());
    return STATUS_SUCCESS;
}

NTSTATUS WdfRegistryQueryULong(WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value) {
    Call call("WdfRegistryQueryULong", kPassiveLevel);
    auto key = call.object<framework::Key>(Key);
    if (Value == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::optional<kernel::RegistryValue> value;
    const NTSTATUS status = framework::findValue(call, *key, ValueName, value);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (value->type != REG_DWORD) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (value->data.size() != sizeof(ULONG)) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(Value, value->data.data(), sizeof(ULONG));
    return STATUS_SUCCESS;
}

NTSTATUS WdfRegistryAssignULong(WDFKEY Key, PCUNICODE_STRING ValueName, ULONG Value) {
    Call call("WdfRegistryAssignULong", kPassiveLevel);
    auto key = call.object<framework::Key>(Key);
    if (!framework::isValid(ValueName)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    key->registry().assign(framework::view(ValueName), kernel::RegistryValue::dword(Value));
    return STATUS_SUCCESS;
}
