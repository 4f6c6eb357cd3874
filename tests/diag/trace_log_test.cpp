// The trace log's entry formats, its start, its lock, its failures, its
// settings and its rotation, read back from the files as a user would find
// them.
//
// The settings are read when the log starts, which in the library is the
// banner at load. These tests set the environment in this process and then
// start the log afresh as a new load does (g_logPath emptied under its
// lock), so each start reads the settings again; no child process needed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "diag/text.h"
#include "diag/trace_log.h"
#include "pcsc/winscard_api.h"
#include "platform/test_seam.h"
#include "support/rack_fixture.h"

namespace {

using test_support::readFile;

class TraceLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = "/tmp/tessel-tracelog-" + std::to_string(getpid()) + ".log";
        platform::testing::setLogFilePath(path_);
        restartLog();
    }
    void TearDown() override
    {
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
        unsetenv("TESSEL_TRACE");
        unsetenv("TESSEL_TRACE_LIMIT");
        platform::testing::setLogFilePath("");
        restartLog();
    }
    // Sets or (with nullptr) removes one setting of the next load.
    static void setSetting(const char* name, const char* value)
    {
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    // A new load of the library: the next entry starts the log afresh.
    static void restartLog()
    {
        std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
        g_logPath.clear();
    }
    std::string path_;
};

const char* kNarrowStamp = R"(\d{2}-\d{2}-\d{4} \d{2}:\d{2}:\d{2}  \[(0|[1-9]\d{0,2})\]\t)";
const char* kWideStamp = R"(\d{2}-\d{2}-\d{4} \d{2}:\d{2}:\d{2}\t)";

// Narrow entries: date, two blanks, the unpadded tick phase and a tab; one
// without a line end is followed on the same line. Wide entries: date and
// tab only, a character without a narrow form becoming '?'. The first entry
// empties what an earlier load left.
TEST_F(TraceLog, EntriesAreStampedByTheirWidthAndTheFirstEmptiesAnOldFile)
{
    {
        FILE* old = std::fopen(path_.c_str(), "w");
        std::fputs("left over from an earlier load\n", old);
        std::fclose(old);
    }
    logWrite("Checking");
    logWrite("match\r\n");
    logWriteWide(L"SCardConnectW: Tessel A1 R7 \u20ac\u00e9 end\n");
    logWrite("done\n");
    std::string text = readFile(path_);
    std::string expected = std::string(kNarrowStamp) + "Checking" + kNarrowStamp + "match\r\n" + kWideStamp +
                           "SCardConnectW: Tessel A1 R7 \\?\\? end\n" + kNarrowStamp + "done\n";
    EXPECT_TRUE(std::regex_match(text, std::regex(expected))) << text;
}

// Threads write at once, and with a small limit the log moves aside to
// ".1" while they do, the move held up long enough for every other thread
// to come with an entry meanwhile: every entry is found exactly once across
// the two files, whole, and in each thread's order; each file opens with the
// banner, and the new one says where the older entries went. About 90 bytes
// an entry: 16 x 60 entries pass 64 KiB once, not twice.
TEST_F(TraceLog, ThreadsWritingAtOnceLoseAndMixNothing)
{
    const struct {
        int threads, entries;
        const char* limit;     // TESSEL_TRACE_LIMIT; nullptr: the default
        bool rotates;
        uint32_t movePauseMs;  // held before the move aside, while the other threads go on writing
    } rows[] = {{8, 200, nullptr, false, 0}, {16, 60, "64K", true, 50}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.threads);
        std::remove(path_.c_str());
        std::remove((path_ + ".1").c_str());
        setSetting("TESSEL_TRACE_LIMIT", row.limit);
        platform::testing::setLogMovePauseMs(row.movePauseMs);
        restartLog();
        logWrite("banner\r\n");
        std::vector<std::thread> threads;
        for (int t = 0; t < row.threads; ++t)
            threads.emplace_back([t, &row] {
                for (int i = 0; i < row.entries; ++i)
                    logWrite("thread " + std::to_string(t) + " entry " + std::to_string(i) + " " +
                             std::string(40, 'x') + "\n");
            });
        for (auto& thread : threads) thread.join();
        platform::testing::setLogMovePauseMs(0);

        std::string banner = std::string(kNarrowStamp) + "banner\r\n";
        std::string older = readFile(path_ + ".1"), current = readFile(path_);
        std::string text;
        std::smatch head;
        if (row.rotates) {
            ASSERT_TRUE(std::regex_search(older, head, std::regex("^" + banner))) << older.substr(0, 200);
            text += head.suffix();
            std::string note =
                banner + kNarrowStamp + "Log rotated at 64 KiB; the older entries are in " + path_ + "\\.1\n";
            ASSERT_TRUE(std::regex_search(current, head, std::regex("^" + note))) << current.substr(0, 300);
        } else {
            EXPECT_EQ(older, "");
            ASSERT_TRUE(std::regex_search(current, head, std::regex("^" + banner))) << current.substr(0, 200);
        }
        text += head.suffix();

        std::regex line(std::string(kNarrowStamp) + R"(thread (\d+) entry (\d+) x{40}\n)");
        std::set<std::pair<int, int>> seen;
        std::vector<int> lastOfThread(static_cast<size_t>(row.threads), -1);
        size_t covered = 0;
        for (auto it = std::sregex_iterator(text.begin(), text.end(), line); it != std::sregex_iterator(); ++it) {
            int t = std::stoi((*it)[2]), i = std::stoi((*it)[3]);
            EXPECT_GT(i, lastOfThread[static_cast<size_t>(t)]) << "entries of one thread keep their order";
            lastOfThread[static_cast<size_t>(t)] = i;
            seen.insert({t, i});
            covered += static_cast<size_t>(it->length());
        }
        EXPECT_EQ(seen.size(), static_cast<size_t>(row.threads * row.entries));
        EXPECT_EQ(covered, text.size()) << "no entry is torn or mixed into another";
    }
}

