// Frame buffers under many schedules: the frame update thread reads whole frames without traces of the
// pointer, the newest frame is shown, and no reference is lost or released twice.
#include "platform/kernel/pool.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/clock.h"
#include "surface/cursor_drawing.h"
#include "surface/cursor_shape.h"
#include "surface/frame_buffer.h"
#include "surface/frame_pixels.h"
#include "surface/pointer.h"
#include "surface/present.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <vector>

namespace {

constexpr ULONG kWidth = 12;
constexpr ULONG kHeight = 6;
constexpr ULONG kPixels = kWidth * kHeight;
constexpr ULONG kPointerSize = 2;
constexpr std::uint32_t kPointerColor = 0x00ABCDEF;

// The frame buffers of a device without the rest of the driver, and a client that fills each frame with one
// number.
class ClientSide {
  public:
    std::unique_ptr<DEVICE_CONTEXT> context = std::make_unique<DEVICE_CONTEXT>();
    std::function<void(const FRAME_FILL_REQUEST&)> fill; // instead of the plain fill

    ClientSide() {
        FRAMEBUFFER_InitializeList(context.get());
        MUTEX_Initialize(&context->Surface.SubmitMutex);
        KeInitializeEvent(&context->Render.StoppedEvent, NotificationEvent, FALSE);
        context->Render.RenderRunning = 1;
        context->Client.DisplayOn = 1;
        context->Client.ClientInterface.Context = this;
        context->Client.ClientInterface.CommandEntry = command;
    }

    NTSTATUS create(ULONGLONG identifier, ULONGLONG byteSize, ULONG width, ULONG height) {
        FRAME_BUFFER_REQUEST request = {};
        request.Identifier = identifier;
        request.ByteSize = byteSize;
        request.Width = width;
        request.Height = height;
        FRAME_BUFFER_CONTEXT* frameBuffer;
        return FRAMEBUFFER_Create(context.get(), &request, 1, &frameBuffer);
    }

    NTSTATUS present(ULONGLONG identifier, ULONG frame, ULONG width = kWidth, ULONG height = kHeight) {
        PRESENT_REQUEST request = {};
        request.Identifier = identifier;
        request.ClientValue = frame;
        request.ByteSize = std::uint64_t{width} * height * 4;
        request.FrameKey = frame;
        request.Width = width;
        request.Height = height;
        return FRAMEBUFFER_Present(context.get(), &request);
    }

    void setPointerShape() {
        std::uint32_t bits[kPointerSize * kPointerSize];
        std::fill(std::begin(bits), std::end(bits), 0xFF000000 | kPointerColor);
        POINTER_SHAPE shape = {};
        shape.Type = POINTER_COLOR_ALPHA;
        shape.Width = shape.Height = kPointerSize;
        shape.Pitch = kPointerSize * 4;
        shape.Bits = bits;
        CURSOR_Update(context.get(), nullptr, &shape);
    }

    void movePointer(ULONG x, ULONG y) {
        const POINTER_POSITION position = {0, x, y, 1};
        CURSOR_Update(context.get(), &position, nullptr);
    }

    // Reads like the frame update thread; calls `look` while it owns the pixels.
    bool read(const std::function<void(const FRAME_BUFFER_CONTEXT&)>& look) {
        FRAME_BUFFER_CONTEXT* frameBuffer = FRAMEBUFFER_FindPending(context.get(), kWidth, kHeight);
        if (frameBuffer == nullptr) {
            return false;
        }
        const bool owned = FRAMEBUFFER_AcquireToRead(context.get(), frameBuffer);
        if (owned) {
            look(*frameBuffer);
            FRAMEBUFFER_ReleasePixels(frameBuffer);
        }
        FRAMEBUFFER_Dereference(context.get(), frameBuffer);
        return owned;
    }

    static void fillWith(const FRAME_FILL_REQUEST& request, std::uint32_t value) {
        auto* bytes = static_cast<std::uint8_t*>(request.PixelBuffer);
        const std::size_t count = request.ByteSize / 4;
        for (std::size_t i = 0; i < count; i++) {
            if (i == count / 2) {
                kernel::schedulingPoint(kernel::Point::Yield);
            }
            std::memcpy(bytes + i * 4, &value, sizeof(value));
        }
    }

