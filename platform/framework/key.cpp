// Registry keys. The kernel does not check the access mask of a key that kernel code opens, and neither does
// this.
#include "platform/framework/driver.h"
#include "platform/framework/object.h"
#include "platform/kernel/registry.h"

#include <cstring>

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

} // namespace

} // namespace framework

using framework::Call;
using framework::Ref;
using kernel::FaultKind;
using kernel::kPassiveLevel;

NTSTATUS WdfDriverOpenParametersRegistryKey(WDFDRIVER Driver, ACCESS_MASK,
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
    Ref<framework::Key> key;
    const NTSTATUS status = createObject(call, KeyAttributes, {}, driver.get(), key, [&](framework::Object*) {
        return new framework::Key(kernel::parametersKey(driver->service));
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
    if (ValueName == nullptr || (ValueLength != 0 && Value == nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto value = key->registry().value(framework::view(ValueName));
    if (!value) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (ValueLengthQueried != nullptr) {
        *ValueLengthQueried = static_cast<ULONG>(value->data.size());
    }
    if (ValueType != nullptr) {
        *ValueType = value->type;
    }
    if (Value == nullptr) {
        return STATUS_SUCCESS;
    }
    if (value->data.size() > ValueLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    std::memcpy(Value, value->data.data(), value->data.size());
    return STATUS_SUCCESS;
}

NTSTATUS WdfRegistryQueryULong(WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value) {
    Call call("WdfRegistryQueryULong", kPassiveLevel);
    auto key = call.object<framework::Key>(Key);
    if (ValueName == nullptr || Value == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const auto value = key->registry().value(framework::view(ValueName));
    if (!value) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const auto number = value->asDword();
    if (!number) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    *Value = *number;
    return STATUS_SUCCESS;
}

NTSTATUS WdfRegistryAssignULong(WDFKEY Key, PCUNICODE_STRING ValueName, ULONG Value) {
    Call call("WdfRegistryAssignULong", kPassiveLevel);
    auto key = call.object<framework::Key>(Key);
    if (ValueName == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (call.fault(FaultKind::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    key->registry().assign(framework::view(ValueName), kernel::RegistryValue::dword(Value));
    return STATUS_SUCCESS;
}