// While "<log>.1" cannot be replaced, the log grows on and the move is
// tried again; at twice the limit the log is emptied, so the disk holds no
// more than the two files would.
TEST_F(TraceLog, ALogThatCannotMoveAsideIsEmptiedAtTwiceTheLimit)
{
    std::string blocker = path_ + ".1";
    ASSERT_EQ(mkdir(blocker.c_str(), 0700), 0);
    std::string inside = blocker + "/kept";
    std::fclose(std::fopen(inside.c_str(), "w"));  // a folder that is not empty cannot be replaced
    setSetting("TESSEL_TRACE_LIMIT", "4K");
    restartLog();
    logWrite("banner\r\n");
    size_t largest = 0;
    for (int i = 0; i < 200; ++i) {
        logWrite("entry " + std::to_string(i) + " " + std::string(40, 'x') + "\n");
        largest = std::max(largest, readFile(path_).size());
    }
    std::remove(inside.c_str());
    rmdir(blocker.c_str());

    EXPECT_GT(largest, 4096u) << "the log grew on past the limit while the move failed";
    EXPECT_LE(largest, 2 * 4096u);
    std::string texts = test_support::logTexts(readFile(path_));
    EXPECT_EQ(texts.rfind("banner\r\nLog rotated at 4 KiB; the older entries are lost, " + blocker +
                              " could not be replaced\nentry ",
                          0),
              0u)
        << texts.substr(0, 300);
    EXPECT_NE(texts.find("entry 199 "), std::string::npos);
}

