#include "tests/system/rig.h"

#include "rig/errors.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>

namespace system_test {

namespace {

std::optional<std::uint64_t> numberFrom(const char* variable) {
    const char* text = std::getenv(variable);
    return text == nullptr || *text == 0 ? std::nullopt : std::optional(std::strtoull(text, nullptr, 0));
}

// The shortest timeout of the session that runs.
usb::Time leastTimeout = 0;

void printReplayLine(std::uint64_t seed) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    std::printf("replay: SIM_SEED=%llu system_tests --gtest_filter=%s.%s\n",
                static_cast<unsigned long long>(seed), test.test_suite_name(), test.name());
}

} // namespace

SessionOptions inOrder(std::vector<rig::Setting> settings) {
    SessionOptions options;
    options.scheduler.strategy = kernel::Strategy::InOrder;
    options.settings = std::move(settings);
    return options;
}

SessionOptions explored(std::uint64_t seed, std::vector<rig::Setting> settings) {
    SessionOptions options;
    options.scheduler.seed = seed;
    options.scheduler.strategy = seed % 2 == 0 ? kernel::Strategy::Random : kernel::Strategy::Pct;
    options.scheduler.pctDepth = 1 + static_cast<unsigned>(seed / 2 % 5);
    options.scheduler.processors = 1 + static_cast<unsigned>(seed / 3 % 4);
    options.scheduler.tick = kTicks[seed / 5 % std::size(kTicks)];
    options.settings = std::move(settings);
    return options;
}

SessionOptions freeRunning(std::vector<rig::Setting> settings) {
    SessionOptions options;
    options.scheduler.mode = kernel::Mode::Free;
    options.settings = std::move(settings);
    return options;
}

rig::Setting setting(std::string_view name, ULONG value) {
    return {std::string(name), platform::RegistryValue(value)};
}

PlugOptions adapter(unsigned revision, usb::Speed link) {
    PlugOptions options;
    options.adapter.revision = revision;
    options.adapter.link = link;
    return options;
}

PlugOptions adapterWithTransmitter(bool transmitter) {
    PlugOptions options = adapter();
    options.adapter.transmitter = transmitter;
    return options;
}

PlugOptions slowAdapter() {
    PlugOptions options = adapter();
    options.bandwidth = 61'000'000;
    return options;
}

void runSession(const SessionOptions& options, const std::function<void(Session&)>& body) {
    leastTimeout = options.scheduler.mode == kernel::Mode::Free ? 20 * kSecond : 0;
    Session session(options);
    try {
        session.run([&] { body(session); });
    } catch (const verifier::Stopped& stopped) {
        ADD_FAILURE() << stopped.report().text();
        return;
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what();
    }
    for (const std::string& violation : session.violations()) {
        ADD_FAILURE() << "violation of the adapter's rules: " << violation;
    }
}

void explore(unsigned schedules, const std::function<void(Session&)>& body,
             const std::vector<rig::Setting>& settings) {
    const std::optional<std::uint64_t> only = numberFrom("SIM_SEED");
    const std::uint64_t first = only.value_or(1);
    const std::uint64_t last = only.value_or(numberFrom("SIM_SCHEDULES").value_or(schedules));
    for (std::uint64_t seed = first; seed <= last; seed++) {
        runSession(explored(seed, settings), body);
        if (testing::Test::HasFailure()) {
            printReplayLine(seed);
            return;
        }
    }
}

Surface pattern(std::string_view name, unsigned width, unsigned height, std::uint64_t frame) {
    const desktop::Pattern* found = desktop::findPattern(name);
    if (found == nullptr) {
        throw std::logic_error("no such pattern");
    }
    return desktop::drawPattern(*found, width, height, frame, 1);
}

const Surface& bars() {
    static const Surface picture = pattern("bars", kWidth, kHeight);
    return picture;
}

const Surface& gradient() {
    static const Surface picture = pattern("gradient", kWidth, kHeight);
    return picture;
}

Surface noise(std::uint64_t frame) {
    return pattern("noise", kWidth, kHeight, frame);
}

void plugWithMonitor(Session& session, const PlugOptions& options) {
    session.attachMonitor({});
    session.plug(options);
}

void switchOn(Session& session, unsigned width, unsigned height) {
    session.openClient();
    session.createFrameBuffer(kDesktop, width, height);
    session.setDisplayPower(true);
}

