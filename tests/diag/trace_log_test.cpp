// The trace log's entry formats, its start, its lock and its failures,
// read back from the file as a user would find it.
#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "diag/text.h"
#include "diag/trace_log.h"
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
        platform::testing::setLogFilePath("");
        restartLog();
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

TEST_F(TraceLog, NarrowEntryHasDateTwoBlanksUnpaddedTickPhaseAndTab)
{
    logWrite("hello\n");
    std::string text = readFile(path_);
    EXPECT_TRUE(std::regex_match(text, std::regex(std::string(kNarrowStamp) + "hello\n"))) << text;
}

TEST_F(TraceLog, WideEntryHasDateAndTabWithoutTickField)
{
    logWrite("first\n");
    logWriteWide(L"SCardConnectW: Tessel A1 R7\n");
    std::string text = readFile(path_);
    EXPECT_TRUE(std::regex_match(
        text, std::regex(std::string(kNarrowStamp) + "first\n" + kWideStamp + "SCardConnectW: Tessel A1 R7\n")))
        << text;
}

TEST_F(TraceLog, WideCharacterWithoutNarrowFormBecomesQuestionMarkAndEntryStaysWhole)
{
    logWrite("start\n");
    logWriteWide(L"name \u20ac\u00e9 end\n");
    std::string text = test_support::logTexts(readFile(path_));
    EXPECT_EQ(text, "start\nname ?? end\n");
}

TEST_F(TraceLog, EntryWithoutLineEndIsFollowedOnTheSameLine)
{
    logWrite("Checking");
    logWrite("match");
    logWrite("done\n");
    std::string text = readFile(path_);
    EXPECT_TRUE(std::regex_match(text, std::regex(std::string(kNarrowStamp) + "Checking" + kNarrowStamp + "match" +
                                                  kNarrowStamp + "done\n")))
        << text;
}

TEST_F(TraceLog, FirstEntryEmptiesAnOldFileAndLaterEntriesAppend)
{
    {
        FILE* old = std::fopen(path_.c_str(), "w");
        std::fputs("left over from an earlier load\n", old);
        std::fclose(old);
    }
    logWrite("banner\r\n");
    logWrite("second\n");
    EXPECT_EQ(test_support::logTexts(readFile(path_)), "banner\r\nsecond\n");
    EXPECT_EQ(g_logPath, path_);
}

TEST_F(TraceLog, ManyThreadsWritingAtOnceLoseAndMixNothing)
{
    constexpr int kThreads = 8, kEntries = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kEntries; ++i)
                logWrite("thread " + std::to_string(t) + " entry " + std::to_string(i) + " " + std::string(40, 'x') +
                         "\n");
        });
    for (auto& thread : threads) thread.join();

    std::string text = readFile(path_);
    std::regex line(std::string(kNarrowStamp) + R"(thread (\d) entry (\d+) x{40}\n)");
    std::set<std::pair<int, int>> seen;
    std::vector<int> lastOfThread(kThreads, -1);
    auto begin = std::sregex_iterator(text.begin(), text.end(), line);
    size_t covered = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it) {
        int t = std::stoi((*it)[2]), i = std::stoi((*it)[3]);
        EXPECT_GT(i, lastOfThread[t]) << "entries of one thread keep their order";
        lastOfThread[t] = i;
        seen.insert({t, i});
        covered += static_cast<size_t>(it->length());
    }
    EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kEntries));
    EXPECT_EQ(covered, text.size()) << "no entry is mixed into another";
}

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

TEST(TextHelpers, HexDumpGivesLowerCaseDigitsEachFollowedByABlank)
{
    const uint8_t bytes[] = {0x00, 0xAB, 0x5f};
    EXPECT_EQ(hexDump(bytes, 3), "00 ab 5f ");
    EXPECT_EQ(hexDump(bytes, 0), "");
    EXPECT_EQ(hexDump(bytes, -4), "");
}

TEST(TextHelpers, DecimalTextOfSignedAndUnsignedAndFixedText)
{
    EXPECT_EQ(decimalText(int32_t{-7}), "-7");
    EXPECT_EQ(decimalText(static_cast<int32_t>(0xFFFF8000u)), "-32768");
    EXPECT_EQ(decimalText(uint32_t{0xFFFFFFFFu}), "4294967295");
    EXPECT_EQ(decimalText(uint32_t{0}), "0");
    EXPECT_EQ(fixedText(0.0), "0.000000");
    EXPECT_EQ(fixedText(1.5), "1.500000");
}

}  // namespace