// A refused value is reported once, on the log's first line, and the
// default holds; "off" leaves no file behind.
TEST_F(TraceLog, SettingsShapeTheLogOfTheNextLoad)
{
    const struct {
        const char* trace;  // TESSEL_TRACE; nullptr: not set
        const char* limit;  // TESSEL_TRACE_LIMIT; nullptr: not set
        const char* texts;  // the log's entry texts; nullptr: no file at all
    } rows[] = {
        {"off", nullptr, nullptr},
        {"redact", "64k", "banner\r\nwide\nentry\n"},
        {"loud", nullptr,
         "TESSEL_TRACE: \"loud\" is not full, redact or off; the trace stays full\nbanner\r\nwide\nentry\n"},
        {nullptr, "2K",
         "TESSEL_TRACE_LIMIT: \"2K\" is not a size of 4K or more (such as 65536, 64K, 512M, 2G) or 0; "
         "the limit stays 512M\nbanner\r\nwide\nentry\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.trace ? row.trace : "-") + " " + (row.limit ? row.limit : "-"));
        std::remove(path_.c_str());
        setSetting("TESSEL_TRACE", row.trace);
        setSetting("TESSEL_TRACE_LIMIT", row.limit);
        restartLog();
        logWrite("banner\r\n");
        logWriteWide(L"wide\n");
        logWrite("entry\n");
        if (row.texts == nullptr) EXPECT_NE(access(path_.c_str(), F_OK), 0) << "no file is made";
        else EXPECT_EQ(test_support::logTexts(readFile(path_)), row.texts);
    }
}

struct SecretRow {
    const char* trace;
    const char* command;  // how the VERIFY shows in the Transmit trace
    const char* answer;   // how the card's answer shows in the Answer trace
};

void PrintTo(const SecretRow& row, std::ostream* os) { *os << row.trace; }

class TraceOfSecrets : public test_support::OneRackFixture, public ::testing::WithParamInterface<SecretRow> {
protected:
    void TearDown() override
    {
        unsetenv("TESSEL_TRACE");
        OneRackFixture::TearDown();
    }
};

// A VERIFY with a PIN of "12345678", and an answer with data before its
// status word. Redacted, no data byte of either reaches the log, not even
// inside the frames on the wire; the heads and the status word do.
TEST_P(TraceOfSecrets, RedactKeepsHeadsAndStatusWordsOnly)
{
    setenv("TESSEL_TRACE", GetParam().trace, 1);
    startRack("A1", 1);
    const unsigned char atr[] = {0x3B, 0x80, 0x01};
    rackSimInsertCard(device_, 1, atr, 3);
    ASSERT_TRUE(test_support::waitUntil([this] { return reader(1)->cardState() == 4; }));
    const unsigned char answer[] = {0xA1, 0xB2, 0xC3, 0xD4, 0x90, 0x00};
    rackSimSetFixedAnswer(device_, 1, answer, sizeof answer);

    SCARDHANDLE handle = 0;
    DWORD active = 0;
    SCARDCONTEXT context = 0;
    ASSERT_EQ(SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context), SCARD_S_SUCCESS);
    ASSERT_EQ(SCardConnectA(context, "Tessel A1 R1", SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &handle, &active),
              SCARD_S_SUCCESS);
    const BYTE verify[] = {0x00, 0x20, 0x00, 0x01, 0x08, '1', '2', '3', '4', '5', '6', '7', '8'};
    BYTE received[32];
    DWORD length = sizeof received;
    ASSERT_EQ(SCardTransmit(handle, &g_rgSCardT1Pci, verify, sizeof verify, nullptr, received, &length),
              SCARD_S_SUCCESS);

    std::string text = logText();
    EXPECT_NE(text.find(std::string("Tessel A1 R1 Transmit - ") + GetParam().command + "\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find(std::string("Tessel A1 R1 Answer - ") + GetParam().answer + "\n"), std::string::npos) << text;
    if (std::string(GetParam().trace) == "redact") {
        for (const char* secret : {"31 32", "34 35", "37 38", "a1 b2", "c3 d4"})
            EXPECT_EQ(text.find(secret), std::string::npos) << secret << " shows in\n" << text;
        EXPECT_NE(text.find("Tessel A1 R1 Tx - 55 01 0d 40 <14 bytes> : "), std::string::npos) << text;
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, TraceOfSecrets,
                         ::testing::Values(SecretRow{"full", "00 20 00 01 08 31 32 33 34 35 36 37 38 ",
                                                     "a1 b2 c3 d4 90 00 "},
                                           SecretRow{"redact", "00 20 00 01 08 <8 bytes> ", "<4 bytes> 90 00 "}),
                         [](const auto& info) { return std::string(info.param.trace); });

TEST_F(TraceLog, UnwritableLogLosesEntriesSilentlyAndRecoversWhenWritable)
{
    std::string folder = "/tmp/tessel-unwritable-" + std::to_string(getpid());
    std::string path = folder + "/QuorvaneDLL.log";
    platform::testing::setLogFilePath(path);
    restartLog();

    logWrite("lost: the folder does not exist\n");
    logWriteWide(L"lost too\n");
    EXPECT_EQ(readFile(path), "");
    EXPECT_EQ(g_logPath, path) << "the log counts as started even though its first open failed";

    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    logWrite("kept\n");
    EXPECT_EQ(test_support::logTexts(readFile(path)), "kept\n");
    std::remove(path.c_str());
    rmdir(folder.c_str());
}

TEST(TextHelpers, HexDumpDecimalAndFixedText)
{
    const uint8_t bytes[] = {0x00, 0xAB, 0x5f};
    EXPECT_EQ(hexDump(bytes, 3), "00 ab 5f ");
    EXPECT_EQ(hexDump(bytes, -4), "");
    EXPECT_EQ(decimalText(static_cast<int32_t>(0xFFFF8000u)), "-32768");
    EXPECT_EQ(decimalText(uint32_t{0xFFFFFFFFu}), "4294967295");
    EXPECT_EQ(fixedText(1.5), "1.500000");
}

}  // namespace
