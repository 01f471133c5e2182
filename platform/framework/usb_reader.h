// The continuous reader of a pipe: reads that are always out, and what happens when they fail.
#pragma once

#include "platform/framework/usb_device.h"

namespace framework {

class Reader {
  public:
    Reader(UsbPipe& pipe, const WDF_USB_CONTINUOUS_READER_CONFIG& config);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void start(); // sends nothing while reads are out
    void stop();  // does not wait; see `idleLocked`
    bool idleLocked() const;

    // On the task that runs the driver's readers-failed callback, for which a stop waits.
    bool recoversHere() const;

    // Buffers are children of the pipe and keep it alive; an idle reader that is not started again releases
    // them.
    void dropBuffers();

  private:
    struct Read {
        Ref<Memory> buffer;                     // of the latest submission
        std::shared_ptr<Submission> submission; // while it is out
    };

    void submitAll();
    void submit(Read& read);
    bool renewBuffer(Read& read);
    void completed(Read& read, const TransferResult& result);
    void endRead(const TransferResult& result, bool recovers);
    void cancelReads();
    bool isWorthRepeating(const TransferResult& failure);
    void recover();

    UsbPipe& pipe_;
    const WDF_USB_CONTINUOUS_READER_CONFIG config_;
    std::optional<WDF_OBJECT_ATTRIBUTES> bufferAttributes_; // the configuration's pointer does not last

    // The vector is fixed. A buffer is used by one submission or completion at a time; submissions are
    // guarded by the kernel lock.
    std::vector<Read> reads_;

    // Guarded by the kernel lock.
    bool running_ = false;
    unsigned out_ = 0; // reads whose completion has not ended
    bool recovering_ = false;
    TransferResult failure_;
    const kernel::Task* asking_ = nullptr; // the task in the readers-failed callback
};

} // namespace framework
