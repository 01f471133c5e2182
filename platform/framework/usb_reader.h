// The continuous reader of a pipe: reads that are always out, and what happens when they fail.
#pragma once

#include "platform/framework/usb_device.h"

namespace framework {

class Reader {
  public:
    Reader(UsbPipe& pipe, const WDF_USB_CONTINUOUS_READER_CONFIG& config);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Allocates the buffers of all reads.
    NTSTATUS prepare(const Call& call);

    void start();
    void stop(); // does not wait; see `idleLocked`
    bool idleLocked() const;

    // Buffers are children of the pipe and keep it alive; an idle reader that is not started again releases
    // them.
    void dropBuffers();

  private:
    struct Read {
        Ref<Memory> buffer;
        std::shared_ptr<Submission> submission; // while it is out
    };

    void submit(Read& read);
    void completed(Read& read, const TransferResult& result);
    void recover();

    UsbPipe& pipe_;
    const WDF_USB_CONTINUOUS_READER_CONFIG config_;
    std::optional<WDF_OBJECT_ATTRIBUTES> bufferAttributes_; // the configuration's pointer does not last
    std::vector<Read> reads_; // the vector is fixed once prepared; submissions guarded by the kernel lock

    // Guarded by the kernel lock.
    bool running_ = false;
    unsigned out_ = 0; // reads whose completion has not ended
    bool recovering_ = false;
    TransferResult failure_;
};

} // namespace framework