void switchOffAndOn(Session& session) {
    session.setDisplayPower(false);
    session.setDisplayPower(true);
}

void expectPicture(Session& session, usb::Time timeout) {
    const std::optional<Surface>& picture = session.reference().picture();
    if (!picture) {
        throw std::logic_error("nothing was presented");
    }
    expectPicture(session, *picture, timeout);
}

void expectPicture(Session& session, const Surface& picture, usb::Time timeout) {
    rig::ScreenCheck check(session, picture);
    if (!check.waitForMatch(std::max(timeout, leastTimeout))) {
        ADD_FAILURE() << check.problem();
    }
}

void show(Session& session, const Surface& picture, usb::Time timeout) {
    session.present(kDesktop, picture);
    expectPicture(session, timeout);
}

void startDesktop(Session& session, const PlugOptions& options, const Surface& picture) {
    plugWithMonitor(session, options);
    switchOn(session, picture.width, picture.height);
    session.present(kDesktop, picture);
}

void showDesktop(Session& session, const PlugOptions& options, const Surface& picture, usb::Time timeout) {
    startDesktop(session, options, picture);
    expectPicture(session, timeout);
}

void expectRecovery(Session& session) {
    session.machine().sleep(kSecond);
    if (!session.client().isOpen()) {
        session.openClient();
    }
    session.createFrameBuffer(kDesktop + 1, kWidth, kHeight);
    switchOffAndOn(session);
    session.present(kDesktop + 1, gradient());
    expectPicture(session);
}

usb::Time now(Session& session) {
    return session.machine().clock().now();
}

void require(NTSTATUS status, const char* what) {
    Session::require(status, what);
}

ClientThread::ClientThread(const std::string& name, std::function<void()> body)
    : task_(kernel::spawn(name, kernel::TaskKind::Host, std::move(body))) {}

ClientThread::~ClientThread() {
    kernel::join(task_);
}

RawClient::RawClient(Session& session) : machine_(session.machine()) {
    const auto links = machine_.interfaces(GUID_DEVINTERFACE_USB_DISPLAY);
    if (links.empty()) {
        throw std::runtime_error("no interface");
    }
    require(machine_.open(links.front(), handle_), "opening the interface");
}

RawClient::~RawClient() {
    machine_.close(handle_);
}

NTSTATUS RawClient::control(ULONG code, std::size_t inputBytes, std::size_t outputBytes) {
    const auto entry = [](VOID* context, ULONG command, VOID* input, ULONGLONG, VOID*, ULONGLONG,
                          ULONG*) -> NTSTATUS {
        EXPECT_EQ(CLIENT_CMD_FILL_FRAME_BUFFER, command);
        return static_cast<RawClient*>(context)->fill(*static_cast<const FRAME_FILL_REQUEST*>(input));
    };
    const INTERFACE_RECORD mine{0xFFFFFFFF, 1, 0, this, entry, [](VOID*) {}};
    std::vector<std::uint8_t> input(sizeof(mine));
    std::memcpy(input.data(), &mine, sizeof(mine));
    input.resize(inputBytes, 0x5A);
    std::vector<std::uint8_t> output(outputBytes, 0xA5);
    const NTSTATUS status = machine_.internalControl(*handle_, code, input, output, information);
    if (NT_SUCCESS(status)) {
        std::memcpy(&driver, output.data(), sizeof(driver));
        untouched.assign(output.begin() + sizeof(driver), output.end());
    }
    return status;
}

void RawClient::release() {
    kernel::callDriver("ReleaseEntry", driver.ReleaseEntry, driver.Context);
}

std::unique_ptr<desktop::Client> holdingClient(Session& session) {
    auto client = std::make_unique<desktop::Client>(session.machine(),
                                                    desktop::ClientOptions{.releaseOnDeparture = false});
    if (!client->waitForArrival(10 * kSecond)) {
        throw std::runtime_error("the interface did not appear");
    }
    require(client->open(), "opening the interface");
    return client;
}

ClientThread presentInBackground(Session& session, unsigned frames, usb::Time pause) {
    return ClientThread("presenter", [&session, frames, pause] {
        for (unsigned frame = 0; frame < frames; frame++) {
            (void)session.client().present(kDesktop, frame % 2 == 0 ? gradient() : bars());
            session.machine().sleep(pause);
        }
    });
}

} // namespace system_test
