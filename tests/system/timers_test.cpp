// The two control loops, in virtual time: the compression level follows the size of the frames; dropped
// frames reduce the output to 16 bits, and a periodic check returns it to 24 bits.
#include "tests/system/rig.h"

#include "rig/driver_probe.h"

#include <fmt/format.h>

namespace system_test {
namespace {

// A frame whose stream has about `literalRows` x `width` x 2 bytes at every level: rows in which no two
// neighboring pixels are equal, above an area of one color.
Surface frameOf(unsigned width, unsigned height, unsigned literalRows) {
    Surface frame(width, height, 0xFF000000);
    for (unsigned y = 0; y < literalRows; y++) {
        for (unsigned x = 0; x < width; x++) {
            frame.at(x, y) = x % 2 == 0 ? 0xFFFFFFFF : 0xFF000000;
        }
    }
    return frame;
}

constexpr unsigned kWide = 800;
constexpr unsigned kHigh = 600;
const Surface& large() { // 960,000 bytes
    static const Surface frame = frameOf(kWide, kHigh, 600);
    return frame;
}
const Surface& medium() { // 320,000 bytes: between the thresholds of 286,720 and 491,520
    static const Surface frame = frameOf(kWide, kHigh, 200);
    return frame;
}
const Surface& small() { // 160,000 bytes
    static const Surface frame = frameOf(kWide, kHigh, 100);
    return frame;
}

unsigned level(Session& session) {
    return rig::probeDriver(session.client()).value().compressionLevel;
}

unsigned newestBuffer(Session& session) {
    return rig::probeDriver(session.client()).value().newestBuffer;
}

// A link on which no frame waits for another.
PlugOptions fastAdapter(usb::Speed speed) {
    PlugOptions options = adapter(2, speed);
    options.bandwidth = 2'000'000'000;
    return options;
}

TEST(CompressionLevel, RisesEveryTenMillisecondsWhileFramesAreLarge) {
    for (const std::uint32_t cpuFeatures : {0xFFFFFFFFu, 0u}) {
        SCOPED_TRACE(cpuFeatures == 0 ? "tolerant encoder" : "group encoder");
        SessionOptions options = inOrder();
        options.cpuFeatures = cpuFeatures;
        runSession(options, [](Session& session) {
            plugWithMonitor(session, fastAdapter(usb::Speed::High));
            switchOn(session, kWide, kHigh);
            EXPECT_EQ(5u, level(session));
            session.present(kDesktop, large());

            std::vector<usb::Time> rises;
            unsigned last = level(session);
            const usb::Time begin = now(session);
            while (now(session) < begin + 200 * kMillisecond) {
                session.machine().sleep(kMillisecond / 10);
                if (const unsigned current = level(session); current != last) {
                    EXPECT_EQ(last + 1, current);
                    rises.push_back(now(session));
                    last = current;
                }
            }
            EXPECT_EQ(12u, last);
            for (std::size_t i = 1; i < rises.size(); i++) {
                const usb::Time gap = rises[i] - rises[i - 1];
                EXPECT_GE(gap, 99 * kMillisecond / 10);
                EXPECT_LE(gap, 12 * kMillisecond);
            }
            // From then on the same buffer is sent again, until the pixels change.
            const unsigned newest = newestBuffer(session);
            for (unsigned look = 0; look < 100; look++) {
                session.machine().sleep(kMillisecond);
                EXPECT_EQ(newest, newestBuffer(session));
            }
            expectPicture(session);
            session.movePointer(20, 20, true);
            session.setPointer(desktop::builtinPointer("arrow"));
            expectPicture(session);
        });
    }
}

TEST(CompressionLevel, FollowsTheSizeOfTheFrames) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session, fastAdapter(usb::Speed::High));
        switchOn(session, kWide, kHigh);
        const auto show = [&](const Surface& frame) {
            session.present(kDesktop, frame);
            session.machine().sleep(5 * kMillisecond);
        };
        show(large());
        EXPECT_EQ(6u, level(session));
        // Ends the repetitions, and the level stays.
        show(medium());
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(6u, level(session));
        show(small());
        EXPECT_EQ(6u, level(session));
        show(small());
        EXPECT_EQ(5u, level(session));
        // A larger frame between two small ones restarts the count.
        show(small());
        show(medium());
        show(small());
        EXPECT_EQ(5u, level(session));
        show(small());
        EXPECT_EQ(4u, level(session));
        for (unsigned frame = 0; frame < 10; frame++) {
            show(small());
        }
        EXPECT_EQ(3u, level(session)) << "the lowest level of 16-bit output";
        // A picture that does not change is only sent again, so the level stays.
        session.machine().sleep(kSecond);
        EXPECT_EQ(3u, level(session));
        expectPicture(session);
    });
}

