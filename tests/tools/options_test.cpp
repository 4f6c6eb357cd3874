#include "tools/rackscan/options.h"

#include <gtest/gtest.h>

namespace rackscan {
namespace {

Options accepted(const std::vector<std::string>& args, bool withEmulator = true)
{
    Options options;
    std::string error;
    EXPECT_TRUE(parseCommandLine(args, withEmulator, options, error)) << error;
    return options;
}

std::string refused(const std::vector<std::string>& args, bool withEmulator = true)
{
    Options options;
    std::string error;
    EXPECT_FALSE(parseCommandLine(args, withEmulator, options, error));
    EXPECT_FALSE(error.empty());
    return error;
}

bool mentions(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(CommandLine, CommandsTakeTheirArgumentsAndOptionsBeforeOrAfterWithOrWithoutEquals)
{
    Options before = accepted({"--racks", "3", "--slots=12", "list"});
    EXPECT_EQ(before.command, Command::List);
    EXPECT_EQ(before.emulator.racks, 3);
    EXPECT_EQ(before.emulator.slotsPerRack, 12);

    Options after = accepted({"watch", "--seconds=7", "--demo-events", "--echo"});
    EXPECT_EQ(after.command, Command::Watch);
    EXPECT_EQ(after.watchSeconds, 7);
    EXPECT_TRUE(after.demoEvents);
    EXPECT_TRUE(after.emulator.echo);

    Options log = accepted({"log", "--lines", "5", "--log-file", "/tmp/x.log"});
    EXPECT_EQ(log.logLines, 5);
    EXPECT_EQ(log.logFile, "/tmp/x.log");

    Options atr = accepted({"list", "--atr", "3B 02 14 50"});
    EXPECT_EQ(atr.emulator.atr, (std::vector<uint8_t>{0x3B, 0x02, 0x14, 0x50}));

    Options vcard = accepted({"watch", "--slots", "8", "--vcard", "5-8@35963", "--vcard=1@connect:40000"});
    ASSERT_EQ(vcard.emulator.virtualCards.size(), 2u);
    EXPECT_EQ(vcard.emulator.virtualCards[0].first, 5);
    EXPECT_EQ(vcard.emulator.virtualCards[0].last, 8);
    EXPECT_EQ(vcard.emulator.virtualCards[0].port, 35963);
    EXPECT_FALSE(vcard.emulator.virtualCards[0].connect);
    EXPECT_EQ(vcard.emulator.virtualCards[1].last, 1);
    EXPECT_TRUE(vcard.emulator.virtualCards[1].connect);

    Options library = accepted({"demo", "--library", "/opt/libpcsclite.so.1"});
    EXPECT_EQ(library.libraryPath, "/opt/libpcsclite.so.1");

    Options send = accepted({"send", "Tessel TR0001 R1", "00A4040000", "00 84 00 00 08"});
    EXPECT_EQ(send.command, Command::Send);
    EXPECT_EQ(send.reader, "Tessel TR0001 R1");
    EXPECT_EQ(send.apdus,
              (std::vector<std::vector<uint8_t>>{{0x00, 0xA4, 0x04, 0x00, 0x00}, {0x00, 0x84, 0x00, 0x00, 0x08}}));
}

TEST(CommandLine, HelpWinsOverEverythingElse)
{
    EXPECT_EQ(accepted({"--help"}).command, Command::Help);
    EXPECT_EQ(accepted({"send", "-h"}).command, Command::Help);
    EXPECT_EQ(accepted({"help"}).command, Command::Help);
    EXPECT_EQ(accepted({"nonsense", "--help"}).command, Command::Help);
}

// Each refusal names its reason; the boundary values just inside the ranges
// and the defaults that shrink to a small rack are accepted.
TEST(CommandLine, RefusalsNameTheirReason)
{
    const struct {
        std::vector<std::string> args;
        const char* reason;
    } cases[] = {
        // Missing or unknown commands.
        {{}, "no command"},
        {{"--racks", "2"}, "no command"},
        {{"lsit"}, "unknown command \"lsit\""},
        {{"list", "extra"}, "list takes no arguments"},
        {{"demo", "now"}, "demo takes no arguments"},
        // Unknown options and missing values.
        {{"list", "--verbose"}, "unknown option --verbose"},
        {{"list", "--slots"}, "--slots needs a value"},
        {{"list", "--echo=1"}, "--echo takes no value"},
        {{"list", "--library="}, "--library needs a path"},
        // Numbers out of range.
        {{"list", "--slots", "241"}, "from 1 to 240"},
        {{"watch", "--seconds", "0"}, "--seconds needs"},
        {{"log", "--lines", "0"}, "--lines needs"},
        // Options of another command.
        {{"list", "--lines", "3"}, "--lines does not apply to the list command"},
        {{"send", "--seconds", "3", "R", "00"}, "--seconds does not apply to the send"},
        {{"log", "--racks", "2"}, "--racks does not apply to the log command"},
        {{"demo", "--demo-events"}, "does not apply to the demo command"},
        // Send without its arguments or with bad hex.
        {{"send"}, "needs a reader name"},
        {{"send", "Tessel TR0001 R1"}, "at least one APDU"},
        {{"send", "Tessel TR0001 R1", "0084", "00ZZ"}, "'Z' at position 3"},
        {{"send", "Tessel TR0001 R1", std::string(512, '0')}, "longer than 255 bytes"},
        // An emulator setup that does not fit the rack.
        {{"list", "--slots", "2", "--cards", "3"}, "--cards 3 is more than the 2 slots"},
        {{"list", "--slots", "4", "--cards", "3", "--mute", "2"}, "more than the 4 slots"},
        {{"list", "--atr", "3B0"}, "bad --atr"},
        {{"list", "--atr", std::string(66, 'A')}, "longer than 32 bytes"},
        {{"list", "--vcard", "5@35963"}, "bad --vcard: vcard names slot 5, beyond the 4 slots"},
        {{"list", "--vcard", "2-3@1", "--vcard", "3@9"}, "vcard names slot 3 twice"},
        {{"list", "--vcard", "3@70000"}, "bad --vcard: vcard needs SLOT[-SLOT]@PORT"},
        {{"list", "--vcard", "3"}, "bad --vcard"},
        {{"log", "--vcard", "3@1"}, "--vcard does not apply to the log command"},
    };
    for (const auto& c : cases) EXPECT_TRUE(mentions(refused(c.args), c.reason)) << c.reason;
    for (const char* value : {"0", "17", "-1", "two", "", "1.5", "3x", "99999999999"})
        EXPECT_TRUE(mentions(refused({"list", "--racks", value}), "--racks needs a whole number from 1 to 16"))
            << value;

    EXPECT_EQ(accepted({"list", "--racks", "16", "--slots", "240"}).emulator.slotsPerRack, 240);
    EXPECT_EQ(accepted({"send", "R", std::string(510, '0')}).apdus[0].size(), 255u);
    // Defaults that do not fit a small rack shrink to it.
    Options small = accepted({"list", "--slots", "1"});
    EXPECT_EQ(small.emulator.cardsPerRack, 1);
    EXPECT_EQ(small.emulator.muteCardsPerRack, 0);
    Options mixed = accepted({"list", "--slots", "5", "--cards", "1", "--mute", "4"});
    EXPECT_EQ(mixed.emulator.cardsPerRack, 1);
    EXPECT_EQ(mixed.emulator.muteCardsPerRack, 4);
}

TEST(CommandLine, WithoutTheEmulatorItsOptionsAreUnknown)
{
    for (const char* option : {"--racks", "--slots", "--cards", "--mute", "--atr", "--vcard"})
        EXPECT_TRUE(mentions(refused({"list", option, "1"}, false), std::string("unknown option ") + option))
            << option;
    EXPECT_TRUE(mentions(refused({"list", "--echo"}, false), "no emulated rack"));
    EXPECT_TRUE(mentions(refused({"watch", "--demo-events"}, false), "no emulated rack"));
    EXPECT_EQ(accepted({"watch", "--seconds", "3", "--library", "winscard.dll"}, false).watchSeconds, 3);
}

TEST(CommandLine, UsageTextShowsTheEmulatorOptionsOnlyWhereTheyExist)
{
    std::string with = usageText(true);
    std::string without = usageText(false);
    for (const char* command : {"list", "watch", "send", "log", "demo"}) {
        EXPECT_TRUE(mentions(with, std::string("  ") + command)) << command;
        EXPECT_TRUE(mentions(without, std::string("  ") + command)) << command;
    }
    EXPECT_TRUE(mentions(with, "--racks"));
    EXPECT_FALSE(mentions(without, "--racks"));
}

}  // namespace
}  // namespace rackscan
