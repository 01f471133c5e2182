// The revisions of the adapter's chip: how one is recognized, and everything in which they differ.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>
#include <usb.h>
#include <usbdlib.h>

struct DEVICE_CONTEXT;

// What is done to the chip at D0 entry, besides the search for a transmitter.
enum CHIP_BRING_UP : ULONG {
    CHIP_BRING_UP_NONE,
    CHIP_BRING_UP_REVISION1,
    CHIP_BRING_UP_REVISION2,
};

struct CHIP_TRAITS {
    BOOLEAN IsSupported = FALSE;   // its configuration is known
    BOOLEAN HasStatusPipe = FALSE; // without one, the status is read at D0 entry only
    // The status register reports what changed. Otherwise it has the present state only, and the driver
    // acknowledges a report by writing the status back.
    BOOLEAN ReportsEvents = FALSE;
    BOOLEAN HasPowerSwitches = FALSE;     // REGISTER_STANDBY and REGISTER_POWER
    BOOLEAN SerialMasterOnStage2 = FALSE; // its serial master needs power stage 2
    BOOLEAN KeepsOutputDrivers = FALSE;   // the output's drivers stay on after the final power-down
    BOOLEAN ExactRunUnits = FALSE;        // its run expander knows 3-byte units only, besides 2-byte ones
    BOOLEAN NeedsLeadIn = FALSE;          // short run streams begin with literals
    CHIP_BRING_UP BringUp = CHIP_BRING_UP_NONE;
};

// 0 to 3, from the identity that the adapter reports.
ULONG USB_RevisionOf(const USB_DEVICE_DESCRIPTOR* descriptor);

// The traits of the adapter's revision; before the revision is known, those of revision 0.
const CHIP_TRAITS& CHIP_Traits(const DEVICE_CONTEXT* context);

// Sets ChipRevision from the device descriptor, under DisplayStateMutex.
_IRQL_requires_(PASSIVE_LEVEL)
void USB_ClassifyChip(DEVICE_CONTEXT* context);

// Bits 20 and 19 of REGISTER_OUTPUT, in this order: the output's drivers.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_UpdateRegister70Bits(DEVICE_CONTEXT* context, BOOLEAN clear);

// Bit 17 of REGISTER_POWER; nothing on revisions without power switches.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_UpdateRegister8064Bit17(DEVICE_CONTEXT* context, BOOLEAN clear);

// The standby bit of REGISTER_STANDBY; nothing on revisions without power switches.
_IRQL_requires_(PASSIVE_LEVEL)
void CHIP_SetStandby(DEVICE_CONTEXT* context, BOOLEAN standby);
