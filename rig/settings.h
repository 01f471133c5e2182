// The driver's registry values, as a user sets them.
#pragma once

#include "platform/machine.h"

#include <span>
#include <string>
#include <string_view>

namespace rig {

struct Setting {
    std::string name;
    platform::RegistryValue value;
};

struct SettingName {
    std::string_view name;
    bool binary;
};
std::span<const SettingName> settingNames();

// One setting from its name and its value: a number for a REG_DWORD, "@FILE" for a binary one. Names are
// matched without regard to case, as the registry does. `InputError` for anything else.
Setting parseSetting(std::string_view name, std::string_view value);

// "NAME=VALUE".
Setting parseAssignment(std::string_view text);

} // namespace rig
