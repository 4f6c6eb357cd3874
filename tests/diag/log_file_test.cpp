// The trace log's file in a folder that every local user can write to:
// what the library finds planted at the log's path, and what it does. The
// log is owner-only, never written through a link or to a FIFO, never to
// a file of another user or one with a second name; on any doubt it goes to
// this process's own file beside it, or nowhere, and standard error says
// so. Read back from the files as a user would find them.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "diag/trace_log.h"
#include "platform/log_file.h"
#include "platform/test_seam.h"
#include "support/rack_fixture.h"

namespace {

using test_support::logTexts;
using test_support::readFile;

const char kVictimText[] = "someone else's data\n";

class LogFileSafety : public ::testing::Test {
protected:
    void SetUp() override
    {
        char folder[] = "/tmp/tessel-logsafety-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        folder_ = folder;
        // World-writable with the sticky bit, as /var/tmp is.
        ASSERT_EQ(chmod(folder_.c_str(), 01777), 0);
        path_ = folder_ + "/QuorvaneDLL.log";
        own_ = folder_ + "/QuorvaneDLL-" + std::to_string(getpid()) + ".log";
        victim_ = folder_ + "/victim";
        writeFile(victim_, kVictimText, 0600);
        platform::testing::setLogFilePath(path_);
        restartLog();
    }
    void TearDown() override
    {
        unsetenv("TESSEL_TRACE_LIMIT");
        platform::testing::setLogFilePath("");
        restartLog();
        std::system(("rm -rf " + folder_).c_str());
    }
    static void restartLog()
    {
        std::lock_guard<platform::ExclusiveLock> guard(g_logLock);
        g_logPath.clear();
    }
    static void writeFile(const std::string& path, const char* text, mode_t mode)
    {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
        fchmod(fd, mode);
        close(fd);
    }
    // One load of the library: its banner and one entry; what standard
    // error said meanwhile.
    static std::string load()
    {
        ::testing::internal::CaptureStderr();
        restartLog();
        logWrite("banner\n");
        logWrite("entry\n");
        return ::testing::internal::GetCapturedStderr();
    }
    static mode_t modeOf(const std::string& path)
    {
        struct stat status {};
        return lstat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
    }

public:
    std::string folder_, path_, own_, victim_;
};

// Whatever is planted at the log's path stays as it was, the victim it
// points to included; the log goes to this process's own file, owner-only.
TEST_F(LogFileSafety, APlantedPathIsLeftAloneAndTheLogGoesBesideIt)
{
    const struct {
        const char* what;
        std::function<bool(LogFileSafety&)> plant;  // false: cannot be set up here
        const char* reason;
    } rows[] = {
        {"a symbolic link to another file",
         [](LogFileSafety& t) { return symlink(t.victim_.c_str(), t.path_.c_str()) == 0; }, "it is a symbolic link"},
        {"a dangling symbolic link",
         [](LogFileSafety& t) { return symlink((t.folder_ + "/nothing").c_str(), t.path_.c_str()) == 0; },
         "it is a symbolic link"},
        {"a FIFO nobody reads", [](LogFileSafety& t) { return mkfifo(t.path_.c_str(), 0666) == 0; },
         "it is not a regular file"},
        {"a second name of another file",
         [](LogFileSafety& t) { return link(t.victim_.c_str(), t.path_.c_str()) == 0; },
         "it has more than one name"},
        {"a folder", [](LogFileSafety& t) { return mkdir(t.path_.c_str(), 0777) == 0; }, "it is not a regular file"},
        {"a file of another user, readable and writable by all",
         [](LogFileSafety& t) {
             const passwd* nobody = getpwnam("nobody");
             if (geteuid() != 0 || nobody == nullptr) return false;  // only root can be another user here
             pid_t child = fork();
             if (child == 0) {
                 if (setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0) _exit(1);
                 umask(0);
                 int fd = open(t.path_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
                 if (fd < 0 || write(fd, kVictimText, strlen(kVictimText)) < 0) _exit(1);
                 _exit(0);
             }
             int status = 0;
             waitpid(child, &status, 0);
             return WIFEXITED(status) && WEXITSTATUS(status) == 0;
         },
         "it belongs to another user"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::system(("rm -rf " + path_ + " " + own_).c_str());
        if (!row.plant(*this)) {
            std::printf("not run: %s (needs root and a user \"nobody\")\n", row.what);
            continue;
        }
        struct stat before {};
        ASSERT_EQ(lstat(path_.c_str(), &before), 0);

        const std::string said = load();

        EXPECT_EQ(readFile(victim_), kVictimText);
        struct stat after {};
        ASSERT_EQ(lstat(path_.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode, before.st_mode);
        if (S_ISREG(after.st_mode) && after.st_nlink == 1) {
            EXPECT_EQ(readFile(path_), kVictimText);
        }
        EXPECT_EQ(g_logPath, own_);
        EXPECT_EQ(logTexts(readFile(own_)), "banner\nentry\n");
        EXPECT_EQ(modeOf(own_), 0600u);
        EXPECT_EQ(said, "Tessel winscard: the trace log " + path_ + " is not used (" + row.reason +
                            "); this process writes its log to " + own_ + "\n");
    }
}

// With this process's own file planted too, there is no log at all rather
// than one in a file somebody else controls.
TEST_F(LogFileSafety, WhenTheOwnFileIsPlantedTooThereIsNoLog)
{
    ASSERT_EQ(symlink(victim_.c_str(), path_.c_str()), 0);
    ASSERT_EQ(symlink(victim_.c_str(), own_.c_str()), 0);
    const std::string said = load();
    EXPECT_EQ(readFile(victim_), kVictimText);
    EXPECT_EQ(said, "Tessel winscard: the trace log " + path_ + " is not used (it is a symbolic link) and neither is " +
                        own_ + " (it is a symbolic link); this process writes no trace log\n");
    logWrite("more\n");
    EXPECT_EQ(readFile(victim_), kVictimText) << "later entries do not try again";
}

// A log of this user's that an earlier version left readable by all is
// taken, emptied and made owner-only; a new one is owner-only from the start.
TEST_F(LogFileSafety, TheLogIsOwnerOnlyWhetherNewOrOld)
{
    writeFile(path_, "an older load's entries\n", 0644);
    EXPECT_EQ(load(), "");
    EXPECT_EQ(logTexts(readFile(path_)), "banner\nentry\n");
    EXPECT_EQ(modeOf(path_), 0600u);

    std::remove(path_.c_str());
    umask(0);
    EXPECT_EQ(load(), "");
    umask(022);
    EXPECT_EQ(modeOf(path_), 0600u);
}

// Rotation opens the new log with the same checks, and the move aside
// replaces a link planted at "<log>.1" itself, never what it points to.
TEST_F(LogFileSafety, RotationNeverWritesThroughALinkAtTheOlderFile)
{
    setenv("TESSEL_TRACE_LIMIT", "4K", 1);
    ASSERT_EQ(symlink(victim_.c_str(), (path_ + ".1").c_str()), 0);
    load();
    const std::string entry(200, 'x');
    for (int i = 0; i < 40; ++i) logWrite(entry + "\n");
    EXPECT_EQ(readFile(victim_), kVictimText);
    struct stat older {};
    ASSERT_EQ(lstat((path_ + ".1").c_str(), &older), 0);
    EXPECT_TRUE(S_ISREG(older.st_mode)) << "the link itself was replaced by the older log";
    EXPECT_EQ(modeOf(path_), 0600u);
    EXPECT_NE(readFile(path_).find("Log rotated at 4 KiB"), std::string::npos);
}

// The rule itself, for what the tests above cannot plant as every user.
TEST(LogFileRule, OnlyARegularFileOfTheCallersWithOneNamePasses)
{
    const struct {
        bool regular, owned;
        uint64_t links;
        const char* doubt;
    } rows[] = {
        {true, true, 1, nullptr},
        {false, true, 1, "it is not a regular file"},
        {true, false, 1, "it belongs to another user"},
        {true, true, 2, "it has more than one name"},
        {true, true, 0, "it has more than one name"},
    };
    for (const auto& row : rows) {
        platform::LogFileFacts facts;
        facts.regular = row.regular;
        facts.ownedByCaller = row.owned;
        facts.links = row.links;
        const char* doubt = platform::logFileDoubt(facts);
        EXPECT_EQ(std::string(doubt ? doubt : "-"), std::string(row.doubt ? row.doubt : "-"));
    }
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(platform::logPathForThisProcess("/var/tmp/QuorvaneDLL.log"), "/var/tmp/QuorvaneDLL-" + pid + ".log");
    EXPECT_EQ(platform::logPathForThisProcess("/a.b/log"), "/a.b/log-" + pid);
    EXPECT_EQ(platform::logPathForThisProcess("C:\\Users\\Public\\Documents\\QuorvaneDLL.log"),
              "C:\\Users\\Public\\Documents\\QuorvaneDLL-" + pid + ".log");
}

}  // namespace
