// The layout of the records between client and driver: each record is written and read byte by byte at
// numeric offsets, without its struct, and each field that the driver uses is checked by its effect. All
// other bytes are 0xEE.
#include "tests/system/rig.h"

#include "platform/kernel/driver_call.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace system_test {
namespace {

class Record {
  public:
    explicit Record(std::size_t size) : bytes_(size, 0xEE) {}
    Record(const void* bytes, std::size_t size)
        : bytes_(static_cast<const std::uint8_t*>(bytes), static_cast<const std::uint8_t*>(bytes) + size) {}

    Record& store(std::size_t offset, std::size_t size, std::uint64_t value) {
        for (std::size_t i = 0; i < size; i++) {
            bytes_.at(offset + i) = static_cast<std::uint8_t>(value >> 8 * i);
        }
        return *this;
    }
    Record& byte(std::size_t offset, std::uint8_t value) { return store(offset, 1, value); }
    Record& word(std::size_t offset, std::uint32_t value) { return store(offset, 4, value); }
    Record& quad(std::size_t offset, std::uint64_t value) { return store(offset, 8, value); }
    Record& pointer(std::size_t offset, const void* value) {
        return quad(offset, reinterpret_cast<std::uintptr_t>(value));
    }

    std::uint64_t load(std::size_t offset, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; i++) {
            value |= std::uint64_t{bytes_.at(offset + i)} << 8 * i;
        }
        return value;
    }
    std::uint32_t word(std::size_t offset) const { return static_cast<std::uint32_t>(load(offset, 4)); }
    std::uint64_t quad(std::size_t offset) const { return load(offset, 8); }

    std::vector<std::uint8_t>& bytes() { return bytes_; }

  private:
    std::vector<std::uint8_t> bytes_;
};

// What a fill request said; the client has then copied its picture into the pixel buffer.
struct Fill {
    std::uint64_t identifier;
    std::uint64_t clientValue;
    std::uint64_t byteSize;
    std::uint64_t zero;
    bool operator==(const Fill&) const = default;
};

class ByteClient {
  public:
    explicit ByteClient(Session& session) : session_(session) {
        const auto links = session.machine().interfaces(GUID_DEVINTERFACE_USB_DISPLAY);
        require(session.machine().open(links.at(0), handle_), "opening the interface");
        Record mine(40);
        mine.word(0, 1).word(4, 0).quad(8, 40).pointer(16, this);
        mine.quad(24, reinterpret_cast<std::uintptr_t>(&entry));
        mine.quad(32, reinterpret_cast<std::uintptr_t>(&release));
        ULONG_PTR information = 0;
        require(
            session.machine().internalControl(*handle_, 0x220003, mine.bytes(), driver_.bytes(), information),
            "exchanging records");
        EXPECT_EQ(40u, information);
        EXPECT_EQ(1u, driver_.word(0));
        EXPECT_EQ(0u, driver_.word(4));
        EXPECT_EQ(40u, driver_.quad(8));
    }
    ~ByteClient() {
        kernel::callDriver("ReleaseEntry", reinterpret_cast<RELEASE_ENTRY*>(driver_.quad(32)), context());
        session_.machine().close(handle_);
    }
    ByteClient(const ByteClient&) = delete;
    ByteClient& operator=(const ByteClient&) = delete;

    void command(std::uint32_t code, Record record) {
        ULONG returned = 0;
        auto* const commandEntry = reinterpret_cast<COMMAND_ENTRY*>(driver_.quad(24));
        EXPECT_EQ(STATUS_SUCCESS, kernel::callDriver("CommandEntry", commandEntry, context(), ULONG{code},
                                                     static_cast<VOID*>(record.bytes().data()),
                                                     ULONGLONG{record.bytes().size()},
                                                     static_cast<VOID*>(nullptr), ULONGLONG{0}, &returned))
            << "command " << code;
    }

    void createFrameBuffer(std::uint64_t identifier, std::uint64_t byteSize, unsigned width,
                           unsigned height) {
        command(1, Record(40).quad(0, identifier).quad(16, byteSize).word(24, width).word(28, height));
    }
    void destroyFrameBuffer(std::uint64_t identifier) { command(2, Record(40).quad(0, identifier)); }

    // The fill request that came from inside the present.
    std::optional<Fill> present(std::uint64_t identifier, std::uint64_t clientValue, std::uint64_t byteSize,
                                std::uint32_t frameKey, const Surface& picture) {
        fill_.reset();
        picture_ = &picture;
        command(3, Record(48)
                       .quad(0, identifier)
                       .quad(8, clientValue)
                       .quad(16, byteSize)
                       .word(24, frameKey)
                       .word(28, picture.width)
                       .word(32, picture.height));
        return fill_;
    }

    void movePointer(std::uint32_t x, std::uint32_t y, bool visible) {
        Record position(16);
        position.word(4, x).word(8, y).word(12, visible ? 1 : 0);
        command(4, Record(16).pointer(0, position.bytes().data()).pointer(8, nullptr));
    }
    void setPointer(std::uint32_t type, std::uint32_t width, std::uint32_t height, std::uint32_t pitch,
                    const std::vector<std::uint8_t>& bits) {
        Record shape(40);
        shape.word(0, type).word(4, width).word(8, height).word(12, pitch).pointer(24, bits.data());
        command(4, Record(16).pointer(0, nullptr).pointer(8, shape.bytes().data()));
    }
    void setDisplayPower(bool on) { command(5, Record(8).byte(4, on ? 1 : 0)); }
    void setRotation(std::uint32_t rotation) { command(8, Record(32).word(24, rotation)); }

