#include "usb/chip.h"

#include "device/device_context.h"
#include "usb/registers.h"

namespace {

constexpr ULONG REVISION_COUNT = 4;

// By revision; a trait that is not named is FALSE.
constexpr CHIP_TRAITS TRAITS[REVISION_COUNT] = {
    {.IsSupported = TRUE, .HasStatusPipe = TRUE},
    {.IsSupported = TRUE,
     .KeepsOutputDrivers = TRUE,
     .NeedsLeadIn = TRUE,
     .BringUp = CHIP_BRING_UP_REVISION1},
    {.IsSupported = TRUE,
     .HasStatusPipe = TRUE,
     .ReportsEvents = TRUE,
     .HasPowerSwitches = TRUE,
     .SerialMasterOnStage2 = TRUE,
     .ExactRunUnits = TRUE,
     .BringUp = CHIP_BRING_UP_REVISION2},
    {.IsSupported = FALSE},
};

} // namespace

ULONG USB_RevisionOf(const USB_DEVICE_DESCRIPTOR* descriptor) {
    const USHORT vendor = descriptor->idVendor;
    const USHORT product = descriptor->idProduct;
    const USHORT release = descriptor->bcdDevice;
    if (vendor == ADAPTER_VENDOR_ID && product == ADAPTER_PRODUCT_ID && release == 0x0100) {
        return 1;
    }
    if (vendor == ADAPTER_VENDOR_ID && release == 0x0200) {
        return product == ADAPTER_PRODUCT_ID || product == ADAPTER_ALT_PRODUCT_ID ? 2 : 0;
    }
    if (vendor == PARTNER_VENDOR_ID && product == PARTNER_PRODUCT_ID && release == 0x0200) {
        return 2;
    }
    if (vendor == ADAPTER_VENDOR_ID && product == ADAPTER_PRODUCT_ID && release == 0x0300) {
        return 3;
    }
    return 0;
}

const CHIP_TRAITS& CHIP_Traits(const DEVICE_CONTEXT* context) {
    return TRAITS[context->Usb.ChipRevision % REVISION_COUNT];
}

void USB_ClassifyChip(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    context->Usb.ChipRevision = USB_RevisionOf(&context->Usb.DeviceDescriptor);
}

void CHIP_UpdateRegister70Bits(DEVICE_CONTEXT* context, BOOLEAN clear) {
    const auto update = clear ? REG_ClearBit : REG_SetBit;
    update(context, REGISTER_OUTPUT, OUTPUT_MONITOR_B_BIT);
    update(context, REGISTER_OUTPUT, OUTPUT_MONITOR_A_BIT);
}

void CHIP_UpdateRegister8064Bit17(DEVICE_CONTEXT* context, BOOLEAN clear) {
    if (!CHIP_Traits(context).HasPowerSwitches) {
        return;
    }
    const auto update = clear ? REG_ClearBit : REG_SetBit;
    update(context, REGISTER_POWER, POWER_BIT);
}

void CHIP_SetStandby(DEVICE_CONTEXT* context, BOOLEAN standby) {
    if (!CHIP_Traits(context).HasPowerSwitches) {
        return;
    }
    const auto update = standby ? REG_SetBit : REG_ClearBit;
    update(context, REGISTER_STANDBY, STANDBY_BIT);
}
