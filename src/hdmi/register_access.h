// Access to the transmitter's registers: single bytes, masked writes, groups of four and tables of writes.
// Each access blocks for one or two transactions of the serial master. The BOOLEAN functions return FALSE
// when a transfer failed. Every failure also sets HdmiTransferFailed, which shows those that a sequence
// ignores.
#pragma once

#include "device/device_context.h"

#include <ntddk.h>

constexpr UCHAR HDMI_I2C_ADDRESS = 0x4C;

// `*result` is stored on success only. The bus moves aligned groups of four: a byte is written by reading its
// group and writing it back.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS HDMI_ReadRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister,
                                         _Out_ UCHAR* result) TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
UCHAR HDMI_ReadRegisterChecked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, _Out_ ULONG* succeeded)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS HDMI_WriteRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister,
                                          const UCHAR* value) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// Takes the bits inside `mask` from `value` and keeps the others; with mask 0xFF it does not read first.
_IRQL_requires_(PASSIVE_LEVEL)
void HDMI_ModifyRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask, UCHAR value,
                         _Out_ ULONG* succeeded) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// A masked register write; mask 0xFF writes the value without reading.
struct HDMI_WRITE {
    UCHAR Register;
    UCHAR Mask;
    UCHAR Value;
};

constexpr UCHAR HDMI_WHOLE_BYTE = 0xFF;

_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_Write(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR value)
    TSA_REQUIRES(context->Usb.SerialMasterMutex);
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_WriteMasked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask,
                                       UCHAR value) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// Four registers in one transfer. `offset` is a multiple of 4.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_WriteGroup(DEVICE_CONTEXT* context, UCHAR offset, UCHAR byte0, UCHAR byte1,
                                      UCHAR byte2, UCHAR byte3) TSA_REQUIRES(context->Usb.SerialMasterMutex);

// Stops at the first write that fails.
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] BOOLEAN HDMI_WriteAll(DEVICE_CONTEXT* context, _In_reads_(count) const HDMI_WRITE* writes,
                                    ULONG count) TSA_REQUIRES(context->Usb.SerialMasterMutex);

template <ULONG Count>
_IRQL_requires_(PASSIVE_LEVEL)
_Must_inspect_result_
[[nodiscard]] inline BOOLEAN HDMI_WriteAll(DEVICE_CONTEXT* context, const HDMI_WRITE (&writes)[Count])
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    return HDMI_WriteAll(context, writes, Count);
}

// Bank 1 is selected while the object exists. In a transmitter left in bank 1 all later accesses would reach
// other registers, so bank 0 is selected again after every outcome.
class HDMI_BANK1_SCOPE {
  public:
    _IRQL_requires_(PASSIVE_LEVEL)
    explicit HDMI_BANK1_SCOPE(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex);
    _IRQL_requires_(PASSIVE_LEVEL)
    ~HDMI_BANK1_SCOPE();
    HDMI_BANK1_SCOPE(const HDMI_BANK1_SCOPE&) = delete;
    HDMI_BANK1_SCOPE& operator=(const HDMI_BANK1_SCOPE&) = delete;

  private:
    DEVICE_CONTEXT* Context;
};
