// What the transmitter sends to the HDMI sink, for people and for machines.
#pragma once

#include "model/adapter.h"
#include "tool/report.h"

#include <string>

namespace tool {

std::string describeTransmitter(const model::TransmitterReport& report);
Json transmitterJson(const model::TransmitterReport& report);

} // namespace tool
