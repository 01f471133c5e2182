// The exchange of entry points: sizes, codes, one client at a time, and the end of a tenure.
#include "tests/system/rig.h"

#include "platform/kernel/driver_call.h"

#include <cstring>
#include <fmt/format.h>
#include <memory>

namespace system_test {
namespace {

// A client with its hands on the raw request.
class RawClient {
  public:
    explicit RawClient(Session& session) : machine_(session.machine()) {
        const auto links = machine_.interfaces(GUID_DEVINTERFACE_USB_DISPLAY);
        if (links.empty()) {
            throw std::runtime_error("no interface");
        }
        require(machine_.open(links.front(), handle_), "opening the interface");
    }
    ~RawClient() { machine_.close(handle_); }

    NTSTATUS control(ULONG code, std::size_t inputBytes, std::size_t outputBytes) {
        std::vector<std::uint8_t> input(inputBytes, 0x5A);
        std::vector<std::uint8_t> output(outputBytes, 0xA5);
        const NTSTATUS status = machine_.internalControl(*handle_, code, input, output, information);
        if (NT_SUCCESS(status)) {
            std::memcpy(&answer, output.data(), sizeof(answer));
            untouched = std::vector<std::uint8_t>(output.begin() + sizeof(answer), output.end());
        }
        return status;
    }
    NTSTATUS exchange() { return control(IOCTL_EXCHANGE_INTERFACE, 40, 40); }
    void release() { kernel::callDriver("ReleaseEntry", answer.ReleaseEntry, answer.Context); }

    ULONG_PTR information = 0;
    INTERFACE_RECORD answer{};
    std::vector<std::uint8_t> untouched; // of the output, behind the record

  private:
    platform::Machine& machine_;
    std::shared_ptr<platform::InterfaceHandle> handle_;
};

void withMonitor(const std::function<void(Session&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        body(session);
    });
}

TEST(Exchange, HandsOutTheDriversRecord) {
    withMonitor([](Session& session) {
        RawClient client(session);
        ASSERT_EQ(STATUS_SUCCESS, client.exchange());
        EXPECT_EQ(40u, client.information);
        EXPECT_EQ(1u, client.answer.Version);
        EXPECT_EQ(0u, client.answer.Reserved);
        EXPECT_EQ(40u, client.answer.Size);
        EXPECT_NE(nullptr, client.answer.Context);
        EXPECT_NE(nullptr, client.answer.CommandEntry);
        EXPECT_NE(nullptr, client.answer.ReleaseEntry);
        client.release();
    });
}

TEST(Exchange, RefusesWhatIsNotOne) {
    const struct {
        ULONG code;
        std::size_t input;
        std::size_t output;
        NTSTATUS status;
    } cases[] = {
        {IOCTL_EXCHANGE_INTERFACE, 39, 40, STATUS_BUFFER_TOO_SMALL},
        {IOCTL_EXCHANGE_INTERFACE, 40, 39, STATUS_BUFFER_TOO_SMALL},
        {IOCTL_EXCHANGE_INTERFACE, 0, 0, STATUS_BUFFER_TOO_SMALL},
        {0x220000, 40, 40, STATUS_NOT_SUPPORTED},
        {0x220007, 40, 40, STATUS_NOT_SUPPORTED},
        {0, 0, 0, STATUS_NOT_SUPPORTED},
        {0xFFFFFFFF, 40, 40, STATUS_NOT_SUPPORTED},
    };
    withMonitor([&](Session& session) {
        RawClient client(session);
        for (const auto& c : cases) {
            SCOPED_TRACE(fmt::format("0x{:X} with {} and {} bytes", c.code, c.input, c.output));
            EXPECT_EQ(c.status, client.control(c.code, c.input, c.output));
            EXPECT_EQ(0u, client.information);
        }
        EXPECT_EQ(STATUS_SUCCESS, client.exchange()) << "a refused exchange took the interface";
        client.release();
    });
}

TEST(Exchange, TouchesNoMoreThanTheRecord) {
    withMonitor([](Session& session) {
        RawClient client(session);
        ASSERT_EQ(STATUS_SUCCESS, client.control(IOCTL_EXCHANGE_INTERFACE, 100, 100));
        EXPECT_EQ(40u, client.information);
        EXPECT_EQ(std::vector<std::uint8_t>(60, 0xA5), client.untouched);
        client.release();
    });
}

TEST(Exchange, ServesOneClientAtATime) {
    withMonitor([](Session& session) {
        RawClient first(session);
        RawClient second(session);
        ASSERT_EQ(STATUS_SUCCESS, first.exchange());
        for (int attempt = 0; attempt < 3; attempt++) {
            EXPECT_EQ(STATUS_UNSUCCESSFUL, second.exchange());
            EXPECT_EQ(0u, second.information);
            EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        }
        first.release();
        ASSERT_EQ(STATUS_SUCCESS, second.exchange());
        EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        second.release();
        ASSERT_EQ(STATUS_SUCCESS, first.exchange());
        first.release();
        first.release(); // once too often: the next client still gets in, and only one
        ASSERT_EQ(STATUS_SUCCESS, second.exchange());
        EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        second.release();
    });
}

TEST(Exchange, LetsExactlyOneOfTwoIn) {
    explore(100, [](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        RawClient first(session);
        RawClient second(session);
        NTSTATUS firstStatus = STATUS_PENDING;
        NTSTATUS secondStatus = STATUS_PENDING;
        {
            ClientThread other("other", [&] { secondStatus = second.exchange(); });
            firstStatus = first.exchange();
        }
        // Both may lose when each found the other's hand on the count; both must not win.
        EXPECT_FALSE(NT_SUCCESS(firstStatus) && NT_SUCCESS(secondStatus));
        RawClient& winner = NT_SUCCESS(firstStatus) ? first : second;
        if (NT_SUCCESS(firstStatus) || NT_SUCCESS(secondStatus)) {
            winner.release();
        }
        EXPECT_EQ(STATUS_SUCCESS, first.exchange());
        first.release();
    });
}

// The next client finds nothing of the last one: no frame, no pixels, the display off.
TEST(Exchange, StartsAfreshForTheNextClient) {
    withMonitor([](Session& session) {
        const Surface picture = pattern("bars", kWidth, kHeight);
        switchOn(session);
        session.present(kDesktop, picture);
        expectPicture(session);
        session.client().close();
        EXPECT_FALSE(session.client().isOpen());

        switchOn(session);
        session.present(kDesktop, pattern("gradient", kWidth, kHeight));
        expectPicture(session);
    });
}

TEST(Exchange, LetsEveryoneOpenTheDevice) {
    withMonitor([](Session& session) {
        RawClient first(session);
        ASSERT_EQ(STATUS_SUCCESS, first.exchange());
        RawClient second(session); // opens although the interface is taken
        first.release();
    });
}

} // namespace
} // namespace system_test
