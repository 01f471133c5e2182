// USB targets: the device, its interfaces and their pipes.
#pragma once

#include "platform/framework/io_target.h"
#include "platform/framework/memory.h"
#include "platform/framework/usb_descriptors.h"
#include "platform/framework/usb_submission.h"
#include "platform/usb/host.h"

#include <wdfusb.h>

#include <memory>
#include <optional>
#include <vector>

namespace framework {

class Reader;
class UsbDevice;
class UsbInterface;

class UsbPipe final : public IoTarget {
  public:
    UsbPipe(UsbInterface& owner, const USB_ENDPOINT_DESCRIPTOR& endpoint, UCHAR settingIndex);
    ~UsbPipe() override;

    WDFUSBPIPE wdf() const { return static_cast<WDFUSBPIPE>(handle()); }
    UsbDevice& usbDevice() const;
    std::shared_ptr<Submission> urbSubmission(const Call& call, const Object& request, const Memory& memory,
                                              std::size_t offset, Done done) override;
    std::shared_ptr<Submission> controlSubmission(const WDF_USB_CONTROL_SETUP_PACKET& setup, void* data,
                                                  std::size_t size, Done done) override;
    USBD_PIPE_HANDLE pipeHandle() const { return pipeHandle_; }
    UCHAR address() const { return endpoint_.bEndpointAddress; }
    bool isIn() const { return (address() & USB_ENDPOINT_DIRECTION_MASK) != 0; }
    usb::TransferType transferType() const;
    usb::Time interval() const; // of an interrupt endpoint
    ULONG maximumPacketSize() const { return endpoint_.wMaxPacketSize & 0x7FFu; }
    WDF_USB_PIPE_INFORMATION information() const;

    // A pipe that ended a transfer with a stall or an error answers ENDPOINT_HALTED until it is reset or
    // selected anew.
    bool halted() const;
    void noteResult(const TransferResult& result);

    // Clears the halt on both ends. PASSIVE_LEVEL.
    NTSTATUS reset();

    // URBs of the driver that are out on this pipe.
    void urbStarted();
    void urbEnded();
    unsigned urbsOut() const;

    void skipPacketSizeCheck() { packetSizeCheck_ = false; }
    NTSTATUS configureReader(const Call& call, const WDF_USB_CONTINUOUS_READER_CONFIG& config);

    // Fails with ReaderRunning while something of the reader's is out or about to go out.
    void requireReaderStopped(std::string_view call) const;

    // For the reader, after something changed that a stop may be waiting for.
    void readerChanged() { wakeWaiters(); }

  protected:
    bool driverMayDelete() const override { return false; }
    void dispose() override;
    void requireStoppable(const Call& call) const override;
    void startReader() override;
    void stopReader() override;
    bool readerIdleLocked() const override;

  private:
    UsbInterface& owner_;
    const USB_ENDPOINT_DESCRIPTOR endpoint_;
    const UCHAR settingIndex_;
    const USBD_PIPE_HANDLE pipeHandle_;
    bool packetSizeCheck_ = true;    // PnP callbacks only
    std::unique_ptr<Reader> reader_; // PnP callbacks only

    // Guarded by the kernel lock.
    bool halted_ = false;
    unsigned urbsOut_ = 0;
};

// An interface is configured once a setting was selected; a setting without endpoints has no pipes.
class UsbInterface final : public Object {
  public:
    UsbInterface(UsbDevice& device, InterfaceLayout layout);

    WDFUSBINTERFACE wdf() const { return static_cast<WDFUSBINTERFACE>(handle()); }
    UsbDevice& device() { return device_; }
    std::size_t settingCount() const { return layout_.settings.size(); }
    UCHAR number() const { return layout_.settings.front().descriptor.bInterfaceNumber; }
    bool hasEndpoints(std::size_t setting) const { return !layout_.settings[setting].endpoints.empty(); }

    // Nothing happens when the interface has that setting already: pipes, handles and halts stay. Otherwise
    // the old pipes end before the device is asked; when it refuses, the interface has none.
    NTSTATUS selectSetting(const Call& call, std::size_t setting, const WDF_OBJECT_ATTRIBUTES* attributes);

