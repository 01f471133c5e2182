#include "platform/kernel/registry.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/kernel_lock.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace kernel {

namespace {

// Names compare without regard to the case of the letters that occur in names of values and services.
struct NameLess {
    using is_transparent = void;
    static char16_t fold(char16_t c) {
        return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - u'a' + u'A') : c;
    }
    bool operator()(std::u16string_view a, std::u16string_view b) const {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                            [](char16_t x, char16_t y) { return fold(x) < fold(y); });
    }
};

constexpr std::u16string_view kServices = u"System\\CurrentControlSet\\Services";
constexpr std::u16string_view kParameters = u"Parameters";
constexpr std::u16string_view kMachine = u"\\Registry\\Machine\\";

struct Root {
    const std::shared_ptr<RegistryKey> key = std::make_shared<RegistryKey>();
};
base::MachinePart<Root> root;

} // namespace

struct RegistryKey::Content {
    std::map<std::u16string, std::shared_ptr<RegistryKey>, NameLess> keys;
    std::map<std::u16string, RegistryValue, NameLess> values;
};

RegistryKey::RegistryKey() : content_(std::make_unique<Content>()) {}
RegistryKey::~RegistryKey() = default;

RegistryValue RegistryValue::dword(ULONG value) {
    RegistryValue result{REG_DWORD, std::vector<std::uint8_t>(sizeof(value))};
    std::memcpy(result.data.data(), &value, sizeof(value));
    return result;
}

RegistryValue RegistryValue::binary(std::vector<std::uint8_t> bytes) {
    return {REG_BINARY, std::move(bytes)};
}

std::optional<ULONG> RegistryValue::asDword() const {
    if (type != REG_DWORD || data.size() != sizeof(ULONG)) {
        return std::nullopt;
    }
    ULONG value = 0;
    std::memcpy(&value, data.data(), sizeof(value));
    return value;
}

std::shared_ptr<RegistryKey> RegistryKey::create(const std::shared_ptr<RegistryKey>& parent,
                                                 std::u16string_view path) {
    KernelLockIfFree guard;
    std::shared_ptr<RegistryKey> key = parent;
    while (!path.empty()) {
        const std::size_t length = std::min(path.find(u'\\'), path.size());
        const std::u16string_view name = path.substr(0, length);
        path.remove_prefix(std::min(length + 1, path.size()));
        if (name.empty()) {
            continue;
        }
        auto& keys = key->content_->keys;
        auto found = keys.find(name);
        if (found == keys.end()) {
            found = keys.emplace(name, std::make_shared<RegistryKey>()).first;
        }
        key = found->second;
    }
    return key;
}

std::shared_ptr<RegistryKey> RegistryKey::child(std::u16string_view name) const {
    KernelLockIfFree guard;
    auto found = content_->keys.find(name);
    return found != content_->keys.end() ? found->second : nullptr;
}

std::optional<RegistryValue> RegistryKey::value(std::u16string_view name) const {
    KernelLockIfFree guard;
    auto found = content_->values.find(name);
    return found != content_->values.end() ? std::optional(found->second) : std::nullopt;
}

void RegistryKey::assign(std::u16string_view name, RegistryValue value) {
    KernelLockIfFree guard;
    content_->values.insert_or_assign(std::u16string(name), std::move(value));
}

std::u16string servicePath(std::u16string_view service) {
    return std::u16string(kMachine) + std::u16string(kServices) + u"\\" + std::u16string(service);
}

std::shared_ptr<RegistryKey> serviceKey(std::u16string_view service) {
    return RegistryKey::create(root->key, std::u16string(kServices) + u"\\" + std::u16string(service));
}

std::shared_ptr<RegistryKey> parametersKey(std::u16string_view service) {
    return RegistryKey::create(serviceKey(service), kParameters);
}

std::shared_ptr<RegistryKey> existingParametersKey(std::u16string_view service) {
    return serviceKey(service)->child(kParameters);
}

} // namespace kernel
