// The driver's settings, as a user sees and sets them.
#pragma once

#include "platform/machine.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace rig {

// A row of the driver's list.
struct SettingInfo {
    std::string_view name;
    std::optional<ULONG> defaultValue; // nothing for a binary value
    std::string_view range;
    std::string_view effect;
    std::string_view read; // when the driver reads it

    bool isBinary() const { return !defaultValue; }
};
std::span<const SettingInfo> settingList();

// Names are matched without regard to case, as the registry does. `InputError` for an unknown one.
const SettingInfo& findSetting(std::string_view name);

struct Setting {
    std::string name;
    platform::RegistryValue value;
};

// One setting from its name and its value: a number for a REG_DWORD, "@FILE" for a binary one. `InputError`
// for anything else.
Setting parseSetting(std::string_view name, std::string_view value);

// "NAME=VALUE".
Setting parseAssignment(std::string_view text);

} // namespace rig
