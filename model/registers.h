// Every register of the adapter and of the transmitter, and what its bits do in this model.
//
// The wire fixes offsets, values and orders; the effects of a write are defined here, so that each sequence
// that a driver may perform ends in a picture and every other one in a violation.
#pragma once

#include <cstdint>

namespace model {

// The adapter's registers: 32 bits each, one vendor control transfer per access. A register that has no rule
// below stores what is written.
namespace reg {

// Output control.
constexpr std::uint16_t kOutput = 0x0070;
constexpr std::uint32_t kOutputTimingHold = 1u << 13; // 1 holds the timing generator; set at power-on
constexpr std::uint32_t kOutputDriverA = 1u << 19;    // the output drives the connector only when
constexpr std::uint32_t kOutputDriverB = 1u << 20;    // both are set
// A write with the hold bit clear ends the configuration that a flush (kScanControl) began.

// Output standby (revision 2 only). Powering the output stage up (kSerialControl bit 30 rising) clears the
// bit: a host that put the output to standby before a sleep finds it awake after power-up.
constexpr std::uint16_t kStandby = 0x0078;
constexpr std::uint32_t kStandbyOutput = 1u << 17; // 1: no signal on the connector

// Status. The event bits are cleared by reading on revisions 2 and 3. On revisions 0 and 1 a write of any
// value clears those event bits that the last read has shown, so an event between the two is not lost.
constexpr std::uint16_t kStatus = 0x8000;
constexpr std::uint32_t kStatusMonitor = 1u << 0;       // level: a monitor is attached
constexpr std::uint32_t kStatusFrameError = 1u << 1;    // event: a frame was lost or came too late
constexpr std::uint32_t kStatusEdid = 1u << 28;         // level: the monitor answers on DDC
constexpr std::uint32_t kStatusEdidMaster = 1u << 29;   // level: ... on the adapter's own serial master
constexpr std::uint32_t kStatusMonitorLost = 1u << 30;  // event: the monitor was detached
constexpr std::uint32_t kStatusMonitorFound = 1u << 31; // event: a monitor was attached
constexpr std::uint32_t kStatusEvents = kStatusFrameError | kStatusMonitorLost | kStatusMonitorFound;

// Video format of the frame stream. With no layout bit the pixels are `BGR24`. A compressed 16-bit stream
// always carries `RGB555`, whatever the layout bits say: its literals have only 15 bits of color. The run
// expander of revision 2 has no 1-byte units; a compressed 8-bit format takes 3-byte units there.
constexpr std::uint16_t kFormat = 0x8004;
constexpr std::uint32_t kFormatEnable = 1u << 0;        // the frame input is on
constexpr std::uint32_t kFormatVsyncPolarity = 1u << 2; // stored; a monitor takes both
constexpr std::uint32_t kFormatHsyncPolarity = 1u << 3;
constexpr std::uint32_t kFormatRgb565 = 1u << 6;
constexpr std::uint32_t kFormatColor = 1u << 7; // stored
constexpr std::uint32_t kFormatCompressed = 1u << 24;
constexpr std::uint32_t kFormatRgb8 = 1u << 25;
constexpr std::uint32_t kFormatRgb555 = 1u << 31;

// Timing images. "Start" is the first active pixel or line counted from the start of sync, plus one.
constexpr std::uint16_t kHorizontalSize = 0x8008; // width << 16 | total
constexpr std::uint16_t kHorizontalSync = 0x800C; // sync << 16 | start
constexpr std::uint16_t kVerticalSize = 0x8010;   // height << 16 | total
constexpr std::uint16_t kVerticalSync = 0x8014;   // start << 20 | sync << 16 | start
constexpr std::uint16_t kOrigin = 0x801C;         // bits 16..29: origin of the picture in frame memory
constexpr std::uint32_t kOriginMask = 0x3FFF0000; // must be 0 for a picture; not 0 at power-on

// The serial master. Writing kSerialControl with bit 31 clear starts a transaction; with bit 31 set it only
// changes the power bits. Bit 31 reads 0 from the start until the transaction has succeeded. A device that
// does not acknowledge, or a bus that hangs until the master's time-out, leaves it 0: the master is free
// again, but the command has not completed. A rewrite of the command under way changes the power bits only.
constexpr std::uint16_t kSerialControl = 0x8020;
constexpr std::uint16_t kSerialReadData = 0x8024;  // the word of the last completed read
constexpr std::uint16_t kSerialWriteData = 0x8028; // the word the next write sends
constexpr std::uint32_t kSerialRead = 1u << 7;
constexpr std::uint32_t kSerialFlash = 1u << 16;      // SPI flash, else I2C
constexpr std::uint32_t kSerialFirstWrite = 1u << 17; // SPI: erase the sector before this write
constexpr std::uint32_t kSerialCommandMask = 0x0003FFFF;
constexpr std::uint32_t kPowerStage2 = 1u << 28; // output and serial master, revision 2
constexpr std::uint32_t kPowerStage1 = 1u << 30; // output, revisions 1 and 2
constexpr std::uint32_t kSerialDone = 1u << 31;

// Pixel clock: 10 MHz x bits 16..23 / bits 0..7, halved when bit 9 is set. On revisions 1 and 2 the word is
// lost, and reads 0, while the PLL is stopped (kControlPll); it must be written to a running PLL.
constexpr std::uint16_t kPll = 0x802C;
constexpr std::uint32_t kPllHalve = 1u << 9;
constexpr double kPllReference = 10e6;

// Stream control.
constexpr std::uint16_t kControl = 0x803C;
constexpr std::uint32_t kControlLegacyA = 1u << 2; // stored; revision 1 sets them
constexpr std::uint32_t kControlLegacyB = 1u << 4;
constexpr std::uint32_t kControlFrameErrorBucket = 1u << 21; // stored: the host weighs frame errors itself
constexpr std::uint32_t kControlBandwidth = 1u << 24;        // frame errors when the stream is too slow
constexpr std::uint32_t kControlTransmitterHold = 1u << 25;  // no signal while the transmitter is programmed
constexpr std::uint32_t kControlPll = 1u << 26;              // revisions 1 and 2: the PLL runs; 0: no effect
constexpr std::uint32_t kControlZeroLength = 1u << 28;       // each frame is closed by a zero-length transfer
constexpr std::uint32_t kControlNoZeroLength = 1u << 29;     // none is

constexpr std::uint16_t kAnalog = 0x8040; // stored

// Bit 15 is a strobe and reads 0: it flushes the frame input and stops scan-out. The input accepts no data
// until kOutput is written with its hold bit clear; scan-out starts with the first complete frame after that.
constexpr std::uint16_t kScanControl = 0x8048;
constexpr std::uint32_t kScanFlush = 1u << 15;

constexpr std::uint16_t kPowerDown = 0x8064; // stored; bit 17 set at power-on
constexpr std::uint16_t kSpare = 0x8088;     // stored; bit 10 set at power-on

} // namespace reg

// I2C addresses on the serial master's bus.
namespace i2c {
constexpr std::uint8_t kSegmentPointer = 0x30;
constexpr std::uint8_t kTransmitter = 0x4C;
constexpr std::uint8_t kEdid = 0x50;
constexpr std::uint8_t kEeprom = 0x54;
} // namespace i2c

// Interrupt reports: one byte each.
constexpr std::uint8_t kReportIdle = 0x00;
constexpr std::uint8_t kReportStatusChanged = 0x01;

// The transmitter's registers: 8 bits each, moved in aligned groups of four. Offsets below 0x30 are the same
// in both banks. Functions marked (always on) work while the transmitter is powered down.
namespace tx {

constexpr std::uint8_t kIdentity = 0x00; // 0x00..0x03 (always on): 0x4954, 0x612 and a revision digit
constexpr std::uint32_t kIdentityWord = 0x16124954;

constexpr std::uint8_t kReset = 0x04; // (always on)
constexpr std::uint8_t kResetAudioFifo = 1u << 4;
constexpr std::uint8_t kResetVideo = 1u << 3;
constexpr std::uint8_t kResetAudio = 1u << 2;
// Clears every function's registers, keeps the power registers, and clears itself; the transmitter does not
// answer for `kResetTime` afterwards.
constexpr std::uint8_t kResetAll = 1u << 5;

constexpr std::uint8_t kPowerReference = 0x05;      // (always on) bit 0: 1 stops the reference clock
constexpr std::uint8_t kInterrupt = 0x06;           // (always on) read only
constexpr std::uint8_t kInterruptDdcHang = 1u << 2; // the DDC bus is held by an unfinished transaction
constexpr std::uint8_t kAudioInput = 0x09;

constexpr std::uint8_t kBank = 0x0F; // (always on)
constexpr std::uint8_t kBankSelect = 1u << 0;
constexpr std::uint8_t kBankClockGates = 0x60; // either set: the function clocks are stopped

// DDC master (always on). A command takes its parameters from 0x10..0x14. A read fills the FIFO with the
// bytes from offset + 3 to offset + count - 1: the first three leave the shift register before the FIFO
// opens.
constexpr std::uint8_t kDdcControl = 0x10; // bit 0: the host owns the master
constexpr std::uint8_t kDdcAddress = 0x11;
constexpr std::uint8_t kDdcOffset = 0x12;
constexpr std::uint8_t kDdcCount = 0x13;
constexpr std::uint8_t kDdcSegment = 0x14;
constexpr std::uint8_t kDdcCommand = 0x15; // write only, reads 0
constexpr std::uint8_t kDdcCommandRead = 0x03;
constexpr std::uint8_t kDdcCommandClearFifo = 0x09;
constexpr std::uint8_t kDdcCommandAbort = 0x0F;
constexpr std::uint8_t kDdcStatus = 0x16; // read only
constexpr std::uint8_t kDdcStatusDone = 1u << 7;
constexpr std::uint8_t kDdcStatusNoAcknowledge = 1u << 5;
constexpr std::uint8_t kDdcStatusBusy = 1u << 2;
constexpr std::uint8_t kDdcFifo = 0x17; // every read takes one byte out, 0 when empty
constexpr unsigned kDdcShift = 3;
constexpr unsigned kDdcFifoDepth = 32;

constexpr std::uint8_t kDdcArbiter = 0x20; // (always on) stored

// Bank 0.
constexpr std::uint8_t kAudioClock = 0x58;
constexpr std::uint8_t kSpdifControl = 0x5C; // bit 6: start the S/PDIF receiver
constexpr std::uint8_t kSpdifStart = 1u << 6;
constexpr std::uint8_t kSpdifStatus = 0x5F; // read only
constexpr std::uint8_t kSpdifLocked = 1u << 5;
constexpr std::uint8_t kDriver = 0x61; // (always on, as all of 0x60..0x6B)
constexpr std::uint8_t kDriverReset = 1u << 4;
constexpr std::uint8_t kDriverPowerDown = 1u << 5;
constexpr std::uint8_t kClockPll = 0x62;
constexpr std::uint8_t kClockPllRun = 1u << 3;
constexpr std::uint8_t kClockPllPowerDown = 0x44;
constexpr std::uint8_t kClockPllHigh = 1u << 7; // band: one of the two
constexpr std::uint8_t kClockPllLow = 1u << 4;
constexpr std::uint8_t kDataPll = 0x64;
constexpr std::uint8_t kDataPllRun = 1u << 2;
constexpr std::uint8_t kDataPllPowerDown = 1u << 6;
constexpr std::uint8_t kDataPllBandMask = 0x89;
constexpr std::uint8_t kDataPllHigh = 0x80;
constexpr std::uint8_t kDataPllLow = 0x09;
constexpr std::uint8_t kRange = 0x68;
constexpr std::uint8_t kRangeLow = 1u << 4;
constexpr double kHighBandFrom = 80e6;    // Hz; a clock within 1 % of it may use either band
constexpr std::uint8_t kInputMode = 0x70; // bit 0: the video input is taken
constexpr std::uint8_t kColorSpace = 0x72;
constexpr std::uint8_t kSwap = 0xBF; // (always on, as all of 0xBC..0xBF) bit 2: bits of the input are swapped
constexpr std::uint8_t kHdmiMode = 0xC0;        // bit 0: 1 HDMI, 0 DVI
constexpr std::uint8_t kAvMute = 0xC1;          // bit 0
constexpr std::uint8_t kAudioRegenerate = 0xC5; // bit 1 is protected
constexpr std::uint8_t kAudioRegenerateProtected = 1u << 1;
constexpr std::uint8_t kGeneralPacket = 0xC6; // packet control: bit 0 send, bit 1 repeat
constexpr std::uint8_t kAviPacket = 0xCD;
constexpr std::uint8_t kAudioPacket = 0xCE;
constexpr std::uint8_t kPacketSendRepeat = 0x03;
constexpr std::uint8_t kAudioControl = 0xE0; // bits 0..3: I2S lines, bit 4: S/PDIF, bits 6..7: width
constexpr std::uint8_t kAudioSpdif = 1u << 4;
constexpr std::uint8_t kLock = 0xF8; // 0xC3, then 0xA5 open the protected bits; any other value closes them

// Bank 1.
constexpr std::uint8_t kAudioN = 0x33;      // 0x30..0x35: clock regeneration
constexpr std::uint8_t kAviData = 0x58;     // data bytes 1..5; then
constexpr std::uint8_t kAviChecksum = 0x5D; // the checksum; then
constexpr std::uint8_t kAviDataRest = 0x5E; // data bytes 6..13
constexpr std::uint8_t kAudioData = 0x68;   // data bytes 1..5; the other five are always 0
constexpr std::uint8_t kAudioChecksum = 0x6D;
constexpr std::uint8_t kChannelStatus = 0x90; // 0x90..0x94
constexpr std::uint8_t kSamplingCode = 0x98;  // low four bits: IEC 60958-3 sampling frequency

} // namespace tx

} // namespace model
