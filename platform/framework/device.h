// The framework's device object and what the driver settled before it was created.
#pragma once

#include "platform/framework/irp.h"
#include "platform/framework/object.h"
#include "platform/framework/packet_queue.h"
#include "platform/usb/host.h"

#include <wdfusb.h>

#include <optional>
#include <vector>

namespace framework {

// The device's PnP state. Written by the steps of a DevNode, which exclude each other,
// and by a surprise removal during a sleep or a wake.
enum class PnpState : std::uint8_t {
    Added,
    Preparing, // EvtDevicePrepareHardware runs
    Prepared,
    Started,
    Stopped,
    SurpriseRemoved,
    Failed,
    Removed,
};

struct PreprocessEntry {
    PFN_WDFDEVICE_WDM_IRP_PREPROCESS callback = nullptr;
    UCHAR major = 0;
    std::vector<UCHAR> minors; // empty for all
};

struct DeviceSettings {
    WDF_PNPPOWER_EVENT_CALLBACKS callbacks = {};
    std::optional<WDF_FILEOBJECT_CONFIG> fileConfig;
    std::optional<WDF_OBJECT_ATTRIBUTES> fileAttributes;
    WDF_DEVICE_IO_TYPE ioType = WdfDeviceIoBuffered;
    std::vector<PreprocessEntry> preprocess;
};

// The device on the bus that a device object belongs to.
struct BusDevice {
    PDEVICE_OBJECT pdo = nullptr;
    usb::Host* host = nullptr;
};

class Device final : public Object {
  public:
    Device(const BusDevice& bus, DeviceSettings settings);

    WDFDEVICE wdf() const { return static_cast<WDFDEVICE>(handle()); }
    PDEVICE_OBJECT deviceObject() { return &fdo_; }
    PDEVICE_OBJECT pdo() const { return bus_.pdo; }
    usb::Host& host() const { return *bus_.host; }
    const DeviceSettings& settings() const { return settings_; }
    const WDF_PNPPOWER_EVENT_CALLBACKS& callbacks() const { return settings_.callbacks; }

    PnpState pnpState() const;
    void setPnpState(PnpState state);

    static Ref<Device> referenceLocked(Device* device) { return refLocked(device); }

    // Sends a packet to the device, the driver's preprocess callback first if it asked for this one, and
    // waits until it is completed. PASSIVE_LEVEL. The device may be gone afterwards if the packet was for its
    // removal.
    NTSTATUS send(Irp& packet);

    // The framework's own handling of a packet.
    void dispatchToFramework(PIRP irp);

    // Sets the default queue. False when there is one already.
    bool setDefaultQueue(PacketQueue& queue);
    bool isDefaultQueue(const PacketQueue& queue) const;

    std::vector<Ref<PacketQueue>> queues() const { return childrenOf<PacketQueue>(Kind::Queue); }

    // Power-managed queues present requests from `resumeQueues` to `holdQueues`.
    void resumeQueues();
    void holdQueues();
    bool queuesResumed() const;

    WDF_DEVICE_PNP_CAPABILITIES capabilities = {};

  protected:
    bool driverMayDelete() const override { return false; }

  private:
    void dispatch(Irp& packet);
    const PreprocessEntry* preprocessorOf(const IO_STACK_LOCATION& location) const;
    void dispatchCreate(PIRP irp);
    void dispatchCleanup(PIRP irp);
    void dispatchClose(PIRP irp);
    void dispatchIo(PIRP irp);

    const BusDevice bus_;
    const DeviceSettings settings_;
    DEVICE_OBJECT fdo_ = {};

    // Guarded by the kernel lock.
    PnpState pnpState_ = PnpState::Added;
    PacketQueue* defaultQueue_ = nullptr;
    bool queuesResumed_ = false;
};

// The device that an object belongs to by its parents. Reports ObjectTree for one above any device.
Device& requireDeviceAbove(const Call& call, Object& object);

} // namespace framework

// What the driver's device-add callback receives; alive until WdfDeviceCreate or the callback's end.
struct WDFDEVICE_INIT {
    WDFDEVICE_INIT();
    ~WDFDEVICE_INIT();
    WDFDEVICE_INIT(const WDFDEVICE_INIT&) = delete;
    WDFDEVICE_INIT& operator=(const WDFDEVICE_INIT&) = delete;

    framework::BusDevice bus;
    framework::DeviceSettings settings;
    framework::Ref<framework::Device> device; // once created
};
