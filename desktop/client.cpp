#include "desktop/client.h"

#include "platform/kernel/driver_call.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace desktop {

namespace {

constexpr unsigned kBytesPerPixel = 4;

// Passed from a present through the driver to its fill request.
struct FillJob {
    const support::Surface* frame;
    std::uint64_t identifier;
};

template <typename Record>
std::span<std::uint8_t> bytesOf(Record& record) {
    return {reinterpret_cast<std::uint8_t*>(&record), sizeof record};
}

} // namespace

// Entry points may be used only between the exchange and the release. Both the host's `close` and the
// departure notification may end that time while commands run, so commands are counted: the interface is
// released at the end request when no command runs, otherwise by the last command.
struct Client::State {
    enum class Phase : std::uint8_t { Closed, Opening, Open, Closing };

    platform::Machine& machine;
    const ClientOptions options;

    // Guarded by `lock`, which is held for a few instructions and never across a call to machine or driver.
    mutable std::mutex lock;
    std::u16string link; // empty while the interface does not exist
    Phase phase = Phase::Closed;
    unsigned commands = 0; // running
    std::shared_ptr<platform::InterfaceHandle> handle;
    INTERFACE_RECORD driver{};
    bool detached = false; // the client object is destroyed
    ULONG frameKey = 0;    // of the last present; 0 belongs to frame buffers never presented

    std::atomic<std::uint64_t> fillNanoseconds{0};

    State(platform::Machine& owner, const ClientOptions& clientOptions)
        : machine(owner), options(clientOptions) {}

    void interfaceChanged(const platform::InterfaceChange& change);
    bool waitFor(const char* what, usb::Time deadline, const std::function<bool()>& done) const;
    bool arrived() const;
    void waitWhileClosing(const char* what) const;

    NTSTATUS exchange(platform::InterfaceHandle& opened, INTERFACE_RECORD& answer);
    NTSTATUS open();
    bool requestClose();
    void release();

    bool beginCommand(INTERFACE_RECORD& record);
    void endCommand();

    NTSTATUS fill(const FRAME_FILL_REQUEST& request);
    static NTSTATUS commandEntry(VOID* context, ULONG code, VOID* input, ULONGLONG inputLength, VOID* output,
                                 ULONGLONG outputLength, ULONG* bytesReturned);
    static VOID releaseEntry(VOID*) {}
};

void Client::State::interfaceChanged(const platform::InterfaceChange& change) {
    bool mustClose = false;
    {
        const std::lock_guard guard(lock);
        if (detached) {
            return;
        }
        if (change.arrived) {
            link = change.link;
        } else if (change.link == link) {
            link.clear();
            mustClose = options.releaseOnDeparture;
        }
    }
    if (mustClose && requestClose()) {
        release();
    }
    kernel::wakeChannel(this);
}

bool Client::State::waitFor(const char* what, usb::Time deadline, const std::function<bool()>& done) const {
    return kernel::waitUntil(this, {.call = what, .object = this}, deadline, done);
}

bool Client::State::arrived() const {
    const std::lock_guard guard(lock);
    return !link.empty();
}

