// Access to the transmitter's registers in the forms its procedures are written in. The caller holds
// SerialMasterMutex. Each returns FALSE when a transfer failed. PASSIVE_LEVEL.
#pragma once

#include <ntddk.h>

struct DEVICE_CONTEXT;

// A masked register write; mask 0xFF writes the value without reading.
struct HDMI_WRITE {
    UCHAR Register;
    UCHAR Mask;
    UCHAR Value;
};

constexpr UCHAR HDMI_WHOLE_BYTE = 0xFF;

[[nodiscard]] BOOLEAN HDMI_Write(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR value);
[[nodiscard]] BOOLEAN HDMI_WriteMasked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask,
                                       UCHAR value);

// Four registers in one transfer. `offset` is a multiple of 4.
[[nodiscard]] BOOLEAN HDMI_WriteGroup(DEVICE_CONTEXT* context, UCHAR offset, UCHAR byte0, UCHAR byte1,
                                      UCHAR byte2, UCHAR byte3);

// Stops at the first write that fails.
[[nodiscard]] BOOLEAN HDMI_WriteAll(DEVICE_CONTEXT* context, const HDMI_WRITE* writes, ULONG count);

template <ULONG Count>
[[nodiscard]] inline BOOLEAN HDMI_WriteAll(DEVICE_CONTEXT* context, const HDMI_WRITE (&writes)[Count]) {
    return HDMI_WriteAll(context, writes, Count);
}

// A transmitter left in bank 1 would misread everything after: a failure to select a bank shows in the
// accesses that follow, and bank 0 is selected again whatever happened in between.
class HDMI_BANK1_SCOPE {
  public:
    explicit HDMI_BANK1_SCOPE(DEVICE_CONTEXT* context);
    ~HDMI_BANK1_SCOPE();
    HDMI_BANK1_SCOPE(const HDMI_BANK1_SCOPE&) = delete;
    HDMI_BANK1_SCOPE& operator=(const HDMI_BANK1_SCOPE&) = delete;

  private:
    DEVICE_CONTEXT* Context;
};
