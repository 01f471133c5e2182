// The commands of the client: the status of each, and that the driver survives every record.
#include "tests/system/rig.h"

#include "platform/kernel/driver_call.h"
#include "platform/kernel/fault_points.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <fmt/format.h>
#include <list>
#include <numeric>
#include <random>

namespace system_test {
namespace {

using Bytes = std::vector<std::uint8_t>;

template <typename Record>
std::span<std::uint8_t> bytesOf(Record& record) {
    return {reinterpret_cast<std::uint8_t*>(&record), sizeof record};
}

// A running desktop with a picture on the monitor.
void withDesktop(const std::function<void(Session&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        showDesktop(session, adapter());
        body(session);
        if (session.client().isOpen()) {
            session.movePointer(0, 0, false);
            show(session, gradient());
        }
    });
}

TEST(Commands, AnswerByCodeAndLength) {
    const CallCase cases[] = {
        {CMD_QUERY_EDID, 0, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_QUERY_EDID, 0, 127, STATUS_BUFFER_TOO_SMALL},
        {CMD_QUERY_EDID, 0, 256, STATUS_SUCCESS},
        {CMD_CREATE_FRAME_BUFFER, 39, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_CREATE_FRAME_BUFFER, 0, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_DESTROY_FRAME_BUFFER, 39, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_DESTROY_FRAME_BUFFER, 40, 0, STATUS_SUCCESS}, // no frame buffer has that identifier
        {CMD_DESTROY_FRAME_BUFFER, 100, 0, STATUS_SUCCESS},
        {CMD_PRESENT_FRAME, 47, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_SET_POINTER, 15, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_SET_POINTER, 16, 0, STATUS_SUCCESS}, // neither position nor shape
        {CMD_SET_DISPLAY_POWER, 7, 0, STATUS_BUFFER_TOO_SMALL},
        {CMD_SET_CLIENT_VALUE, 0, 0, STATUS_SUCCESS},
        {CMD_SET_CLIENT_VALUE, 8, 0, STATUS_SUCCESS},
        {7, 32, 32, STATUS_NOT_SUPPORTED},
        {CMD_SET_ROTATION, 31, 0, STATUS_INVALID_PARAMETER},
        {CMD_SET_ROTATION, 33, 0, STATUS_INVALID_PARAMETER},
        {CMD_SET_ROTATION, 0, 0, STATUS_INVALID_PARAMETER},
        {CMD_SET_ROTATION, 32, 0, STATUS_SUCCESS},
        {9, 100, 100, STATUS_NOT_SUPPORTED},
        {0xFFFFFFFF, 100, 100, STATUS_NOT_SUPPORTED},
    };
    withDesktop([&](Session& session) {
        for (const auto& c : cases) {
            SCOPED_TRACE(fmt::format("code {} with {} and {} bytes", c.code, c.input, c.output));
            Bytes input(c.input, 0);
            Bytes output(c.output, 0);
            EXPECT_EQ(c.status, session.client().command(c.code, input, output));
        }
    });
}

TEST(Commands, ClearTheReturnedLength) {
    withDesktop([](Session& session) {
        const INTERFACE_RECORD driver = session.client().driverRecord();
        for (const ULONG code : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 1000u}) {
            ULONG returned = 77;
            (void)kernel::callDriver("CommandEntry", driver.CommandEntry, driver.Context, code,
                                     static_cast<VOID*>(nullptr), ULONGLONG{0}, static_cast<VOID*>(nullptr),
                                     ULONGLONG{0}, &returned);
            EXPECT_EQ(0u, returned) << code;
        }
    });
}

TEST(Commands, WriteTheEdidOnceOrTwice) {
    runSession(inOrder(), [](Session& session) {
        session.attachMonitor(rig::builtinEdid());
        session.plug(adapter());
        session.openClient();
        std::array<std::uint8_t, EDID_BLOCK_SIZE> edid{};
        require(session.client().queryEdid(edid), "querying the EDID");
        const std::uint8_t header[] = {0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0};
        EXPECT_TRUE(std::equal(std::begin(header), std::end(header), edid.begin()));
        EXPECT_EQ(0, std::accumulate(edid.begin(), edid.end(), 0) % 256);
        for (const std::size_t length : {128u, 129u, 255u, 256u, 257u, 1000u}) {
            SCOPED_TRACE(length);
            Bytes output(length, 0xA5);
            EXPECT_EQ(STATUS_SUCCESS, session.client().command(CMD_QUERY_EDID, {}, output));
            const std::size_t copies = length >= 256 ? 2 : 1;
            for (std::size_t i = 0; i < length; i++) {
                ASSERT_EQ(i < copies * 128 ? edid[i % 128] : 0xA5, output[i]) << "at " << i;
            }
        }
    });
}