  private:
    static NTSTATUS command(VOID* self, ULONG code, VOID* input, ULONGLONG inputLength, VOID* output,
                            ULONGLONG outputLength, ULONG* bytesReturned) {
        EXPECT_EQ(code, CLIENT_CMD_FILL_FRAME_BUFFER);
        EXPECT_EQ(inputLength, sizeof(FRAME_FILL_REQUEST));
        EXPECT_EQ(output, nullptr);
        EXPECT_EQ(outputLength, 0u);
        EXPECT_NE(bytesReturned, nullptr);
        const auto& request = *static_cast<const FRAME_FILL_REQUEST*>(input);
        auto* client = static_cast<ClientSide*>(self);
        if (client->fill) {
            client->fill(request);
        } else {
            fillWith(request, static_cast<std::uint32_t>(request.ClientValue));
        }
        return STATUS_UNSUCCESSFUL; // the driver ignores it
    }
};

std::uint32_t pixelAt(const FRAME_BUFFER_CONTEXT& frame, std::size_t index) {
    std::uint32_t value;
    std::memcpy(&value, frame.PixelBuffer + index * 4, sizeof(value));
    return value;
}

// All pixels have one frame number, except one pointer, which may be clipped.
testing::AssertionResult isWhole(const FRAME_BUFFER_CONTEXT& frame) {
    std::set<std::uint32_t> frames;
    std::vector<std::size_t> pointer;
    for (std::size_t i = 0; i < kPixels; i++) {
        const std::uint32_t value = pixelAt(frame, i);
        if ((value & 0x00FFFFFF) == kPointerColor) {
            pointer.push_back(i);
        } else {
            frames.insert(value);
        }
    }
    if (frames.size() > 1) {
        return testing::AssertionFailure() << "pixels of " << frames.size() << " frames in one";
    }
    if (pointer.size() > kPointerSize * kPointerSize) {
        return testing::AssertionFailure() << pointer.size() << " pixels of the pointer";
    }
    for (const std::size_t i : pointer) {
        if (i % kWidth - pointer.front() % kWidth >= kPointerSize ||
            i / kWidth - pointer.front() / kWidth >= kPointerSize) {
            return testing::AssertionFailure() << "the pointer is drawn at two positions";
        }
    }
    return testing::AssertionSuccess();
}

void onMachine(const kernel::SchedulerOptions& options, const std::function<void()>& body) {
    SCOPED_TRACE(testing::Message() << "SIM_SEED=" << options.seed);
    kernel::Scheduler scheduler(options);
    scheduler.run([&] {
        body();
        EXPECT_TRUE(kernel::poolInUse().empty()) << "a frame buffer was not freed";
    });
}

void onMachine(const std::function<void()>& body) {
    onMachine(kernel::SchedulerOptions{}, body);
}

// Presents two frame buffers, moves the pointer, reads, and destroys the frame buffers at the same time.
// Returns how many frames were read.
unsigned presentMoveReadDestroy(int presents) {
    ClientSide side;
    side.setPointerShape();
    unsigned reads = 0;
    std::vector<kernel::Task*> tasks;
    const auto start = [&](const char* name, std::function<void()> body) {
        tasks.push_back(&kernel::spawn(name, kernel::TaskKind::Host, std::move(body)));
    };
    for (ULONG presenter = 0; presenter < 2; presenter++) {
        start("presenter", [&, presenter] {
            for (int i = 0; i < presents; i++) {
                // Both tasks present both frame buffers, so that they also compete for the same pixels.
                const ULONG frame = static_cast<ULONG>(1 + 2 * i) + presenter;
                EXPECT_EQ(side.present((frame / 2) % 2, frame), STATUS_SUCCESS);
            }
        });
    }
    start("pointer", [&] {
        for (ULONG i = 0; i < static_cast<ULONG>(2 * presents); i++) {
            side.movePointer(i % (kWidth + 3) - 1, i % 5);
            kernel::schedulingPoint(kernel::Point::Yield);
        }
    });
    start("reader", [&] {
        for (int i = 0; i < 2 * presents; i++) {
            reads += side.read([](const FRAME_BUFFER_CONTEXT& frame) {
                EXPECT_TRUE(isWhole(frame));
                kernel::schedulingPoint(kernel::Point::Yield);
                EXPECT_TRUE(isWhole(frame));
            });
            kernel::schedulingPoint(kernel::Point::Yield);
        }
    });
    start("destroyer", [&] {
        for (int i = 0; i < presents; i++) {
            FRAMEBUFFER_Destroy(side.context.get(), static_cast<ULONGLONG>(i % 2));
            kernel::schedulingPoint(kernel::Point::Yield);
        }
    });
    for (kernel::Task* task : tasks) {
        kernel::join(*task);
    }
    FRAMEBUFFER_DestroyAll(side.context.get());
    return reads;
}

} // namespace

