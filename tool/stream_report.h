// The figures of a stream, for people and for machines.
#pragma once

#include "rig/stream_meter.h"
#include "tool/report.h"

namespace tool {

void reportStream(Report& report, const rig::StreamFigures& figures, bool realTime);

} // namespace tool