// A frame too large for any mode is dropped without an error; one at the limit is accepted.
TEST(Commands, DropFramesThatAreTooLarge) {
    const struct {
        ULONGLONG bytes;
        ULONG width;
        ULONG height;
        bool kept;
    } cases[] = {
        {PRESENT_MAX_BYTES, 2048, 1152, true},
        {PRESENT_MAX_BYTES + 1, 2048, 1152, false},
        {0x100000000, 640, 480, false},
        {~ULONGLONG{0}, 640, 480, false},
        {4096, 2049, 1153, false},
        {4096, 2049, 1152, true},
        {4096, 2048, 4000, true},
        {4096, 0xFFFFFFFF, 0xFFFFFFFF, false},
        {4096, 0xFFFFFFFF, 1, true},
    };
    withDesktop([&](Session& session) {
        std::uint64_t identifier = 100;
        for (const auto& c : cases) {
            SCOPED_TRACE(fmt::format("{} bytes of {}x{}", c.bytes, c.width, c.height));
            PRESENT_REQUEST request{};
            request.Identifier = ++identifier;
            request.ByteSize = c.bytes;
            request.FrameKey = 1000 + static_cast<ULONG>(identifier);
            request.Width = c.width;
            request.Height = c.height;
            request.Pitch = c.width * 4;
            const std::uint64_t allocations = session.machine().poolAllocations();
            EXPECT_EQ(STATUS_SUCCESS, session.client().command(CMD_PRESENT_FRAME, bytesOf(request), {}));
            EXPECT_EQ(c.kept, session.machine().poolAllocations() > allocations)
                << "a dropped frame makes no frame buffer";
            EXPECT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(identifier));
        }
    });
}

TEST(Commands, ReportMissingMemory) {
    withDesktop([](Session& session) {
        FRAME_BUFFER_REQUEST create{};
        create.Identifier = 9;
        create.ByteSize = ~ULONGLONG{0};
        create.Width = kWidth;
        create.Height = kHeight;
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
                  session.client().command(CMD_CREATE_FRAME_BUFFER, bytesOf(create), {}));
        for (std::uint64_t k = 1; k <= 2; k++) {
            kernel::armFault(k, kernel::FaultMode::Once);
            EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, session.client().createFrameBuffer(9, 100, 100));
            kernel::armFault(k, kernel::FaultMode::Once);
            EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, session.client().present(9, pattern("bars", 100, 100)));
            kernel::disarmFault();
        }
        EXPECT_EQ(STATUS_SUCCESS, session.client().present(9, pattern("bars", 100, 100)));
        EXPECT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(9));
        EXPECT_EQ(STATUS_SUCCESS, session.client().createFrameBuffer(9, kWidth, kHeight));
        EXPECT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(9));
    });
}

// Only a change of the display power accesses the adapter.
TEST(Commands, SwitchTheDisplayOnlyOnce) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        const auto writesOf = [&](bool on) {
            const std::uint64_t before = session.adapter().statistics().registerWrites;
            session.setDisplayPower(on);
            return session.adapter().statistics().registerWrites - before;
        };
        EXPECT_EQ(0u, writesOf(false));
        EXPECT_GT(writesOf(true), 0u);
        EXPECT_EQ(0u, writesOf(true));
        show(session, bars());
        EXPECT_GT(writesOf(false), 0u);
        EXPECT_EQ(0u, writesOf(false));
        session.machine().sleep(100 * kMillisecond);
        EXPECT_FALSE(session.adapter().picture());
        EXPECT_GT(writesOf(true), 0u);
    });
}

// A display-on whose mode cannot be set answers with success, as every one does. Repeated, it tries again.
TEST(Commands, RepeatADisplayOnThatSetNoMode) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        session.openClient();
        session.createFrameBuffer(99, 100, 100); // no mode has this size
        session.setDisplayPower(true);
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        show(session, bars());
    });
}