TEST(CompressionLevel, StaysOnASuperSpeedLink) {
    runSession(inOrder({setting("Usb3PixelFormatTransformCompressionEnable", 1)}), [](Session& session) {
        plugWithMonitor(session, fastAdapter(usb::Speed::Super));
        switchOn(session, kWide, kHigh);
        for (const Surface* frame : {&large(), &small(), &small(), &small()}) {
            session.present(kDesktop, *frame);
            session.machine().sleep(50 * kMillisecond);
            EXPECT_EQ(5u, level(session));
        }
        expectPicture(session);
    });
}

std::string_view formatOf(Session& session) {
    const std::optional<model::OutputMode> mode = session.adapter().outputMode();
    return mode ? model::name(mode->format) : "none";
}

// The format after one more frame.
std::string_view formatAfterAFrame(Session& session, unsigned number) {
    session.present(kDesktop, noise(number));
    session.machine().sleep(400 * kMillisecond);
    return formatOf(session);
}

// Waits for `frames` transfers, and ends between two.
void passFrames(Session& session, std::uint64_t frames) {
    const std::uint64_t end = session.adapter().statistics().framesReceived + frames;
    while (session.adapter().statistics().framesReceived < end) {
        session.machine().sleep(kMillisecond);
    }
    session.machine().sleep(2 * kMillisecond);
}

struct BucketCase {
    const char* name;
    std::vector<rig::Setting> settings;
    std::vector<unsigned> framesBeforeError; // one error after so many frames, and so on
    bool reduced;                            // to 16 bits
    unsigned errorsBeforeSleep = 0;          // none: no sleep
};

TEST(FrameErrorBucket, CausesTheChangeTo16Bits) {
    const rig::Setting bucket = setting("UseFrameErrorBucket", 1);
    const BucketCase cases[] = {
        {"every error counts without the bucket", {}, {1}, true},
        {"one error is not enough", {bucket}, {1}, false},
        {"a second one after 10 frames is", {bucket}, {1, 10}, true},
        {"after 11 frames it is not", {bucket}, {1, 11}, false},
        {"but a third one is", {bucket}, {1, 11, 5}, true},
        {"an increment at the threshold", {bucket, setting("FrameErrorBucketIncrementValue", 30)}, {1}, true},
        {"an increment just below it", {bucket, setting("FrameErrorBucketIncrementValue", 29)}, {1}, false},
        {"a threshold of nothing", {bucket, setting("FrameErrorBucketThreshold", 0)}, {1}, true},
        {"an error before a sleep", {}, {1}, false, 1},
        {"one before and one after it", {bucket}, {1, 1}, false, 1},
        {"without bandwidth detection", {setting("UseBandwidthDetectionEnable", 0)}, {1, 1, 1}, false},
        {"without adjustment", {setting("UseDynamicPixelBytesAdjustmentEnable", 0)}, {1, 1, 1}, false},
    };
    for (const BucketCase& c : cases) {
        SCOPED_TRACE(c.name);
        runSession(inOrder(c.settings), [&](Session& session) {
            showDesktop(session, slowAdapter());
            unsigned errors = 0;
            for (const unsigned frames : c.framesBeforeError) {
                passFrames(session, frames);
                session.adapter().reportFrameError();
                session.machine().sleep(2 * kMillisecond);
                if (++errors == c.errorsBeforeSleep) {
                    session.suspend();
                    session.resume();
                }
            }
            EXPECT_EQ(model::name(c.reduced ? model::PixelFormat::Rgb565 : model::PixelFormat::Bgr24),
                      formatAfterAFrame(session, 1));
            expectPicture(session);
        });
    }
}

