// I/O queues: they hold back requests while the device is not in D0 and present the others to the driver.
#pragma once

#include "platform/framework/packet_queue.h"
#include "platform/framework/request.h"

#include <deque>

namespace framework {

class Device;

class Queue final : public PacketQueue {
  public:
    Queue(Device& device, const WDF_IO_QUEUE_CONFIG& config);

    Device& device() { return device_; }
    WDFQUEUE wdf() const { return static_cast<WDFQUEUE>(handle()); }

    // Presents the packet's request on the calling task, keeps it, or completes it when the queue accepts
    // nothing any more.
    void accept(PIRP irp, FileObject* file) override;

    void cancelWaiting(PFILE_OBJECT file) override;
    void resume() override;
    void hold() override;
    void purge() override;
    bool powerManaged() const override { return powerManaged_; }
    void requestDone() override;

  protected:
    bool driverMayDelete() const override;
    void dispose() override;
    bool disposeWaits() const override { return true; }

  private:
    enum class State : std::uint8_t { Started, Stopped, Purged };

    void deliver(Ref<Request> request);
    void present(Ref<Request> request);
    void call(Request& request);
    void presentWaiting();
    void waitUntilIdle();

    Device& device_;
    const WDF_IO_QUEUE_CONFIG config_;
    const bool powerManaged_;
    const ULONG limit_; // requests presented at a time

    // Guarded by the kernel lock.
    State state_;
    ULONG presented_ = 0;
    ULONG callbacks_ = 0; // under way
    std::deque<Ref<Request>> waiting_;
};

} // namespace framework
