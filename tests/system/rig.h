// What the tests of the whole road share: sessions whose every fault is a test failure, explored schedules
// with the one line that replays a failing one, the monitor compared with the reference.
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

// One schedule, always the same: for tests that look at what happens and not at when.
SessionOptions inOrder(std::vector<rig::Setting> settings = {});

// The schedule that belongs to a seed: fair or by priorities with one to five changes, on one to four
// processors.
SessionOptions explored(std::uint64_t seed, std::vector<rig::Setting> settings = {});

SessionOptions freeRunning(std::vector<rig::Setting> settings = {});

rig::Setting setting(std::string_view name, ULONG value);

PlugOptions adapter(unsigned revision = 2, usb::Speed link = usb::Speed::Super);

// Runs `body` in a session. A report of the verifier, an exception, a leak at unload and a violation at the
// adapter are test failures.
void runSession(const SessionOptions& options, const std::function<void(Session&)>& body);

// Runs `body` under `schedules` seeds (another number when the environment variable SIM_SCHEDULES gives one),
// or under the one that SIM_SEED names. Stops at the first seed that fails and prints the line that replays
// it.
void explore(unsigned schedules, const std::function<void(Session&)>& body,
             const std::vector<rig::Setting>& settings = {});

// Whether the environment asks for one seed only.
bool replaysOneSeed();

// One frame of a test pattern.
Surface pattern(std::string_view name, unsigned width, unsigned height, std::uint64_t frame = 0);

constexpr std::uint64_t kDesktop = 1; // the frame buffer's identifier

// Small pictures: 2.3 ms each on a SuperSpeed link.
constexpr unsigned kWidth = 640;
constexpr unsigned kHeight = 480;

// From a plugged adapter with a monitor to a running stream.
void switchOn(Session& session, unsigned width = kWidth, unsigned height = kHeight);

// Plugs an adapter with a monitor without DDC (which saves a second of reading), switches on and presents.
void showDesktop(Session& session, const PlugOptions& options, const Surface& picture);

// The monitor shows, within `timeout`, what the reference says, or that picture.
void expectPicture(Session& session, usb::Time timeout = kSecond);
void expectPicture(Session& session, const Surface& picture, usb::Time timeout = kSecond);

// Ends the body with a test failure unless `status` is a success.
void require(NTSTATUS status, const char* what);

// A client's thread; joined on destruction.
class ClientThread {
  public:
    ClientThread(const std::string& name, std::function<void()> body);
    ~ClientThread();
    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;

  private:
    kernel::Task& task_;
};

} // namespace system_test