TEST(Commands, KeepTheRotationWhenTheRecordIsWrong) {
    withDesktop([](Session& session) {
        session.setRotation(ROTATION_HALF);
        ROTATION_REQUEST wrong{};
        wrong.Rotation = ROTATION_QUARTER;
        Bytes longer(33, 0);
        std::memcpy(longer.data(), &wrong, sizeof(wrong));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, session.client().command(CMD_SET_ROTATION, longer, {}));
        session.setPointer(desktop::builtinPointer("arrow"));
        session.movePointer(20, 20, true);
        expectPicture(session); // rotated by a half turn
        session.setRotation(ROTATION_NONE);
        session.setPointer(desktop::builtinPointer("arrow"));
    });
}

// An adapter that sleeps, with a client that has created a frame buffer.
void withSleepingAdapter(const std::function<void(Session&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session);
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.suspend();
        body(session);
    });
}

// At most 501 waits of 10 ms for D0.
TEST(DisplayOnInLowPower, TimesOut) {
    withSleepingAdapter([](Session& session) {
        const usb::Time begin = now(session);
        EXPECT_EQ(STATUS_DRIVER_CANCEL_TIMEOUT, session.client().setDisplayPower(true));
        EXPECT_EQ(5010 * kMillisecond, now(session) - begin);
        session.resume();
        session.machine().sleep(kSecond);
        session.setDisplayPower(true); // owed since the time-out
        show(session, bars());
    });
}

TEST(DisplayOnInLowPower, ContinuesWhenTheDeviceWakes) {
    withSleepingAdapter([](Session& session) {
        NTSTATUS status = STATUS_PENDING;
        {
            ClientThread client("client", [&] { status = session.client().setDisplayPower(true); });
            session.machine().sleep(2 * kSecond);
            EXPECT_EQ(STATUS_PENDING, status);
            session.resume();
        }
        EXPECT_EQ(STATUS_SUCCESS, status);
        show(session, bars());
    });
}

// What happens while a display-on waits decides how it ends, and that what happens need not wait for it.
TEST(DisplayOnInLowPower, GivesWay) {
    const struct {
        const char* what;
        std::function<void(Session&)> meanwhile;
        NTSTATUS status;
    } cases[] = {
        {"to a display-off", [](Session& session) { session.setDisplayPower(false); }, STATUS_SUCCESS},
        {"to a surprise removal", [](Session& session) { session.surpriseRemove(); }, STATUS_DEVICE_REMOVED},
        {"to a removal", [](Session& session) { session.remove(); }, STATUS_DRIVER_CANCEL_TIMEOUT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        withSleepingAdapter([&](Session& session) {
            NTSTATUS status = STATUS_PENDING;
            {
                ClientThread client("client", [&] { status = session.client().setDisplayPower(true); });
                session.machine().sleep(kSecond);
                c.meanwhile(session);
            }
            EXPECT_EQ(c.status, status);
            if (session.plugged()) {
                session.resume();
                session.machine().sleep(kSecond);
                EXPECT_FALSE(session.adapter().outputMode()) << "switched on after all";
            }
        });
    }
}

// Variants of a valid record, with one field after another at the limits of its range. Pool guards, and the
// sanitizers in builds that have them, find accesses out of bounds; the next picture must be right.

constexpr std::uint64_t kExtremes[] = {0,          1,          2,          3,          7,         255,
                                       256,        257,        1023,       65535,      65536,     0x7FFFFFFF,
                                       0x80000000, 0x80000001, 0xFFFFFFFC, 0xFFFFFFFE, 0xFFFFFFFF};
constexpr std::uint64_t kWideExtremes[] = {0x100000000,        0x3FFFFFFFFFFFFFFF, 0x7FFFFFFFFFFFFFFF,
                                           0x8000000000000000, 0xFFFFFFFFFFFFFFF0, 0xFFFFFFFFFFFFFFFF};

struct Field {
    std::size_t offset;
    std::size_t width;
};

// Calls `use` with every variant of `record`.
template <typename Record>
void forEachVariant(const Record& record, std::span<const Field> fields,
                    const std::function<void(Record&)>& use) {
    const auto put = [&](Record& variant, const Field& field, std::uint64_t value) {
        std::memcpy(reinterpret_cast<std::uint8_t*>(&variant) + field.offset, &value, field.width);
    };
    const auto valuesOf = [](const Field& field) {
        std::vector<std::uint64_t> values(std::begin(kExtremes), std::end(kExtremes));
        if (field.width == 8) {
            values.insert(values.end(), std::begin(kWideExtremes), std::end(kWideExtremes));
        }
        return values;
    };
    for (const Field& field : fields) {
        for (const std::uint64_t value : valuesOf(field)) {
            Record variant = record;
            put(variant, field, value);
            SCOPED_TRACE(fmt::format("field at {} is 0x{:X}", field.offset, value));
            use(variant);
        }
    }
    // A fixed sample with several changed fields.
    std::mt19937 random(1);
    for (int i = 0; i < 300; i++) {
        Record variant = record;
        for (const Field& field : fields) {
            const std::vector<std::uint64_t> values = valuesOf(field);
            if (random() % 2 == 0) {
                put(variant, field, values[random() % values.size()]);
            }
        }
        SCOPED_TRACE(fmt::format("sample {}", i));
        use(variant);
    }
}

constexpr Field kFrameBufferFields[] = {{0, 8}, {8, 8}, {16, 8}, {24, 4}, {28, 4}, {32, 4}, {36, 4}};
constexpr Field kPresentFields[] = {{0, 8}, {16, 8}, {24, 4}, {28, 4}, {32, 4}, {36, 4}, {40, 4}, {44, 4}};

// The machine's pool refuses the largest sizes. Those that it would accept although they are gigabytes are
// left out.
bool wouldFillTheMachine(ULONGLONG bytes) {
    return bytes > 64 << 20 && bytes < ULONGLONG{1} << 40;
}

TEST(HostileRecords, FrameBuffersOfAnyShape) {
    withDesktop([](Session& session) {
        const FRAME_BUFFER_REQUEST sane = {50, 0, 64 * 64 * 4, 64, 64, 64 * 4, 0};
        session.setPointer(desktop::builtinPointer("halo"));
        forEachVariant<FRAME_BUFFER_REQUEST>(sane, kFrameBufferFields, [&](FRAME_BUFFER_REQUEST& request) {
            if (wouldFillTheMachine(request.ByteSize) || request.Identifier == kDesktop) {
                return;
            }
            const NTSTATUS created = session.client().command(CMD_CREATE_FRAME_BUFFER, bytesOf(request), {});
            ASSERT_TRUE(created == STATUS_SUCCESS || created == STATUS_INSUFFICIENT_RESOURCES);
            // The pointer is drawn into any frame buffer that becomes current.
            PRESENT_REQUEST present{};
            present.Identifier = request.Identifier;
            present.FrameKey = 77;
            ASSERT_EQ(STATUS_SUCCESS, session.client().command(CMD_PRESENT_FRAME, bytesOf(present), {}));
            ASSERT_EQ(STATUS_SUCCESS, session.client().movePointer(3, 3, true));
            ASSERT_EQ(STATUS_SUCCESS, session.client().movePointer(-2, -2, true));
            ASSERT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(request.Identifier));
        });
        // The desktop's size is that of the last frame buffer created.
        require(session.client().createFrameBuffer(60, kWidth, kHeight), "creating a frame buffer");
    });
}

