// Registers of the adapter: 32 bits wide, 16-bit offsets. Names end in _BIT for bit numbers and in _MASK for
// masks. A bit whose effect is not known is named after the situation in which it is written.
#pragma once

#include <ntddk.h>

constexpr ULONG REGISTER_OUTPUT = 0x0070;
constexpr ULONG OUTPUT_TIMING_BIT = 13;
constexpr ULONG OUTPUT_MONITOR_A_BIT = 19; // both are set while a monitor is attached
constexpr ULONG OUTPUT_MONITOR_B_BIT = 20;

constexpr ULONG REGISTER_STANDBY = 0x0078; // revision 2 only
constexpr ULONG STANDBY_BIT = 17;

constexpr ULONG REGISTER_STATUS = 0x8000;
constexpr ULONG STATUS_MONITOR_ATTACHED_MASK = 1u << 0;
constexpr ULONG STATUS_FRAME_ERROR_BIT = 1;
constexpr ULONG STATUS_FRAME_ERROR_MASK = 1u << STATUS_FRAME_ERROR_BIT;
constexpr ULONG STATUS_EDID_READABLE_MASK = 1u << 28;
constexpr ULONG STATUS_EDID_VIA_ADAPTER_MASK = 3u << 28; // both: through the adapter's own serial master
constexpr ULONG STATUS_MONITOR_EVENT_MASK = 3u << 30;

constexpr ULONG REGISTER_VIDEO_FORMAT = 0x8004;
constexpr ULONG REGISTER_HORIZONTAL_SIZE = 0x8008;
constexpr ULONG REGISTER_HORIZONTAL_SYNC = 0x800C;
constexpr ULONG REGISTER_VERTICAL_SIZE = 0x8010;
constexpr ULONG REGISTER_VERTICAL_SYNC = 0x8014;
constexpr ULONG REGISTER_ORIGIN = 0x801C;

// The serial master's command, with the power stages in the bits that commands leave alone.
constexpr ULONG REGISTER_SERIAL_CONTROL = 0x8020;
constexpr ULONG SERIAL_CONTROL_STAGE2_BIT = 28;
constexpr ULONG SERIAL_CONTROL_STAGE1_BIT = 30;
constexpr ULONG SERIAL_CONTROL_DONE_MASK = 1u << 31;
constexpr ULONG REGISTER_SERIAL_READ_DATA = 0x8024;
constexpr ULONG REGISTER_SERIAL_WRITE_DATA = 0x8028;

constexpr ULONG REGISTER_PLL = 0x802C;

constexpr ULONG REGISTER_STREAM_CONTROL = 0x803C;
constexpr ULONG STREAM_CONTROL_REVISION1_MASK = 0x14; // bits 2 and 4
constexpr ULONG STREAM_CONTROL_BANDWIDTH_BIT = 24;
constexpr ULONG STREAM_CONTROL_HDMI_BIT = 25; // set while the transmitter is programmed
constexpr ULONG STREAM_CONTROL_PLL_BIT = 26;

constexpr ULONG REGISTER_REVISION1_SETUP = 0x8040;
constexpr ULONG REVISION1_SETUP_MASK = 0xF0000000;

constexpr ULONG REGISTER_SCAN_CONTROL = 0x8048;
constexpr ULONG SCAN_CONTROL_OUTPUT_OFF_BIT = 15;

constexpr ULONG REGISTER_POWER = 0x8064; // revision 2 only
constexpr ULONG POWER_BIT = 17;

constexpr ULONG REGISTER_REVISION2_SETUP = 0x8088;
constexpr ULONG REVISION2_SETUP_BIT = 10;