NTSTATUS Client::State::exchange(platform::InterfaceHandle& opened, INTERFACE_RECORD& answer) {
    INTERFACE_RECORD mine{};
    mine.Version = 1;
    mine.Size = sizeof mine;
    mine.Context = this;
    mine.CommandEntry = commandEntry;
    mine.ReleaseEntry = releaseEntry;
    ULONG_PTR information = 0;
    const NTSTATUS status = machine.internalControl(opened, IOCTL_EXCHANGE_INTERFACE, bytesOf(mine),
                                                    bytesOf(answer), information);
    if (NT_SUCCESS(status) && (information != sizeof answer || answer.Version != 1 ||
                               answer.Size != sizeof answer || answer.CommandEntry == nullptr)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    return status;
}

NTSTATUS Client::State::open() {
    waitWhileClosing("Client::open");
    std::u16string target;
    {
        const std::lock_guard guard(lock);
        if (phase != Phase::Closed) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        if (link.empty()) {
            return STATUS_NO_SUCH_DEVICE;
        }
        phase = Phase::Opening;
        target = link;
    }
    std::shared_ptr<platform::InterfaceHandle> opened;
    INTERFACE_RECORD answer{};
    NTSTATUS status = machine.open(target, opened);
    if (NT_SUCCESS(status)) {
        status = exchange(*opened, answer);
        if (!NT_SUCCESS(status)) {
            machine.close(opened);
        }
    }
    bool departed = false;
    {
        const std::lock_guard guard(lock);
        phase = NT_SUCCESS(status) ? Phase::Open : Phase::Closed;
        if (NT_SUCCESS(status)) {
            handle = opened;
            driver = answer;
            departed = link.empty() && options.releaseOnDeparture;
        }
    }
    // If the interface disappeared while it was being opened, the notification found nothing to release.
    if (departed && requestClose()) {
        release();
    }
    return status;
}

void Client::State::waitWhileClosing(const char* what) const {
    waitFor(what, kernel::kForever, [this] {
        const std::lock_guard guard(lock);
        return phase != Phase::Closing;
    });
}

// True when the caller must release the interface now. Otherwise the last command releases it, or it is not
// open.
bool Client::State::requestClose() {
    const std::lock_guard guard(lock);
    if (phase != Phase::Open) {
        return false;
    }
    phase = Phase::Closing;
    return commands == 0;
}

void Client::State::release() {
    INTERFACE_RECORD record{};
    std::shared_ptr<platform::InterfaceHandle> opened;
    {
        const std::lock_guard guard(lock);
        record = driver;
        driver = {};
        opened.swap(handle);
    }
    kernel::callDriver("ReleaseEntry", record.ReleaseEntry, record.Context);
    machine.close(opened);
    {
        const std::lock_guard guard(lock);
        phase = Phase::Closed;
    }
    kernel::wakeChannel(this);
}

bool Client::State::beginCommand(INTERFACE_RECORD& record) {
    const std::lock_guard guard(lock);
    if (phase != Phase::Open) {
        return false;
    }
    commands++;
    record = driver;
    return true;
}

void Client::State::endCommand() {
    bool last = false;
    {
        const std::lock_guard guard(lock);
        commands--;
        last = commands == 0 && phase == Phase::Closing;
    }
    if (last) {
        release();
    }
}

// The frame buffer has the frame's width, without padding, because this client creates it so.
NTSTATUS Client::State::fill(const FRAME_FILL_REQUEST& request) {
    const FillJob* job = reinterpret_cast<const FillJob*>(request.ClientValue);
    if (job == nullptr || job->identifier != request.Identifier || request.PixelBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::uint64_t begin = kernel::threadCpuTime();
    const std::size_t frameBytes = job->frame->pixels.size() * kBytesPerPixel;
    std::memcpy(request.PixelBuffer, job->frame->pixels.data(),
                std::min<std::size_t>(frameBytes, request.ByteSize));
    fillNanoseconds += kernel::threadCpuTime() - begin;
    return STATUS_SUCCESS;
}

NTSTATUS Client::State::commandEntry(VOID* context, ULONG code, VOID* input, ULONGLONG inputLength, VOID*,
                                     ULONGLONG, ULONG* bytesReturned) {
    *bytesReturned = 0;
    if (code != CLIENT_CMD_FILL_FRAME_BUFFER) {
        return STATUS_NOT_SUPPORTED;
    }
    if (inputLength < sizeof(FRAME_FILL_REQUEST)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    return static_cast<State*>(context)->fill(*static_cast<const FRAME_FILL_REQUEST*>(input));
}

Client::Client(platform::Machine& machine, const ClientOptions& options)
    : state_(std::make_shared<State>(machine, options)) {
    machine.onInterfaceChange(GUID_DEVINTERFACE_USB_DISPLAY,
                              [state = std::weak_ptr(state_)](const platform::InterfaceChange& change) {
                                  if (const std::shared_ptr<State> client = state.lock()) {
                                      client->interfaceChanged(change);
                                  }
                              });
    const std::vector<std::u16string> present = machine.interfaces(GUID_DEVINTERFACE_USB_DISPLAY);
    const std::lock_guard guard(state_->lock);
    if (!present.empty() && state_->link.empty()) {
        state_->link = present.front();
    }
}

Client::~Client() {
    const std::lock_guard guard(state_->lock);
    state_->detached = true;
}

bool Client::waitForArrival(usb::Time timeout) {
    return state_->waitFor("Client::waitForArrival", kernel::now() + timeout,
                           [this] { return state_->arrived(); });
}

bool Client::waitForDeparture(usb::Time timeout) {
    return state_->waitFor("Client::waitForDeparture", kernel::now() + timeout,
                           [this] { return !state_->arrived(); });
}

NTSTATUS Client::open() {
    return state_->open();
}

void Client::close() {
    if (state_->requestClose()) {
        state_->release();
    } else {
        state_->waitWhileClosing("Client::close");
    }
}

bool Client::isOpen() const {
    const std::lock_guard guard(state_->lock);
    return state_->phase == State::Phase::Open;
}

INTERFACE_RECORD Client::driverRecord() const {
    const std::lock_guard guard(state_->lock);
    return state_->driver;
}

NTSTATUS Client::queryEdid(std::span<std::uint8_t, EDID_BLOCK_SIZE> edid) {
    std::ranges::fill(edid, std::uint8_t{0});
    return command(CMD_QUERY_EDID, {}, edid);
}

NTSTATUS Client::createFrameBuffer(std::uint64_t identifier, unsigned width, unsigned height) {
    FRAME_BUFFER_REQUEST request{};
    request.Identifier = identifier;
    request.ByteSize = std::uint64_t{width} * height * kBytesPerPixel;
    request.Width = width;
    request.Height = height;
    request.Pitch = width * kBytesPerPixel;
    return command(CMD_CREATE_FRAME_BUFFER, bytesOf(request), {});
}

NTSTATUS Client::destroyFrameBuffer(std::uint64_t identifier) {
    FRAME_BUFFER_REQUEST request{};
    request.Identifier = identifier;
    return command(CMD_DESTROY_FRAME_BUFFER, bytesOf(request), {});
}

NTSTATUS Client::present(std::uint64_t identifier, const support::Surface& frame) {
    const FillJob job = {&frame, identifier};
    PRESENT_REQUEST request{};
    request.Identifier = identifier;
    request.ClientValue = reinterpret_cast<ULONGLONG>(&job);
    request.ByteSize = frame.pixels.size() * kBytesPerPixel;
    request.Width = frame.width;
    request.Height = frame.height;
    request.Pitch = frame.width * kBytesPerPixel;
    {
        const std::lock_guard guard(state_->lock);
        state_->frameKey += state_->frameKey == MAXULONG ? 2 : 1;
        request.FrameKey = state_->frameKey;
    }
    return command(CMD_PRESENT_FRAME, bytesOf(request), {});
}

NTSTATUS Client::setPointer(const PointerImage& image) {
    POINTER_SHAPE shape{};
    shape.Type = image.type;
    shape.Width = image.width;
    shape.Height = image.height;
    shape.Pitch = image.pitch;
    shape.Bits = image.bits.data();
    POINTER_REQUEST request = {.Position = nullptr, .Shape = &shape};
    return command(CMD_SET_POINTER, bytesOf(request), {});
}

NTSTATUS Client::movePointer(int x, int y, bool visible) {
    POINTER_POSITION position{};
    position.X = static_cast<ULONG>(x);
    position.Y = static_cast<ULONG>(y);
    position.Flags = visible ? 1 : 0;
    POINTER_REQUEST request = {.Position = &position, .Shape = nullptr};
    return command(CMD_SET_POINTER, bytesOf(request), {});
}

NTSTATUS Client::setRotation(DISPLAY_ROTATION rotation) {
    ROTATION_REQUEST request{};
    request.Rotation = rotation;
    return command(CMD_SET_ROTATION, bytesOf(request), {});
}

NTSTATUS Client::setDisplayPower(bool on) {
    DISPLAY_POWER_REQUEST request{};
    request.On = on ? 1 : 0;
    return command(CMD_SET_DISPLAY_POWER, bytesOf(request), {});
}

NTSTATUS Client::command(ULONG code, std::span<std::uint8_t> input, std::span<std::uint8_t> output) {
    INTERFACE_RECORD record{};
    if (!state_->beginCommand(record)) {
        return STATUS_DEVICE_REMOVED;
    }
    ULONG bytesReturned = 0;
    const NTSTATUS status = kernel::callDriver(
        "CommandEntry", record.CommandEntry, record.Context, code, static_cast<VOID*>(input.data()),
        ULONGLONG{input.size()}, static_cast<VOID*>(output.data()), ULONGLONG{output.size()}, &bytesReturned);
    state_->endCommand();
    return status;
}

std::uint64_t Client::fillNanoseconds() const {
    return state_->fillNanoseconds;
}

} // namespace desktop