TEST(FrameErrorBucket, IgnoresErrorsBeforeTheFirstFrame) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        switchOn(session);
        session.adapter().reportFrameError();
        session.machine().sleep(10 * kMillisecond);
        EXPECT_EQ(model::name(model::PixelFormat::Bgr24), formatAfterAFrame(session, 1));
        EXPECT_EQ(model::name(model::PixelFormat::Bgr24), formatAfterAFrame(session, 2));
    });
}

TEST(FrameErrorBucket, IsEmptiedByAModeSet) {
    runSession(inOrder({setting("UseFrameErrorBucket", 1)}), [](Session& session) {
        showDesktop(session, slowAdapter());
        session.adapter().reportFrameError();
        session.machine().sleep(2 * kMillisecond);
        switchOffAndOn(session);
        show(session, gradient());
        session.adapter().reportFrameError();
        session.machine().sleep(2 * kMillisecond);
        EXPECT_EQ(model::name(model::PixelFormat::Bgr24), formatAfterAFrame(session, 1));
    });
}

// The check returns the output to 24 bits a whole period after the change to 16 bits, whenever that was.
TEST(DropFrameCheck, FollowsTheChangeAfterFiveSeconds) {
    runSession(inOrder({setting("DynamicAdjustPixelBytesAtRunTimeThreshold", 3)}), [](Session& session) {
        constexpr usb::Time kPeriod = 5 * kSecond;
        plugWithMonitor(session, slowAdapter());
        switchOn(session);
        unsigned frame = 0;
        const auto presentUntil = [&](model::PixelFormat format) {
            return session.waitFor(3 * kPeriod, [&] {
                session.present(kDesktop, noise(++frame % 2));
                session.machine().sleep(18 * kMillisecond);
                return formatOf(session) == model::name(format);
            });
        };
        for (unsigned round = 0; round < 3; round++) {
            SCOPED_TRACE(fmt::format("round {}", round));
            presentUntil(model::PixelFormat::Bgr24);
            session.machine().sleep(round * kPeriod * 11 / 20);
            session.adapter().reportFrameError();
            ASSERT_TRUE(presentUntil(model::PixelFormat::Rgb565));
            const usb::Time reduced = now(session);
            ASSERT_TRUE(presentUntil(model::PixelFormat::Bgr24));
            // The test sees a switch 20 ms late; the stop for the switch back takes 100 ms.
            EXPECT_NEAR(now(session) - reduced, kPeriod + 80 * kMillisecond, 100 * kMillisecond);
            expectPicture(session);
        }
        session.adapter().reportFrameError();
        ASSERT_TRUE(presentUntil(model::PixelFormat::Rgb565));
        EXPECT_FALSE(presentUntil(model::PixelFormat::Bgr24)) << "more often than allowed";
    });
}

// With the default of 0 the output stays at 16 bits until the next mode set.
TEST(DropFrameCheck, NeverReturnsTo24BitsByDefault) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter());
        session.adapter().reportFrameError();
        session.machine().sleep(10 * kMillisecond);
        EXPECT_EQ(model::name(model::PixelFormat::Rgb565), formatAfterAFrame(session, 1));
        for (unsigned second = 0; second < 12; second++) {
            session.machine().sleep(kSecond);
            EXPECT_EQ(model::name(model::PixelFormat::Rgb565), formatAfterAFrame(session, second));
        }
        expectPicture(session);
        switchOffAndOn(session);
        EXPECT_EQ(model::name(model::PixelFormat::Bgr24), formatAfterAFrame(session, 1));
        expectPicture(session);
    });
}

// The link is really too slow; the test reports no frame error.
TEST(DropFrameCheck, FollowsALinkThatIsTooSlow) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter(), pattern("bars", 1280, 1024));
        session.link().setBandwidth(120'000'000); // 3.9 MB a frame: 30 frames a second
        session.machine().sleep(kSecond);
        session.present(kDesktop, pattern("gradient", 1280, 1024));
        session.machine().sleep(400 * kMillisecond);
        EXPECT_EQ(model::name(model::PixelFormat::Rgb565), formatOf(session));
        EXPECT_GT(session.adapter().statistics().frameErrors, 0u);
        expectPicture(session);
    });
}

} // namespace
} // namespace system_test