TEST(HostileRecords, PresentsOfAnyShape) {
    withDesktop([](Session& session) {
        const PRESENT_REQUEST sane = {50, 0, 64 * 64 * 4, 5, 64, 64, 64 * 4, {0, 0}};
        session.setPointer(desktop::builtinPointer("cross"));
        session.movePointer(1, 1, true);
        forEachVariant<PRESENT_REQUEST>(sane, kPresentFields, [&](PRESENT_REQUEST& request) {
            if (request.Identifier == kDesktop) {
                return;
            }
            const NTSTATUS status = session.client().command(CMD_PRESENT_FRAME, bytesOf(request), {});
            ASSERT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES);
            ASSERT_EQ(STATUS_SUCCESS, session.client().movePointer(5, 5, true));
            ASSERT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(request.Identifier));
        });
    });
}

// A display of any size that a client can name.
TEST(HostileRecords, ModesOfAnySize) {
    withDesktop([](Session& session) {
        for (const std::uint64_t width : kExtremes) {
            for (const std::uint64_t height : {std::uint64_t{480}, std::uint64_t{0}, width}) {
                FRAME_BUFFER_REQUEST request = {
                    70, 0, 4096, static_cast<ULONG>(width), static_cast<ULONG>(height), 0, 0};
                ASSERT_EQ(STATUS_SUCCESS,
                          session.client().command(CMD_CREATE_FRAME_BUFFER, bytesOf(request), {}));
                switchOffAndOn(session);
                ASSERT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(70));
            }
        }
        // A frame buffer of the mode's dimensions that holds less than their pixels is never sent.
        FRAME_BUFFER_REQUEST small = {71, 0, 4096, kWidth, kHeight, kWidth * 4, 0};
        ASSERT_EQ(STATUS_SUCCESS, session.client().command(CMD_CREATE_FRAME_BUFFER, bytesOf(small), {}));
        switchOffAndOn(session);
        PRESENT_REQUEST present{};
        present.Identifier = 71;
        present.FrameKey = 5;
        const std::uint64_t frames = session.adapter().statistics().framesReceived;
        ASSERT_EQ(STATUS_SUCCESS, session.client().command(CMD_PRESENT_FRAME, bytesOf(present), {}));
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(frames, session.adapter().statistics().framesReceived);
        ASSERT_EQ(STATUS_SUCCESS, session.client().destroyFrameBuffer(71));
    });
}

