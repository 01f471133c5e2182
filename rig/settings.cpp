#include "rig/settings.h"

#include "support/file.h"
#include "support/input_error.h"
#include "support/parse.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace rig {

namespace {

using support::InputError;

constexpr std::array<SettingName, 22> kNames = {{
    {"FullHD50Enable", false},
    {"FullHD30Enable", false},
    {"FullHD24Enable", false},
    {"UseUsb3OutputRGB565Enable", false},
    {"FilterEdidTableEnable", false},
    {"CurrentNumberOfDevices", false},
    {"Usb2PixelFormatTransformCompressionEnable", false},
    {"Usb3PixelFormatTransformCompressionEnable", false},
    {"UseBandwidthDetectionEnable", false},
    {"UseDynamicPixelBytesAdjustmentEnable", false},
    {"DynamicAdjustPixelBytesAtRunTimeThreshold", false},
    {"UseEepromProgrammerEnable", false},
    {"UseSpiProgrammerEnable", false},
    {"SlowFrameUpdateDelayTimeInMs", false},
    {"UseFrameErrorBucket", false},
    {"FrameErrorBucketIncrementValue", false},
    {"FrameErrorBucketThreshold", false},
    {"UseForceNonPnpMonitor", false},
    {"UseHdmiAudioSpdif", false},
    {"HdmiSwapLsbMsb", false},
    {"EepromData", true},
    {"SpiData", true},
}};

// More than the driver takes, so that a value too long for it can be tried.
constexpr std::size_t kMaxBinaryBytes = 64 * 1024;

bool sameName(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

std::string allowedNames() {
    std::string list;
    for (const SettingName& entry : kNames) {
        list += fmt::format("{}{}", list.empty() ? "" : ", ", entry.name);
    }
    return list;
}

} // namespace

std::span<const SettingName> settingNames() {
    return kNames;
}

Setting parseSetting(std::string_view name, std::string_view value) {
    const auto known =
        std::ranges::find_if(kNames, [name](const SettingName& entry) { return sameName(entry.name, name); });
    if (known == kNames.end()) {
        throw InputError(fmt::format("setting \"{}\" is unknown; allowed are {}", name, allowedNames()));
    }
    if (known->binary) {
        if (!value.starts_with('@') || value.size() == 1) {
            throw InputError(
                fmt::format("{} is \"{}\"; it is a binary value, allowed is @FILE", known->name, value));
        }
        return {std::string(known->name), support::readFile(std::string(value.substr(1)), kMaxBinaryBytes)};
    }
    return {std::string(known->name),
            static_cast<ULONG>(support::parseNumber(value, known->name, 0, 0xFFFFFFFF))};
}

Setting parseAssignment(std::string_view text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
        throw InputError(fmt::format("setting \"{}\" has no value; allowed is NAME=VALUE", text));
    }
    return parseSetting(text.substr(0, equals), text.substr(equals + 1));
}

} // namespace rig
