#include "usb/programmer.h"

#include "device/device_context.h"
#include "device/registry.h"
#include "usb/serial_master.h"

namespace {

constexpr ULONG IMAGE_CAPACITY = 512;
constexpr UCHAR EEPROM_I2C_ADDRESS = 0x54;
constexpr ULONG EEPROM_CAPACITY = 256; // what the 8-bit offset of the serial master reaches
constexpr ULONG ERASED_WORD = 0xFFFFFFFF;

struct MEMORY_IMAGE {
    ULONG Words[IMAGE_CAPACITY / sizeof(ULONG)]; // little-endian, 0xFF beyond the value's end
    ULONG Length;                                // bytes, a multiple of 4; 0: nothing to program
};

void ReadImage(PCWSTR name, MEMORY_IMAGE* image) {
    RtlFillMemory(image->Words, sizeof(image->Words), 0xFF);
    image->Length = 0;
    ULONG length = 0;
    if (NT_SUCCESS(REGISTRY_QueryBinary(name, sizeof(image->Words), image->Words, &length)) &&
        length <= sizeof(image->Words)) {
        image->Length = (length + 3) / 4 * 4;
    }
}

} // namespace

void EEPROM_ProgramFromRegistry(DEVICE_CONTEXT* context) {
    MEMORY_IMAGE image;
    ReadImage(WIDE("EepromData"), &image);
    // An image that reaches beyond the EEPROM is refused whole: a part of it is no valid configuration.
    if (image.Length > EEPROM_CAPACITY) {
        return;
    }
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    // Erased as a whole first: an interrupted programming leaves unmistakably empty words, not a mixture of
    // two images.
    for (ULONG offset = 0; offset < image.Length; offset += sizeof(ULONG)) {
        if (!NT_SUCCESS(
                I2C_WriteDword(context, EEPROM_I2C_ADDRESS, static_cast<UCHAR>(offset), &ERASED_WORD))) {
            return;
        }
    }
    for (ULONG offset = 0; offset < image.Length; offset += sizeof(ULONG)) {
        const UCHAR eepromOffset = static_cast<UCHAR>(offset);
        const ULONG& word = image.Words[offset / sizeof(ULONG)];
        ULONG written = 0;
        if (!NT_SUCCESS(I2C_WriteDword(context, EEPROM_I2C_ADDRESS, eepromOffset, &word)) ||
            !NT_SUCCESS(I2C_ReadDword(context, EEPROM_I2C_ADDRESS, eepromOffset, &written)) ||
            written != word) {
            return;
        }
    }
}

// The flash erases itself when the first word arrives.
void SPI_ProgramFromRegistry(DEVICE_CONTEXT* context) {
    MEMORY_IMAGE image;
    ReadImage(WIDE("SpiData"), &image);
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    for (ULONG address = 0; address < image.Length; address += sizeof(ULONG)) {
        const ULONG& word = image.Words[address / sizeof(ULONG)];
        ULONG written = 0;
        if (!NT_SUCCESS(SPI_WriteDword(context, address, &word, address == 0 ? 1 : 0)) ||
            !NT_SUCCESS(SPI_ReadDword(context, address, &written)) || written != word) {
            return;
        }
    }
}
