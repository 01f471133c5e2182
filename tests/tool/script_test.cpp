// Valid and invalid scripts.
#include "support/input_error.h"
#include "tool/script.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>

namespace tool {
namespace {

template <typename Kind>
Kind only(const char* text) {
    const std::vector<ScriptLine> lines = parseScript(text, "s");
    EXPECT_EQ(lines.size(), 1u) << text;
    return std::get<Kind>(lines.at(0).action);
}

TEST(Script, CountsLinesAndDropsComments) {
    const std::vector<ScriptLine> lines =
        parseScript("# heading\n\n  open  # now\r\n\t\nsave a#b.png\nclose", "s");
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].number, 3u);
    EXPECT_EQ(lines[0].text, "open");
    EXPECT_TRUE(std::holds_alternative<OpenAction>(lines[0].action));
    EXPECT_EQ(lines[1].number, 5u);
    EXPECT_EQ(std::get<SaveAction>(lines[1].action).file, "a#b.png");
    EXPECT_EQ(lines[2].number, 6u);
    EXPECT_TRUE(parseScript("", "s").empty());
}

TEST(Script, ReadsEveryArgument) {
    const auto plug = only<PlugAction>("plug revision=1 link=usb2 bcd-usb=0x0200 transmitter bandwidth=12.5");
    EXPECT_EQ(plug.adapter.revision, 1u);
    EXPECT_EQ(plug.adapter.link, usb::Speed::High);
    EXPECT_EQ(plug.adapter.bcdUsb, 0x0200);
    EXPECT_TRUE(plug.adapter.transmitter);
    EXPECT_EQ(plug.bandwidth, 12'500'000u);
    EXPECT_EQ(only<PlugAction>("plug product=alt").adapter.product, model::Product::Alt);
    EXPECT_EQ(only<PlugAction>("plug").adapter.revision, 2u);

    EXPECT_EQ(only<RegistryAction>("registry fullhd30enable 0x10").name, "FullHD30Enable");
    EXPECT_EQ(only<RegistryAction>("registry EepromData @f.bin").value, "@f.bin");
    EXPECT_EQ(only<CreateAction>("create 18446744073709551615 800x600").identifier, UINT64_MAX);
    EXPECT_EQ(only<CreateAction>("create 1 800x600").size, (support::Size{800, 600}));
    EXPECT_TRUE(only<DisplayAction>("display on").on);
    EXPECT_EQ(only<PresentAction>("present 2 bars").frames, 1u);
    EXPECT_EQ(only<PresentAction>("stream 2 bars 30").frames, 30u);
    EXPECT_EQ(only<RotateAction>("rotate 3").rotation, ROTATION_HALF);
    EXPECT_EQ(only<WaitAction>("wait 250").milliseconds, 250u);
    EXPECT_EQ(only<ExpectAction>("expect bits 16").what, Expectation::Bits16);
    EXPECT_EQ(only<MemoryAction>("memory flash f").memory, model::Memory::Flash);
    EXPECT_EQ(only<TransmitterAction>("transmitter deaf").state, TransmitterState::Deaf);
    EXPECT_EQ(only<DdcAction>("ddc-busy").fault, model::DdcFault::Busy);

    const auto arrow = only<PointerAction>("pointer arrow -5 10");
    EXPECT_EQ(arrow.shape, "arrow");
    EXPECT_EQ(arrow.x, -5);
    EXPECT_EQ(arrow.y, 10);
    EXPECT_FALSE(only<PointerAction>("pointer f.png").x);
    EXPECT_TRUE(only<PointerAction>("pointer move 1 2").shape.empty());
    EXPECT_FALSE(only<PointerAction>("pointer hide").visible);
}

TEST(Script, NamesTheLineTheValueAndWhatIsAllowed) {
    const std::pair<const char*, const char*> cases[] = {
        {"fly", "action \"fly\" is unknown; allowed are registry, plug"},
        {"open now", "wrong arguments; allowed is \"open\""},
        {"registry Nonsense 1", "setting \"Nonsense\" is unknown; allowed are FullHD50Enable"},
        {"registry FullHD50Enable yes",
         "FullHD50Enable is \"yes\"; allowed is a number from 0 to 4294967295"},
        {"registry FullHD50Enable @f", "takes no @FILE; allowed are EepromData and SpiData"},
        {"registry EepromData 1", "allowed is @FILE"},
        {"registry EepromData @", "takes no @FILE"},
        {"plug revision=4", "revision is \"4\"; allowed is a number from 0 to 3"},
        {"plug link=usb1", "link is \"usb1\"; allowed are usb2, usb3"},
        {"plug speed=3", "wrong arguments; allowed is \"plug [revision=0..3]"},
        {"plug bandwidth=0", "bandwidth is \"0\"; allowed are 0.001 to 100000"},
        {"plug revision=1 product=alt", "revision 1 exists as product=main only"},
        {"attach", "allowed is \"attach FILE.bin|default|none\""},
        {"create 1 800", "size is \"800\"; allowed is WIDTHxHEIGHT"},
        {"create 1 0x600", "size is \"0x600\""},
        {"create 1 800x9000", "each from 1 to 8192"},
        {"create x 800x600", "frame buffer is \"x\""},
        {"create -1 800x600", "frame buffer is \"-1\""},
        {"display maybe", "display is \"maybe\"; allowed are on, off"},
        {"stream 1 bars 0", "number of frames is \"0\""},
        {"pointer move 1", "wrong arguments; allowed is \"pointer arrow|beam"},
        {"pointer move", "wrong arguments"},
        {"pointer arrow 1", "wrong arguments"},
        {"pointer arrow 1 99999", "Y is \"99999\"; allowed is a number from -32768 to 32768"},
        {"rotate 0", "rotation is \"0\"; allowed is a number from 1 to 4"},
        {"wait 1s", "milliseconds is \"1s\""},
        {"wait 99999999999999999999", "milliseconds is"},
        {"expect miracles", "expectation is \"miracles\"; allowed are picture, dark"},
        {"expect bits 32", "bits per pixel is \"32\"; allowed are 8, 16, 24"},
        {"expect picture now", "wrong arguments"},
        {"memory rom f", "memory is \"rom\"; allowed are eeprom, flash"},
    };
    for (const auto& [line, expected] : cases) {
        try {
            parseScript(std::string("# first\n") + line + "\n", "\"s.txt\"");
            ADD_FAILURE() << line << " was taken";
        } catch (const support::InputError& error) {
            const std::string message = error.what();
            EXPECT_TRUE(message.starts_with("\"s.txt\", line 2: ")) << message;
            EXPECT_NE(message.find(expected), std::string::npos) << message;
            EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        }
    }
}

RC_GTEST_PROP(Script, TakesOrRefusesAnyText, (const std::string& text)) {
    try {
        for (const ScriptLine& line : parseScript(text, "s")) {
            RC_ASSERT(line.number >= 1u);
        }
    } catch (const support::InputError&) {
    }
}

} // namespace
} // namespace tool
