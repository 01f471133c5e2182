// What the sink at the end of the HDMI cable is told, for people and for machines.
#pragma once

#include "model/adapter.h"
#include "tool/report.h"

#include <string>

namespace tool {

std::string describeTransmitter(const model::TransmitterReport& report);
Json transmitterJson(const model::TransmitterReport& report);

} // namespace tool