TEST(FrameBuffers, AreReadWholeUnderEverySchedule) {
    unsigned reads = 0;
    for (const kernel::Strategy strategy : {kernel::Strategy::Random, kernel::Strategy::Pct}) {
        for (std::uint64_t seed = 1; seed <= 150 && !HasFailure(); seed++) {
            kernel::SchedulerOptions options;
            options.seed = seed;
            options.strategy = strategy;
            onMachine(options, [&] { reads += presentMoveReadDestroy(6); });
        }
    }
    EXPECT_GT(reads, 300u) << "too few reads between the other tasks";
}

TEST(FrameBuffersFree, AreReadWholeOnRealThreads) {
    kernel::SchedulerOptions options;
    options.mode = kernel::Mode::Free;
    onMachine(options, [] { presentMoveReadDestroy(3000); });
}

// A pointer update finds the current frame and loses the processor. It must not submit that frame after a
// present has submitted a newer one.
TEST(FrameBuffers, APointerUpdateNeverSubmitsAnOlderFrame) {
    for (std::uint64_t seed = 1; seed <= 300 && !HasFailure(); seed++) {
        kernel::SchedulerOptions options;
        options.seed = seed;
        onMachine(options, [] {
            ClientSide side;
            side.setPointerShape();
            side.movePointer(0, 0);
            EXPECT_EQ(side.present(1, 1), STATUS_SUCCESS);
            kernel::Task& pointer = kernel::spawn("pointer", kernel::TaskKind::Host, [&] {
                side.movePointer(4, 1);
                side.movePointer(7, 2);
            });
            EXPECT_EQ(side.present(2, 2), STATUS_SUCCESS);
            kernel::join(pointer);
            EXPECT_TRUE(side.read([](const FRAME_BUFFER_CONTEXT& frame) {
                EXPECT_TRUE(isWhole(frame));
                EXPECT_EQ(frame.FrameKey, 2u);
                EXPECT_EQ(pixelAt(frame, 2 * kWidth + 7), kPointerColor) << "the last move is not shown";
            }));
            FRAMEBUFFER_DestroyAll(side.context.get());
        });
    }
}

TEST(FrameBuffers, DestroyedInUseAreFreedByTheLastUser) {
    onMachine([] {
        ClientSide side;
        ASSERT_EQ(side.create(5, kPixels * 4, kWidth, kHeight), STATUS_SUCCESS);
        ASSERT_EQ(side.present(5, 1), STATUS_SUCCESS);
        const bool owned = side.read([&](const FRAME_BUFFER_CONTEXT& frame) {
            // A client may destroy it several times.
            for (int i = 0; i < 3; i++) {
                FRAMEBUFFER_Destroy(side.context.get(), 5);
                FRAMEBUFFER_DestroyAll(side.context.get());
            }
            EXPECT_EQ(pixelAt(frame, 0), 1u);
        });
        EXPECT_TRUE(owned);
        // The next frame buffer may get the same address.
        SPIN_LOCK_GUARD list(side.context->Surface.FrameBufferListLock);
        EXPECT_EQ(side.context->Surface.PendingFrameBuffer, nullptr) << "a freed frame is still pending";
    });
}

