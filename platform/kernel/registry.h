// The part of the registry that a driver sees: keys with values, names without regard to case.
// The driver's calls have fault points, these functions have none: host code reads and writes without faults.
#pragma once

#include <ntddk.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kernel {

struct RegistryValue {
    ULONG type = REG_NONE; // REG_DWORD, REG_BINARY, REG_SZ
    std::vector<std::uint8_t> data;

    static RegistryValue dword(ULONG value);
    static RegistryValue binary(std::vector<std::uint8_t> bytes);

    // The number of a REG_DWORD of four bytes; nothing for anything else.
    std::optional<ULONG> asDword() const;
};

// A key. It lives as long as the registry or a caller holds it.
class RegistryKey {
  public:
    // The key under `parent`, created when it does not exist. `path` is one name or several with backslashes
    // between them.
    static std::shared_ptr<RegistryKey> create(const std::shared_ptr<RegistryKey>& parent,
                                               std::u16string_view path);

    std::shared_ptr<RegistryKey> child(std::u16string_view name) const; // or null
    std::optional<RegistryValue> value(std::u16string_view name) const;
    void assign(std::u16string_view name, RegistryValue value);

    RegistryKey();
    ~RegistryKey();
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

  private:
    struct Content;
    std::unique_ptr<Content> content_; // guarded by the kernel lock
};

// "\Registry\Machine\System\CurrentControlSet\Services\NAME", as DriverEntry receives it.
std::u16string servicePath(std::u16string_view service);

// The service's key and its Parameters subkey, created when they do not exist.
std::shared_ptr<RegistryKey> serviceKey(std::u16string_view service);
std::shared_ptr<RegistryKey> parametersKey(std::u16string_view service);

// The Parameters subkey, or null when it does not exist.
std::shared_ptr<RegistryKey> existingParametersKey(std::u16string_view service);

} // namespace kernel
