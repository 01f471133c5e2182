// Builders of USB request blocks.
#pragma once

#include <usb.h>

#define UsbBuildInterruptOrBulkTransferRequest(urb, length, pipeHandle, transferBuffer, transferBufferMdl,   \
                                               transferBufferLength, transferFlags, link)                    \
    do {                                                                                                     \
        (urb)->UrbHeader.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;                                 \
        (urb)->UrbHeader.Length = (length);                                                                  \
        (urb)->UrbBulkOrInterruptTransfer.PipeHandle = (pipeHandle);                                         \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferLength = (transferBufferLength);                     \
        (urb)->UrbBulkOrInterruptTransfer.TransferBufferMDL = (transferBufferMdl);                           \
        (urb)->UrbBulkOrInterruptTransfer.TransferBuffer = (transferBuffer);                                 \
        (urb)->UrbBulkOrInterruptTransfer.TransferFlags = (transferFlags);                                   \
        (urb)->UrbBulkOrInterruptTransfer.UrbLink = (link);                                                  \
    } while (0)