TEST(HostileRecords, PointersOfAnyShape) {
    constexpr Field kFields[] = {{0, 4}, {4, 4}, {8, 4}, {12, 4}, {16, 8}, {32, 4}, {36, 4}};
    // Exactly the largest size of a shape, so that the sanitizer finds any read beyond it.
    const Bytes bits(262144, 0x3C);
    withDesktop([&](Session& session) {
        for (const ULONG type : {1u, 2u, 4u}) {
            for (const DISPLAY_ROTATION rotation :
                 {ROTATION_NONE, ROTATION_QUARTER, ROTATION_HALF, ROTATION_THREE_QUARTERS,
                  static_cast<DISPLAY_ROTATION>(0xFFFFFFFF)}) {
                session.setRotation(rotation);
                POINTER_SHAPE sane{};
                sane.Type = type;
                sane.Width = 32;
                sane.Height = 24;
                sane.Pitch = type == 1 ? 4 : 128;
                sane.Bits = bits.data();
                forEachVariant<POINTER_SHAPE>(sane, kFields, [&](POINTER_SHAPE& shape) {
                    POINTER_POSITION position{0, 10, 10, 1};
                    POINTER_REQUEST request{&position, &shape};
                    ASSERT_EQ(STATUS_SUCCESS,
                              session.client().command(CMD_SET_POINTER, bytesOf(request), {}));
                });
            }
        }
        session.setRotation(ROTATION_NONE);
        session.setPointer(desktop::builtinPointer("arrow"));
    });
}

TEST(HostileRecords, PointersAnywhere) {
    constexpr Field kFields[] = {{0, 4}, {4, 4}, {8, 4}, {12, 4}};
    withDesktop([&](Session& session) {
        for (const char* name : {"arrow", "halo", "cross"}) {
            for (const DISPLAY_ROTATION rotation :
                 {ROTATION_NONE, ROTATION_QUARTER, ROTATION_HALF, ROTATION_THREE_QUARTERS}) {
                session.setRotation(rotation);
                session.setPointer(desktop::builtinPointer(name));
                forEachVariant<POINTER_POSITION>({0, 10, 10, 1}, kFields, [&](POINTER_POSITION& position) {
                    POINTER_REQUEST request{&position, nullptr};
                    ASSERT_EQ(STATUS_SUCCESS,
                              session.client().command(CMD_SET_POINTER, bytesOf(request), {}));
                });
            }
        }
        session.setRotation(ROTATION_NONE);
        session.setPointer(desktop::builtinPointer("arrow"));
        session.movePointer(5, 5, true);
        expectPicture(session);
    });
}

// Clients with another fill callback than desktop::Client: one that sends commands, one that fails, one that
// is slow.

const PRESENT_REQUEST kPresent = {kDesktop, 0x1234,  kWidth* kHeight * 4, 3,
                                  kWidth,   kHeight, kWidth * 4,          {0, 0}};

void withRawClient(const std::function<void(Session&, RawClient&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session);
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        RawClient client(session);
        require(client.exchange(), "exchanging");
        require(
            client.command(CMD_CREATE_FRAME_BUFFER, FRAME_BUFFER_REQUEST{kDesktop, 0, kWidth * kHeight * 4,
                                                                         kWidth, kHeight, kWidth * 4, 0}),
            "creating");
        require(client.command(CMD_SET_DISPLAY_POWER, DISPLAY_POWER_REQUEST{0, 1, {}}), "switching on");
        body(session, client);
        client.release();
    });
}

void expectShade(Session& session, std::uint8_t shade) {
    session.machine().sleep(100 * kMillisecond);
    const std::optional<model::Picture> picture = session.adapter().picture();
    ASSERT_TRUE(picture);
    EXPECT_EQ(shade, picture->pixels[0]);
}