  private:
    VOID* context() const { return reinterpret_cast<VOID*>(driver_.quad(16)); }

    static NTSTATUS entry(VOID* context, ULONG code, VOID* input, ULONGLONG inputLength, VOID*, ULONGLONG,
                          ULONG*) {
        EXPECT_EQ(0u, code);
        EXPECT_EQ(40u, inputLength);
        ByteClient& client = *static_cast<ByteClient*>(context);
        const Record request(input, 40);
        client.fill_ = Fill{request.quad(0), request.quad(8), request.quad(24), request.quad(32)};
        const auto& pixels = client.picture_->pixels;
        std::copy(pixels.begin(), pixels.end(), reinterpret_cast<support::Pixel*>(request.quad(16)));
        return STATUS_SUCCESS;
    }
    static VOID release(VOID*) {}

    Session& session_;
    std::shared_ptr<platform::InterfaceHandle> handle_;
    Record driver_{40};
    const Surface* picture_ = nullptr;
    std::optional<Fill> fill_;
};

constexpr unsigned kSize[] = {800, 600};
constexpr std::uint64_t kBytes = std::uint64_t{kSize[0]} * kSize[1] * 4;
constexpr std::uint64_t kFirst = 0x1122334455667788;
constexpr std::uint64_t kSecondBuffer = 0x99AABBCCDDEEFF00;

void withByteClient(const std::function<void(Session&, ByteClient&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        ByteClient client(session);
        client.createFrameBuffer(kFirst, kBytes + 64, kSize[0], kSize[1]);
        client.setDisplayPower(true);
        body(session, client);
    });
}

TEST(ClientAbi, PlacesTheFieldsOfFrameBuffers) {
    withByteClient([](Session& session, ByteClient& client) {
        const std::optional<model::OutputMode> mode = session.adapter().outputMode();
        ASSERT_TRUE(mode);
        EXPECT_EQ(kSize[0], mode->width);
        EXPECT_EQ(kSize[1], mode->height);

        const Surface bars = pattern("bars", kSize[0], kSize[1]);
        // The size of the frame buffer that was created counts, not that of the present.
        EXPECT_EQ((Fill{kFirst, 0x0102030405060708, kBytes + 64, 0}),
                  client.present(kFirst, 0x0102030405060708, kBytes, 5, bars));
        expectPicture(session, bars);

        // A present of an unknown frame buffer creates it from the fields of the present.
        const Surface gradient = pattern("gradient", kSize[0], kSize[1]);
        EXPECT_EQ((Fill{kSecondBuffer, 0x1817161514131211, kBytes + 128, 0}),
                  client.present(kSecondBuffer, 0x1817161514131211, kBytes + 128, 7, gradient));
        expectPicture(session, gradient);

        client.destroyFrameBuffer(kFirst);
        EXPECT_EQ((Fill{kFirst, 1, kBytes, 0}), client.present(kFirst, 1, kBytes, 5, bars));
        EXPECT_EQ((Fill{kSecondBuffer, 1, kBytes + 128, 0}),
                  client.present(kSecondBuffer, 1, kBytes, 7, gradient));
        expectPicture(session, gradient);

        client.setDisplayPower(false);
        session.machine().sleep(100 * kMillisecond);
        EXPECT_FALSE(session.adapter().picture());
    });
}

// A pointer of opaque pixels, no two of which are equal, 5 wide and 3 high in rows of 24 bytes.
constexpr unsigned kPointer[] = {5, 3};

support::Pixel pointerPixel(unsigned x, unsigned y) {
    return support::makePixel(200 + 8 * x, 16 + 40 * y, 100);
}

std::vector<std::uint8_t> pointerBits() {
    Record bits(24 * kPointer[1]);
    for (unsigned y = 0; y < kPointer[1]; y++) {
        for (unsigned x = 0; x < kPointer[0]; x++) {
            bits.word(24 * y + 4 * x, pointerPixel(x, y));
        }
    }
    return bits.bytes();
}

TEST(ClientAbi, PlacesTheFieldsOfThePointer) {
    constexpr std::uint32_t kColorAlpha = 2;
    constexpr std::uint32_t kHalfTurn = 3;
    constexpr unsigned kX = 100;
    constexpr unsigned kY = 40;
    withByteClient([&](Session& session, ByteClient& client) {
        const Surface first = pattern("bars", kSize[0], kSize[1]);
        const Surface current = pattern("gradient", kSize[0], kSize[1]);
        client.present(kFirst, 0, kBytes, 5, first);
        client.present(kSecondBuffer, 0, kBytes, 7, current);
        client.setPointer(kColorAlpha, kPointer[0], kPointer[1], 24, pointerBits());
        // The frame with the key of the last present gets the pointer.
        client.movePointer(kX, kY, true);
        Surface expected = current;
        Surface turned = current;
        for (unsigned y = 0; y < kPointer[1]; y++) {
            for (unsigned x = 0; x < kPointer[0]; x++) {
                expected.at(kX + x, kY + y) = pointerPixel(x, y);
                turned.at(kSize[0] - 1 - kX - x, kSize[1] - 1 - kY - y) = pointerPixel(x, y);
            }
        }
        expectPicture(session, expected);

        client.movePointer(kX, kY, false);
        expectPicture(session, current);
        client.setRotation(kHalfTurn);
        client.setPointer(kColorAlpha, kPointer[0], kPointer[1], 24, pointerBits());
        client.movePointer(kX, kY, true);
        expectPicture(session, turned);

        client.movePointer(kX, kY, false);
        expectPicture(session, current);
    });
}

} // namespace
} // namespace system_test
