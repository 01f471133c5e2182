#include "hdmi/ddc.h"

#include "base/util.h"
#include "device/device_context.h"
#include "hdmi/register_access.h"
#include "hdmi/transmitter_registers.h"
#include "usb/serial_master.h"

namespace {

constexpr UCHAR MONITOR_EDID_ADDRESS = 0xA0; // in the eight-bit form that the transmitter takes

constexpr ULONG ABORT_POLL_MS = 50;
constexpr ULONG ABORT_POLLS = 200;
constexpr ULONG REQUEST_MS = 10;

// The transmitter delivers the bytes from three after the requested offset on. A chunk therefore takes two
// requests: one three bytes before it gives its first three bytes, one at its start the others.
constexpr UCHAR DDC_SHIFT = 3;
constexpr UCHAR CHUNK_SIZE = 32;
constexpr UCHAR HEAD_REQUEST = 2 * DDC_SHIFT;
constexpr UCHAR CHUNK_REQUEST = CHUNK_SIZE;

BOOLEAN OwnDdc(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    constexpr UCHAR owned = 1 << HDMI_DDC_OWNED_BIT;
    return HDMI_WriteMasked(context, HDMI_DDC_CONTROL, owned, owned);
}

BOOLEAN Command(DEVICE_CONTEXT* context, UCHAR command) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    return HDMI_Write(context, HDMI_DDC_COMMAND, command);
}

POLL_RESULT ProbeDdcEnded(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    UCHAR status = 0;
    if (!NT_SUCCESS(HDMI_ReadRegister(context, HDMI_DDC_STATUS, &status))) {
        return POLL_RESULT::Failed;
    }
    return status & HDMI_DDC_STATUS_ENDED ? POLL_RESULT::Done : POLL_RESULT::Again;
}

// Reads `count` - 3 bytes that begin three bytes after `offset`. Bytes that were not delivered read 0.
BOOLEAN ReadShifted(DEVICE_CONTEXT* context, UCHAR segment, UCHAR offset, UCHAR count,
                    UCHAR (&scratch)[CHUNK_SIZE]) TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    RtlZeroMemory(scratch, sizeof(scratch));
    return NT_SUCCESS(HDMI_DdcRead(context, segment, offset, count, scratch));
}

// The first three bytes of a chunk that does not begin a segment.
BOOLEAN ReadChunkHead(DEVICE_CONTEXT* context, UCHAR segment, UCHAR chunkOffset, UCHAR count, UCHAR* head)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    UCHAR scratch[CHUNK_SIZE];
    if (!ReadShifted(context, segment, static_cast<UCHAR>(chunkOffset - DDC_SHIFT), count, scratch)) {
        return FALSE;
    }
    RtlCopyMemory(head, scratch, DDC_SHIFT);
    return TRUE;
}

UCHAR SumOf(const UCHAR (&block)[EDID_BLOCK_SIZE]) {
    UCHAR sum = 0;
    for (const UCHAR byte : block) {
        sum = static_cast<UCHAR>(sum + byte);
    }
    return sum;
}

// The first three bytes of a block that begins a segment cannot be asked for at the offset three bytes
// earlier of that segment. A monitor whose address counter wraps inside the segment delivers them after
// offset 0xFD of the same segment, one whose counter runs on after offset 0xFD of the segment before; the
// block's checksum tells which of the two it was. If neither, the three bytes become 0: no extension block
// has tag 0, so the block is not taken for valid data.
BOOLEAN ReadSegmentHead(DEVICE_CONTEXT* context, UCHAR segment, UCHAR (&block)[EDID_BLOCK_SIZE])
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    const UCHAR candidates[] = {segment, static_cast<UCHAR>(segment - 1)};
    for (const UCHAR candidate : candidates) {
        if (!ReadChunkHead(context, candidate, 0, HEAD_REQUEST, block)) {
            return FALSE;
        }
        if (SumOf(block) == 0) {
            return TRUE;
        }
    }
    RtlZeroMemory(block, DDC_SHIFT);
    return TRUE;
}

} // namespace

