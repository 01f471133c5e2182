// What the end-to-end tests share: sessions in which every fault is a test failure, explored schedules with
// the command that replays a failing one, and the comparison of the monitor with the reference.
#pragma once

#include "rig/builtin_edid.h"
#include "rig/screen_check.h"
#include "rig/session.h"

#include "desktop/frame_source.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace system_test {

using rig::PlugOptions;
using rig::Session;
using rig::SessionOptions;
using support::Surface;
using usb::kMillisecond;
using usb::kSecond;

// One schedule, always the same, for tests that do not depend on the order of tasks.
SessionOptions inOrder(std::vector<rig::Setting> settings = {});

// The ticks of the machine's clock: exact time, and the two of Windows.
constexpr usb::Time kTicks[] = {0, kMillisecond, 15'625 * usb::kMicrosecond};

// The schedule of a seed: random, or by priorities with one to five changes; on one to four processors; with
// each tick.
SessionOptions explored(std::uint64_t seed, std::vector<rig::Setting> settings = {});

SessionOptions freeRunning(std::vector<rig::Setting> settings = {});

rig::Setting setting(std::string_view name, ULONG value);

PlugOptions adapter(unsigned revision = 2, usb::Speed link = usb::Speed::Super);
PlugOptions adapterWithTransmitter(bool transmitter = true);

// 15 ms a frame of kWidth x kHeight pixels: a test can act between two frames, and a long run has fewer
// transfers.
PlugOptions slowAdapter();

// Runs `body` in a session. A report of the verifier, an exception, a leak at unload and a violation at the
// adapter are test failures.
void runSession(const SessionOptions& options, const std::function<void(Session&)>& body);

// Runs `body` under `schedules` seeds, or as many as the environment variable SIM_SCHEDULES says, or under
// the one seed in SIM_SEED. Stops at the first seed that fails and prints the command that replays it.
void explore(unsigned schedules, const std::function<void(Session&)>& body,
             const std::vector<rig::Setting>& settings = {});

// One frame of a test pattern.
Surface pattern(std::string_view name, unsigned width, unsigned height, std::uint64_t frame = 0);

constexpr std::uint64_t kDesktop = 1; // the frame buffer's identifier

// Small pictures: 2.3 ms each on a SuperSpeed link.
constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 480;
const Surface& bars();
const Surface& gradient();
Surface noise(std::uint64_t frame);

// Plugs in an adapter to which a monitor without an EDID is attached, which saves a second of reading.
void plugWithMonitor(Session& session, const PlugOptions& options = adapter());

// From a plugged adapter with a monitor to a running stream.
void switchOn(Session& session, unsigned width = kWidth, unsigned height = kHeight);
void switchOffAndOn(Session& session);

// The monitor shows, within `timeout`, what the reference says, or that picture. On real threads the timeout
// is at least 20 seconds, because instrumented builds are slow.
void expectPicture(Session& session, usb::Time timeout = kSecond);
void expectPicture(Session& session, const Surface& picture, usb::Time timeout = kSecond);

// Presents a picture of the desktop, and expects it on the monitor.
void show(Session& session, const Surface& picture, usb::Time timeout = kSecond);

// From an empty port to the first present. `showDesktop` also expects the picture on the monitor.
void startDesktop(Session& session, const PlugOptions& options, const Surface& picture = bars());
void showDesktop(Session& session, const PlugOptions& options, const Surface& picture = bars(),
                 usb::Time timeout = kSecond);

// After a disturbance during which the client may have lost the interface: switches the display off and on,
// and expects the next picture.
void expectRecovery(Session& session);

usb::Time now(Session& session);

// A call of the driver by its code, with buffers of so many bytes, and the answer.
struct CallCase {
    ULONG code;
    std::size_t input;
    std::size_t output;
    NTSTATUS status;
};

// Ends the body with a test failure unless `status` is a success.
void require(NTSTATUS status, const char* what);

// A thread of the client, joined by the destructor.
class ClientThread {
  public:
    ClientThread(const std::string& name, std::function<void()> body);
    ~ClientThread();
    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;

  private:
    kernel::Task& task_;
};

// A client without the rules of desktop::Client: it exchanges records of any size, and its fill callback may
// do anything. It releases the driver only when the test says so.
class RawClient {
  public:
    explicit RawClient(Session& session);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    NTSTATUS control(ULONG code, std::size_t inputBytes, std::size_t outputBytes);
    NTSTATUS exchange() {
        return control(IOCTL_EXCHANGE_INTERFACE, sizeof(INTERFACE_RECORD), sizeof(INTERFACE_RECORD));
    }
    void release();

    template <typename Record>
    NTSTATUS command(ULONG code, Record record) {
        ULONG returned = 0;
        return kernel::callDriver("CommandEntry", driver.CommandEntry, driver.Context, code,
                                  static_cast<VOID*>(&record), ULONGLONG{sizeof(record)},
                                  static_cast<VOID*>(nullptr), ULONGLONG{0}, &returned);
    }

    ULONG_PTR information = 0; // of the latest control request
    INTERFACE_RECORD driver{};
    std::vector<std::uint8_t> untouched; // the output of the exchange behind the record
    std::function<NTSTATUS(const FRAME_FILL_REQUEST&)> fill;

  private:
    platform::Machine& machine_;
    std::shared_ptr<platform::InterfaceHandle> handle_;
};

// A client that has opened the interface and keeps it when it disappears.
std::unique_ptr<desktop::Client> holdingClient(Session& session);

// Presents `frames` frames, gradient and bars in turn, whether or not the driver takes them.
ClientThread presentInBackground(Session& session, unsigned frames, usb::Time pause = kMillisecond);

} // namespace system_test