    // The parts of a selection. Made pipes are taken or discarded.
    using Pipes = std::vector<UsbPipe*>;
    NTSTATUS makePipes(const Call& call, std::size_t setting, const WDF_OBJECT_ATTRIBUTES* attributes,
                       Pipes& pipes);
    void takePipes(std::size_t setting, Pipes pipes);
    static void discard(const Pipes& pipes);
    void dropPipes(const Call& call);

    std::size_t pipeCount() const;
    Ref<UsbPipe> pipe(std::size_t index) const;
    Ref<UsbPipe> pipeOf(USBD_PIPE_HANDLE handle) const;
    std::vector<Ref<UsbPipe>> pipes() const;

  protected:
    bool driverMayDelete() const override { return false; }

  private:
    bool hasSetting(std::size_t setting) const;

    UsbDevice& device_;
    const InterfaceLayout layout_;

    // Guarded by the kernel lock.
    std::optional<std::size_t> setting_; // while configured
    Pipes pipes_;                        // children
};

// Fails when [address, address + size) cannot be a transfer's memory: it reaches beyond the end of its pool
// block, that block is paged, or it was freed. Memory that is no pool is not judged.
void requireTransferBuffer(const Call& call, const Object* object, const void* address, std::size_t size);

// Fails when an MDL, or the pool block that it was built for, is no longer there.
void requireTransferMdl(const Call& call, const Object* object, const MDL* mdl);

class UsbDevice final : public IoTarget {
  public:
    explicit UsbDevice(Device& device);

    WDFUSBDEVICE wdf() const { return static_cast<WDFUSBDEVICE>(handle()); }
    usb::Host& host();

    // Reads the descriptors and makes the interfaces.
    NTSTATUS enumerate(const Call& call);

    const USB_DEVICE_DESCRIPTOR& descriptor() const { return descriptor_; }
    WDF_USB_DEVICE_INFORMATION information() const;
    const std::vector<std::uint8_t>& configuration() const { return configuration_; }
    std::size_t interfaceCount() const { return interfaces_.size(); }
    UsbInterface& interface(std::size_t index) { return *interfaces_[index]; }

    NTSTATUS selectConfig(const Call& call, const WDF_OBJECT_ATTRIBUTES* pipeAttributes,
                          WDF_USB_DEVICE_SELECT_CONFIG_PARAMS& params);
    // Asks the device for a setting of one interface.
    NTSTATUS sendSelectInterface(const UsbInterface& interface, std::size_t setting);

    // After the callback in which the driver stops them at the latest.
    void requireReadersStopped(std::string_view callback) const;

    std::shared_ptr<Submission> urbSubmission(const Call& call, const Object& request, const Memory& memory,
                                              std::size_t offset, Done done) override;
    std::shared_ptr<Submission> controlSubmission(const WDF_USB_CONTROL_SETUP_PACKET& setup, void* data,
                                                  std::size_t size, Done done) override;

    // Standard requests of the framework's own, with its time-outs. PASSIVE_LEVEL.
    NTSTATUS readFromDevice(UCHAR request, USHORT value, void* data, USHORT length);
    NTSTATUS changeDevice(UCHAR recipient, UCHAR request, USHORT value, USHORT index);

  protected:
    std::vector<Ref<IoTarget>> parts() const override;

  private:
    NTSTATUS readConfiguration();
    NTSTATUS settingsOf(const Call& call, const WDF_USB_DEVICE_SELECT_CONFIG_PARAMS& params,
                        std::vector<std::size_t>& settings) const;
    NTSTATUS sendSelectConfiguration(const std::vector<std::size_t>& settings,
                                     std::vector<UsbInterface::Pipes>& pipes);

    // Written by PnP callbacks of the driver, which exclude each other.
    USB_DEVICE_DESCRIPTOR descriptor_ = {};
    std::vector<std::uint8_t> configuration_;
    bool selfPowered_ = false;
    std::vector<UsbInterface*> interfaces_; // children, alive as long as the device
};

} // namespace framework
