// Registers of the HDMI transmitter: 8 bits each, moved over I2C in aligned groups of four. Offsets from 0x30
// on exist in two banks; those of bank 1 have BANK1 in their names.
#pragma once

#include <ntddk.h>

constexpr UCHAR HDMI_IDENTIFICATION = 0x00; // four bytes
constexpr UCHAR HDMI_RESET = 0x04;
constexpr UCHAR HDMI_RESET_ALL_BIT = 5;
constexpr UCHAR HDMI_REFERENCE_CLOCK = 0x05;
constexpr UCHAR HDMI_INTERRUPTS = 0x06;
constexpr UCHAR HDMI_INTERRUPT_DDC_BUSY = 0x04;
constexpr UCHAR HDMI_AUDIO_INPUT = 0x09;

constexpr UCHAR HDMI_BANK = 0x0F; // bit 0: the bank; bits 3 to 6: clock gates
constexpr UCHAR HDMI_BANK_0 = 0x00;
constexpr UCHAR HDMI_BANK_1 = 0x01;

// The DDC master.
constexpr UCHAR HDMI_DDC_CONTROL = 0x10;
constexpr UCHAR HDMI_DDC_OWNED_BIT = 0; // by the host
constexpr UCHAR HDMI_DDC_SEGMENT = 0x14;
constexpr UCHAR HDMI_DDC_COMMAND = 0x15;
constexpr UCHAR HDMI_DDC_COMMAND_READ = 0x03;
constexpr UCHAR HDMI_DDC_COMMAND_CLEAR_FIFO = 0x09;
constexpr UCHAR HDMI_DDC_COMMAND_ABORT = 0x0F;
constexpr UCHAR HDMI_DDC_STATUS = 0x16;
constexpr UCHAR HDMI_DDC_STATUS_ENDED = 0xB8; // done, or one of three failures
constexpr UCHAR HDMI_DDC_FIFO = 0x17;
constexpr UCHAR HDMI_DDC_LINK = 0x20;

// Audio receiver.
constexpr UCHAR HDMI_AUDIO_CLOCK = 0x58;
constexpr UCHAR HDMI_SPDIF_CONTROL = 0x5C;
constexpr UCHAR HDMI_SPDIF_START_BIT = 6;
constexpr UCHAR HDMI_SPDIF_STATUS = 0x5F;
constexpr UCHAR HDMI_SPDIF_LOCKED = 0x20;

// Output driver and its PLLs.
constexpr UCHAR HDMI_DRIVER = 0x61;
constexpr UCHAR HDMI_CLOCK_PLL = 0x62;
constexpr UCHAR HDMI_DRIVER_STRENGTH = 0x63;
constexpr UCHAR HDMI_DATA_PLL = 0x64;
constexpr UCHAR HDMI_DRIVER_TUNING = 0x66;
constexpr UCHAR HDMI_PLL_RANGE = 0x68;
constexpr UCHAR HDMI_DRIVER_BIAS = 0x6A;

constexpr UCHAR HDMI_VIDEO_INPUT = 0x70;
constexpr UCHAR HDMI_COLOR_SPACE = 0x72;

constexpr UCHAR HDMI_VIDEO_INPUT_SWAP = 0xBF; // order of the video input's bits

// Packets: writing 0x03 sends one with every frame.
constexpr UCHAR HDMI_SINK_IS_HDMI = 0xC0; // 0: DVI
constexpr UCHAR HDMI_AV_MUTE = 0xC1;
constexpr UCHAR HDMI_AUDIO_REGENERATION = 0xC5;
constexpr UCHAR HDMI_GENERAL_CONTROL_PACKET = 0xC6;
constexpr UCHAR HDMI_AVI_PACKET = 0xCD;
constexpr UCHAR HDMI_AUDIO_PACKET = 0xCE;
constexpr UCHAR HDMI_PACKET_REPEAT = 0x03;

constexpr UCHAR HDMI_AUDIO_FORMAT = 0xE0; // two groups
constexpr UCHAR HDMI_AUDIO_STATUS = 0xE5;
constexpr UCHAR HDMI_PROTECTION = 0xF8; // 0xC3, then 0xA5 opens protected bits, anything else closes them

// Bank 1.
constexpr UCHAR HDMI_BANK1_AUDIO_CTS = 0x30; // three bytes
constexpr UCHAR HDMI_BANK1_AUDIO_N = 0x33;   // three bytes
constexpr UCHAR HDMI_BANK1_AVI_INFOFRAME = 0x58;
constexpr UCHAR HDMI_BANK1_AUDIO_INFOFRAME = 0x68;
constexpr UCHAR HDMI_BANK1_AUDIO_INFOFRAME_CHECKSUM = 0x6D;
constexpr UCHAR HDMI_BANK1_CHANNEL_STATUS = 0x90;
constexpr UCHAR HDMI_BANK1_SAMPLING = 0x98;
