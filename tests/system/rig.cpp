#include "tests/system/rig.h"

#include "rig/errors.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>

namespace system_test {

namespace {

std::optional<std::uint64_t> numberFrom(const char* variable) {
    const char* text = std::getenv(variable);
    return text == nullptr || *text == 0 ? std::nullopt : std::optional(std::strtoull(text, nullptr, 0));
}

std::optional<std::uint64_t> seedToReplay() {
    return numberFrom("SIM_SEED");
}

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

void runSession(const SessionOptions& options, const std::function<void(Session&)>& body) {
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
        ADD_FAILURE() << "the adapter did not understand: " << violation;
    }
}

void explore(unsigned schedules, const std::function<void(Session&)>& body,
             const std::vector<rig::Setting>& settings) {
    const std::optional<std::uint64_t> only = seedToReplay();
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

bool replaysOneSeed() {
    return seedToReplay().has_value();
}

Surface pattern(std::string_view name, unsigned width, unsigned height, std::uint64_t frame) {
    const desktop::Pattern* found = desktop::findPattern(name);
    if (found == nullptr) {
        throw std::logic_error("no such pattern");
    }
    return desktop::drawPattern(*found, width, height, frame, 1);
}

void switchOn(Session& session, unsigned width, unsigned height) {
    session.openClient();
    session.createFrameBuffer(kDesktop, width, height);
    session.setDisplayPower(true);
}

void showDesktop(Session& session, const PlugOptions& options, const Surface& picture) {
    session.attachMonitor({});
    session.plug(options);
    switchOn(session, picture.width, picture.height);
    session.present(kDesktop, picture);
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
    if (!check.waitForMatch(timeout)) {
        ADD_FAILURE() << check.problem();
    }
}

void require(NTSTATUS status, const char* what) {
    Session::require(status, what);
}

ClientThread::ClientThread(const std::string& name, std::function<void()> body)
    : task_(kernel::spawn(name, kernel::TaskKind::Host, std::move(body))) {}

ClientThread::~ClientThread() {
    kernel::join(task_);
}

} // namespace system_test