// None of the commands waits for the end of the fill, not even those for the frame buffer that is being
// filled.
TEST(FillCallbacks, MaySendCommands) {
    withRawClient([](Session& session, RawClient& client) {
        PRESENT_REQUEST other = kPresent;
        other.Identifier = 2;
        other.FrameKey = 4;
        ULONG column = 0;
        const auto movePointer = [&] {
            POINTER_POSITION position{0, ++column, 9, 1};
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_SET_POINTER, POINTER_REQUEST{&position, nullptr}));
        };
        client.fill = [&](const FRAME_FILL_REQUEST& request) {
            EXPECT_EQ(0x1234u, request.ClientValue);
            EXPECT_EQ(std::uint64_t{kWidth} * kHeight * 4, request.ByteSize);
            EXPECT_EQ(0u, request.Zero);
            std::memset(request.PixelBuffer, 0x40, request.ByteSize);
            if (request.Identifier == kDesktop) {
                movePointer();
                EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
                EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, other));
                movePointer();
            }
            return STATUS_SUCCESS;
        };
        // From the second time on the frame buffer is the current one.
        EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
        EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
        expectShade(session, 0x40);
    });
}

TEST(FillCallbacks, MayDestroyTheirFrameBuffer) {
    withRawClient([](Session& session, RawClient& client) {
        client.fill = [&](const FRAME_FILL_REQUEST& request) {
            FRAME_BUFFER_REQUEST destroy{};
            destroy.Identifier = request.Identifier;
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_DESTROY_FRAME_BUFFER, destroy));
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_DESTROY_FRAME_BUFFER, destroy));
            std::memset(request.PixelBuffer, 0x60, request.ByteSize);
            return STATUS_UNSUCCESSFUL; // the driver ignores the status
        };
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
        }
        session.machine().sleep(100 * kMillisecond);
    });
}

TEST(FillCallbacks, MayBeSlow) {
    withRawClient([](Session& session, RawClient& client) {
        bool isFirst = true;
        client.fill = [&](const FRAME_FILL_REQUEST& request) {
            session.machine().sleep(std::exchange(isFirst, false) ? kSecond / 2 : 3 * kSecond);
            std::memset(request.PixelBuffer, 0x20, request.ByteSize);
            return STATUS_SUCCESS;
        };
        {
            // The display is switched off while the second frame is being filled, and the frame update thread
            // waits for the pixels to show the first one.
            const auto present = [&] {
                EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
            };
            ClientThread first("first presenter", present);
            ClientThread second("second presenter", present);
            session.machine().sleep(kSecond);
            const usb::Time begin = now(session);
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_SET_DISPLAY_POWER, DISPLAY_POWER_REQUEST{0, 0, {}}));
            EXPECT_LT(now(session) - begin, kSecond);
            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_SET_DISPLAY_POWER, DISPLAY_POWER_REQUEST{0, 1, {}}));
        }
        expectShade(session, 0x20);
    });
}

// Client threads that fill one frame buffer in turn, without a pause, leave the frame update thread its
// turn.
TEST(FillCallbacks, OfSeveralThreadsLetFramesBeShown) {
    const struct {
        unsigned presenters;
        unsigned fillMs;
        unsigned shown; // at least, in two seconds
    } cases[] = {{2, 1, 500}, {2, 11, 80}, {2, 30, 30}, {4, 1, 400}, {4, 11, 40}, {4, 30, 15}};
    for (const auto& c : cases) {
        SCOPED_TRACE(fmt::format("{} presenters of {} ms", c.presenters, c.fillMs));
        withRawClient([&](Session& session, RawClient& client) {
            std::uint8_t shade = 0;
            client.fill = [&](const FRAME_FILL_REQUEST& request) {
                session.machine().sleep(c.fillMs * kMillisecond);
                std::memset(request.PixelBuffer, ++shade, request.ByteSize);
                return STATUS_SUCCESS;
            };
            std::atomic<unsigned> shown = 0;
            session.adapter().setScreenListener([&] { shown++; });
            const usb::Time end = now(session) + 2 * kSecond;
            {
                std::list<ClientThread> presenters;
                for (unsigned i = 0; i < c.presenters; i++) {
                    presenters.emplace_back("presenter", [&] {
                        while (now(session) < end) {
                            EXPECT_EQ(STATUS_SUCCESS, client.command(CMD_PRESENT_FRAME, kPresent));
                        }
                    });
                }
            }
            session.adapter().setScreenListener(nullptr);
            EXPECT_GE(shown, c.shown);
        });
    }
}

} // namespace
} // namespace system_test
