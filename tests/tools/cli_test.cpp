// rackscan run as a user runs it: the built program as a subprocess, its
// standard output and error taken together, and its exit status.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

std::string quoted(const std::string& arg)
{
    std::string text = "'";
    for (char c : arg) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + "'";
}

Outcome rackscan(const std::vector<std::string>& args)
{
    std::string command = RACKSCAN_BINARY;
    for (const std::string& arg : args) command += " " + quoted(arg);
    command += " 2>&1 </dev/null";
    Outcome run;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return run;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) run.output.append(chunk, n);
    int raw = pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return run;
}

bool mentions(const Outcome& run, const std::string& part) { return run.output.find(part) != std::string::npos; }

// The library is loaded only after the whole command line was accepted.
bool loadedTheLibrary(const Outcome& run) { return mentions(run, "Loading "); }

// The wording of each refusal is the command line's own test; here, what
// every refusal shares as a run: status 2, the program's name, the pointer
// to --help, and no library loaded. Help itself exits 0.
TEST(RackscanArguments, BadCommandLinesExitTwoBeforeLoadingTheLibrary)
{
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {{{}, "no command given"}, {{"send", "Tessel TR0001 R1", "00 A4 0G"}, "'G' at position 8"}};
    for (const auto& c : cases) {
        Outcome run = rackscan(c.args);
        EXPECT_EQ(run.status, 2) << run.output;
        EXPECT_EQ(run.output.rfind("rackscan: ", 0), 0u) << run.output;
        EXPECT_TRUE(mentions(run, c.message)) << run.output;
        EXPECT_TRUE(mentions(run, "rackscan --help")) << run.output;
        EXPECT_FALSE(loadedTheLibrary(run)) << run.output;
    }
    Outcome help = rackscan({"--help"});
    EXPECT_EQ(help.status, 0) << help.output;
    EXPECT_TRUE(mentions(help, "usage: rackscan")) << help.output;
    EXPECT_FALSE(loadedTheLibrary(help));
}

class RackscanLog : public ::testing::Test {
protected:
    void TearDown() override
    {
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
    }
    std::string path_ = ::testing::TempDir() + "rackscan_log_test_" + std::to_string(getpid()) + ".log";
};

// The last lines of the log file; just after a rotation the log holds the
// banner and the rotation line, so the tail of the older part comes first.
TEST_F(RackscanLog, PrintsTheLastLinesOlderPartFirst)
{
    std::string thirty, ten;
    for (int i = 1; i <= 30; ++i)
        thirty += "22-11-2026 10:00:00  [" + std::to_string(i) + "]\tentry " + std::to_string(i) + "\n";
    for (int i = 1; i <= 10; ++i) ten += "entry " + std::to_string(i) + "\n";
    const struct {
        std::string current, older, lines;
        int status;
        std::vector<std::string> shown, hidden;
    } cases[] = {
        {thirty + "no line end", "", "3", 0, {"last 3 of 31 lines", "entry 29\n", "entry 30\nno line end"},
         {"entry 28\n"}},
        {"banner\nLog rotated\n", ten, "5", 0,
         {".1 (before the log was rotated): last 3 of 10 lines", "entry 8\nentry 9\nentry 10\n", "last 2 of 2 lines"},
         {"entry 7\n"}},
        {"", "", "5", 1, {"cannot read the trace log"}, {}},  // no file at all
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.lines);
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
        if (!c.current.empty()) std::ofstream(path_) << c.current;
        if (!c.older.empty()) std::ofstream(path_ + ".1") << c.older;
        Outcome run = rackscan({"log", "--lines", c.lines, "--log-file", path_});
        EXPECT_EQ(run.status, c.status) << run.output;
        for (const std::string& part : c.shown) EXPECT_TRUE(mentions(run, part)) << part << "\n" << run.output;
        for (const std::string& part : c.hidden) EXPECT_FALSE(mentions(run, part)) << part << "\n" << run.output;
        EXPECT_FALSE(loadedTheLibrary(run));
    }
}

// The runs below load the library against the emulated rack and wait for
// the real bring-up, several seconds each, so there are few of them.

TEST(RackscanOnTheEmulatedRack, ListShowsEveryReaderOfEveryRackWithItsCard)
{
    Outcome run = rackscan({"list", "--racks", "2", "--slots", "3", "--cards", "2", "--atr", "3B 02 14 50"});
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(mentions(run, "Waiting for the racks to come up")) << run.output;
    EXPECT_TRUE(mentions(run, "Ready after ")) << run.output;
    for (const char* rack : {"TR0001", "TR0002"}) {
        for (int slot = 1; slot <= 2; ++slot)
            EXPECT_TRUE(mentions(run, "Tessel " + std::string(rack) + " R" + std::to_string(slot) + "  card     3B 02 14 50\n"))
                << rack << " R" << slot << "\n" << run.output;
        EXPECT_TRUE(mentions(run, "Tessel " + std::string(rack) + " R3  no card  -\n")) << run.output;
    }
    EXPECT_TRUE(mentions(run, "6 readers: 4 with a card, 0 mute, 2 empty")) << run.output;
}

TEST(RackscanOnTheEmulatedRack, AnUnknownReaderIsNamedAsTheLibrarysError)
{
    Outcome run = rackscan({"send", "Tessel TR0001 R9", "00A4040000"});
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_TRUE(mentions(run, "SCardConnectA to \"Tessel TR0001 R9\" failed: SCARD_E_READER_UNAVAILABLE (0x80100017)"))
        << run.output;
    // The user is shown the names that do exist.
    EXPECT_TRUE(mentions(run, "  Tessel TR0001 R4\n")) << run.output;
    EXPECT_FALSE(mentions(run, "> 00 A4")) << run.output;
}

TEST(RackscanOnTheEmulatedRack, SendPrintsEachAnswerWithItsStatusWord)
{
    Outcome run = rackscan({"send", "--echo", "Tessel TR0001 R2", "00A4040002 3F00", "80CA9F7F00"});
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(mentions(run, "Connected to Tessel TR0001 R2")) << run.output;
    // An echoing card answers with the command, so its last two bytes come
    // back as the status word.
    EXPECT_TRUE(mentions(run, "> 00 A4 04 00 02 3F 00\n< 00 A4 04 00 02 3F 00\n  SW 3F00, 7 bytes in ")) << run.output;
    EXPECT_TRUE(mentions(run, "> 80 CA 9F 7F 00\n< 80 CA 9F 7F 00\n  SW 7F00, 5 bytes in ")) << run.output;
}

TEST(RackscanOnTheEmulatedRack, DemoShowsReadersACardEventAndAnExchange)
{
    Outcome run = rackscan({"demo"});
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_TRUE(mentions(run, "Tessel TR0001 R1  card     3B 8A 80 01")) << run.output;
    EXPECT_TRUE(mentions(run, "Tessel TR0001 R3: card inserted, ATR 3B 8A 80 01")) << run.output;
    EXPECT_TRUE(mentions(run, "< 90 00\n  SW 9000, 2 bytes in ")) << run.output;
}

}  // namespace