BOOLEAN HDMI_DdcAbort(DEVICE_CONTEXT* context) {
    UCHAR reset = 0;
    UCHAR link = 0;
    if (!NT_SUCCESS(HDMI_ReadRegister(context, HDMI_RESET, &reset)) ||
        !NT_SUCCESS(HDMI_ReadRegister(context, HDMI_DDC_LINK, &link)) ||
        !HDMI_Write(context, HDMI_DDC_LINK, link & ~0x01) || !HDMI_Write(context, HDMI_RESET, reset | 0x01) ||
        !HDMI_Write(context, HDMI_DDC_CONTROL, 1 << HDMI_DDC_OWNED_BIT)) {
        return FALSE;
    }
    // The first abort ends what was under way, the second frees a monitor that still holds the data line. One
    // that never ends is reported by the read that follows.
    for (ULONG attempt = 0; attempt < 2; attempt++) {
        if (!Command(context, HDMI_DDC_COMMAND_ABORT) ||
            UTIL_Poll(ABORT_POLL_MS, ABORT_POLLS, ProbeDdcEnded, context) == POLL_RESULT::Failed) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN HDMI_DdcAbortIfBusy(DEVICE_CONTEXT* context) {
    UCHAR interrupts = 0;
    if (!NT_SUCCESS(HDMI_ReadRegister(context, HDMI_INTERRUPTS, &interrupts))) {
        return FALSE;
    }
    return interrupts & HDMI_INTERRUPT_DDC_BUSY ? HDMI_DdcAbort(context) : TRUE;
}

BOOLEAN HDMI_DdcClearFifo(DEVICE_CONTEXT* context) {
    return HDMI_Write(context, HDMI_DDC_CONTROL, 1 << HDMI_DDC_OWNED_BIT) &&
           Command(context, HDMI_DDC_COMMAND_CLEAR_FIFO);
}

NTSTATUS HDMI_DdcRead(DEVICE_CONTEXT* context, UCHAR segment, UCHAR offset, UCHAR count, UCHAR* buffer) {
    const BOOLEAN requested =
        OwnDdc(context) && Command(context, HDMI_DDC_COMMAND_ABORT) && OwnDdc(context) &&
        Command(context, HDMI_DDC_COMMAND_ABORT) && Command(context, HDMI_DDC_COMMAND_CLEAR_FIFO) &&
        HDMI_WriteGroup(context, HDMI_DDC_CONTROL, 1 << HDMI_DDC_OWNED_BIT, MONITOR_EDID_ADDRESS, offset,
                        count) &&
        HDMI_WriteGroup(context, HDMI_DDC_SEGMENT, segment, HDMI_DDC_COMMAND_READ, offset, count);
    if (!requested) {
        return STATUS_UNSUCCESSFUL;
    }
    UTIL_DelayMs(REQUEST_MS);
    for (ULONG index = 0; index + DDC_SHIFT < count; index++) {
        if (!NT_SUCCESS(HDMI_ReadRegister(context, HDMI_DDC_FIFO, &buffer[index]))) {
            return STATUS_UNSUCCESSFUL;
        }
    }
    return STATUS_SUCCESS;
}

BOOLEAN HDMI_ReadEdidBlock(DEVICE_CONTEXT* context, UCHAR block, UCHAR (&destination)[EDID_BLOCK_SIZE]) {
    if (block >= EDID_BLOCK_COUNT) {
        return FALSE;
    }
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    if (!HDMI_DdcAbortIfBusy(context) || !HDMI_DdcClearFifo(context) ||
        !HDMI_Write(context, HDMI_BANK, HDMI_BANK_0)) {
        return FALSE;
    }

    const UCHAR segment = block / 2;
    const UCHAR base = block % 2 != 0 ? EDID_BLOCK_SIZE : 0;
    for (UCHAR offset = 0; offset < EDID_BLOCK_SIZE; offset += CHUNK_SIZE) {
        // What every EDID begins with; the start of a later segment is read at the end.
        UCHAR chunk[CHUNK_SIZE] = {0x00};
        const UCHAR chunkOffset = static_cast<UCHAR>(base + offset);
        if (block == 0 && offset == 0) {
            chunk[1] = 0xFF;
            chunk[2] = 0xFF;
        }
        const UCHAR headRequest = offset == 0 ? CHUNK_REQUEST : HEAD_REQUEST;
        if (chunkOffset != 0 && !ReadChunkHead(context, segment, chunkOffset, headRequest, chunk)) {
            return FALSE;
        }
        UCHAR scratch[CHUNK_SIZE];
        if (!ReadShifted(context, segment, chunkOffset, CHUNK_REQUEST, scratch)) {
            return FALSE;
        }
        RtlCopyMemory(chunk + DDC_SHIFT, scratch, CHUNK_SIZE - DDC_SHIFT);
        RtlCopyMemory(destination + offset, chunk, CHUNK_SIZE);
    }
    return base != 0 || segment == 0 || ReadSegmentHead(context, segment, destination);
}