TEST(FrameBuffers, AnIdentifierInDestructionCanBeReusedForAnotherSize) {
    onMachine([] {
        ClientSide side;
        side.fill = [&](const FRAME_FILL_REQUEST&) {
            side.fill = nullptr;
            FRAMEBUFFER_Destroy(side.context.get(), 5);
            EXPECT_EQ(side.present(5, 2), STATUS_SUCCESS);
            EXPECT_TRUE(side.read([](const FRAME_BUFFER_CONTEXT& frame) { EXPECT_EQ(frame.FrameKey, 2u); }));
        };
        ASSERT_EQ(side.present(5, 1, 4, 4), STATUS_SUCCESS);
        FRAMEBUFFER_Destroy(side.context.get(), 5);
    });
}

TEST(FrameBuffers, AStopEndsTheWaitForAClientThatHangsWhileFilling) {
    onMachine([] {
        ClientSide side;
        ASSERT_EQ(side.present(5, 1), STATUS_SUCCESS);
        std::atomic<bool> hang = true;
        side.fill = [&](const FRAME_FILL_REQUEST&) {
            while (hang) {
                kernel::waitUntil(&hang, {"a client that hangs"}, kernel::now() + usb::kSecond,
                                  [&] { return !hang; });
            }
        };
        kernel::Task& presenter = kernel::spawn("presenter", kernel::TaskKind::Host,
                                                [&] { EXPECT_EQ(side.present(5, 2), STATUS_SUCCESS); });
        kernel::waitUntil(&side, {"the fill"}, kernel::now() + usb::kSecond, [] { return false; });
        kernel::Task& reader = kernel::spawn("reader", kernel::TaskKind::Host, [&] {
            EXPECT_FALSE(side.read([](const FRAME_BUFFER_CONTEXT&) {}));
        });
        // A pointer move does not wait for the client either.
        side.movePointer(1, 1);
        KeSetEvent(&side.context->Render.StoppedEvent, IO_NO_INCREMENT, FALSE);
        kernel::join(reader);
        hang = false;
        kernel::join(presenter);
        FRAMEBUFFER_DestroyAll(side.context.get());
    });
}

TEST(FrameBuffers, AreShownOnlyWithEnoughBytesForTheMode) {
    const struct {
        const char* what;
        ULONGLONG byteSize;
        ULONG width, height;
        bool shown;
    } cases[] = {
        {"as large as it says", kPixels * 4, kWidth, kHeight, true},
        {"larger", kPixels * 8, kWidth, kHeight, true},
        {"one byte short", kPixels * 4 - 1, kWidth, kHeight, false},
        {"empty", 0, kWidth, kHeight, false},
        {"of another size than the mode", kPixels * 4, kWidth, kHeight - 1, false},
        {"without dimensions", kPixels * 4, 0, 0, false},
        {"of the largest dimensions", kPixels * 4, 0xFFFFFFFF, 0xFFFFFFFF, false},
    };
    onMachine([&] {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            ClientSide side;
            side.setPointerShape();
            side.fill = [](const FRAME_FILL_REQUEST&) {}; // a client that fills nothing
            ASSERT_EQ(side.create(1, c.byteSize, c.width, c.height), STATUS_SUCCESS);
            side.movePointer(0x7FFFFFFF, 0x7FFFFFFF);
            side.movePointer(0, 0);
            ASSERT_EQ(side.present(1, 1), STATUS_SUCCESS);
            unsigned lit = 0;
            EXPECT_EQ(side.read([&](const FRAME_BUFFER_CONTEXT& frame) {
                for (std::size_t i = 0; i < kPixels; i++) {
                    lit += pixelAt(frame, i) != 0;
                }
            }),
                      c.shown);
            EXPECT_EQ(lit, c.shown ? kPointerSize * kPointerSize : 0) << "memory of the pool is visible";
            FRAMEBUFFER_DestroyAll(side.context.get());
        }
    });
}
