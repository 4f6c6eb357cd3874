// Several processes on one machine, each loading the library: each writes
// its own log and takes its own racks. Every test case here forks; ctest
// runs each case in a process of its own, so no library thread exists
// when it does. The emulator lives in each process, so each child sets up
// the same racks, and TESSEL_RACKS gives them out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>
#include <sys/wait.h>
#include <unistd.h>

#include "diag/trace_log.h"
#include "pcsc/rack_selection.h"
#include "pcsc/registry.h"
#include "pcsc/winscard_api.h"
#include "platform/d2xx.h"
#include "platform/test_seam.h"
#include "sim/rack_sim.h"
#include "support/rack_fixture.h"

namespace {

using test_support::logTexts;
using test_support::readFile;

struct Child {
    pid_t pid = -1;
    int report = -1;  // what the child found: its readers, or "failed"
    int hold = -1;    // closed by the parent when the child may end
};

// A process that loads the library with TESSEL_RACKS set to `racks`,
// where three racks of two slots are on the bus, lists its readers to the
// parent and stays alive, its log open, until the parent lets it go.
Child startProcess(const std::string& logPath, const char* racks)
{
    int report[2], hold[2];
    if (pipe(report) != 0 || pipe(hold) != 0) return {};
    Child child;
    child.pid = fork();
    if (child.pid == 0) {
        close(report[0]);
        close(hold[1]);
        setenv("TESSEL_RACKS", racks, 1);
        platform::testing::setTimeScale(test_support::kTimeScale);
        platform::testing::setLogFilePath(logPath);
        for (const char* serial : {"TR0001", "TR0002", "TR0003"})
            rackSimAddSlots(rackSimAddDevice("Smart Card Rack", serial), 1, 2);
        KickOff();
        std::string found = "failed";
        SCARDCONTEXT context = 0;
        char names[512];
        DWORD size = sizeof names;
        if (SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context) == SCARD_S_SUCCESS &&
            SCardListReadersA(context, nullptr, names, &size) == SCARD_S_SUCCESS) {
            found.clear();
            for (const char* name = names; *name; name += std::strlen(name) + 1) found += std::string(name) + ";";
        }
        if (write(report[1], found.data(), found.size()) < 0) _exit(1);
        close(report[1]);
        char byte;
        while (read(hold[0], &byte, 1) > 0) {
        }
        _exit(0);  // the racks' threads still run: no destructors
    }
    close(report[1]);
    close(hold[0]);
    child.report = report[0];
    child.hold = hold[1];
    return child;
}

std::string readReport(const Child& child)
{
    std::string text;
    char chunk[256];
    for (ssize_t n; (n = read(child.report, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    return text;
}

bool finish(Child& child)
{
    close(child.hold);
    close(child.report);
    int status = 0;
    waitpid(child.pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

size_t count(const std::string& text, const std::string& piece)
{
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
    return n;
}

// The first process writes the log; the second, started while the first
// still has it open, writes its own beside it with its process id in the
// name and leaves the first one's log whole. Each has the racks that
// TESSEL_RACKS gives it, and says which it left out.
TEST(SeveralProcesses, EachHasItsOwnLogAndItsOwnRacks)
{
    const std::string path = "/tmp/tessel-processes-" + std::to_string(getpid()) + ".log";
    std::remove(path.c_str());
    Child first = startProcess(path, "TR0001,TR0003");
    ASSERT_GT(first.pid, 0);
    const std::string firstReaders = readReport(first);
    Child second = startProcess(path, " TR0002 ");
    ASSERT_GT(second.pid, 0);
    const std::string secondReaders = readReport(second);
    const std::string secondPath =
        "/tmp/tessel-processes-" + std::to_string(getpid()) + "-" + std::to_string(second.pid) + ".log";
    // The second holds a copy of the first one's pipe: it goes first.
    EXPECT_TRUE(finish(second));
    EXPECT_TRUE(finish(first));

    EXPECT_EQ(firstReaders, "Tessel TR0001 R1;Tessel TR0001 R2;Tessel TR0003 R1;Tessel TR0003 R2;");
    EXPECT_EQ(secondReaders, "Tessel TR0002 R1;Tessel TR0002 R2;");

    const std::string firstLog = logTexts(readFile(path));
    const std::string secondLog = logTexts(readFile(secondPath));
    for (const auto& [log, taken, leftOut] :
         {std::tuple{firstLog, std::vector<const char*>{"TR0001", "TR0003"}, std::vector<const char*>{"TR0002"}},
          std::tuple{secondLog, std::vector<const char*>{"TR0002"}, std::vector<const char*>{"TR0001", "TR0003"}}}) {
        EXPECT_EQ(log.rfind("QuorvaneTesselRack driver: 1.2.3\r\n", 0), 0u) << log;
        EXPECT_EQ(count(log, "QuorvaneTesselRack driver"), 1u) << log;
        EXPECT_EQ(count(log, "Success\n"), 1u) << "the context of this process only\n" << log;
        for (const char* serial : taken) EXPECT_EQ(count(log, std::string("Rack ") + serial + " connected"), 1u);
        for (const char* serial : leftOut)
            EXPECT_EQ(count(log, std::string("Rack ") + serial + " left out: not in TESSEL_RACKS\n"), 1u) << log;
    }
    std::remove(path.c_str());
    std::remove(secondPath.c_str());
}

// A rack whose device another process holds is named in the log with the
// reason, and the others are still served: one that the device list marks
// open (another holder of the D2XX library opened it first, here the test
// itself), and one whose open fails as with a D2XX library that does not
// say who has it. A second search of the same process knows its own.
TEST(SeveralProcesses, ARackHeldElsewhereIsTracedBySerialWithTheReason)
{
    const std::string path = "/tmp/tessel-held-" + std::to_string(getpid()) + ".log";
    platform::testing::setTimeScale(test_support::kTimeScale);
    platform::testing::setLogFilePath(path);
    const int failing = rackSimAddDevice("Smart Card Rack", "TR0001");
    rackSimAddSlots(failing, 1, 2);
    rackSimAddSlots(rackSimAddDevice("Smart Card Rack", "TR0002"), 1, 2);
    rackSimAddSlots(rackSimAddDevice("Smart Card Rack", "TR0003"), 1, 2);
    rackSimSetOpenFails(failing, 1);
    FT_HANDLE elsewhere = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("TR0003"), FT_OPEN_BY_SERIAL_NUMBER, &elsewhere), FT_OK);

    KickOff();
    waitForDiscoveryThreads();
    ASSERT_EQ(g_racks.size(), 1u);
    EXPECT_EQ(g_racks[0]->serialNumber(), "TR0002");
    KickOff();
    waitForDiscoveryThreads();
    EXPECT_EQ(g_racks.size(), 1u);

    const std::string log = logTexts(readFile(path));
    for (const char* line :
         {"Rack TR0001 could not be opened (FT_DEVICE_NOT_OPENED): another process holds it, or the device is not free "
          "to open. This process leaves it out.\n",
          "Rack TR0003 is held by another process: its device is already open there. This process leaves it out.\n",
          "Rack TR0002 is already open in this process.\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line << "not in\n" << log;
    FT_Close(elsewhere);
    registry_testing::shutdownAllRacks();
    std::remove(path.c_str());
}

TEST(SeveralProcesses, RackSelectionsAreSerialNumbersSeparatedByCommas)
{
    const struct {
        const char* text;
        bool valid;
        std::vector<std::string> serials;
    } rows[] = {
        {"TR0001", true, {"TR0001"}},
        {"TR0001,TR0003", true, {"TR0001", "TR0003"}},
        {" TR0001 , TR0003 ", true, {"TR0001", "TR0003"}},
        {"123456789012345", true, {"123456789012345"}},
        {"", false, {}},
        {"TR0001,", false, {}},
        {",TR0001", false, {}},
        {"TR0001,,TR0003", false, {}},
        {"TR 0001", false, {}},
        {"1234567890123456", false, {}},
        {"TR0001;TR0003", true, {"TR0001;TR0003"}},  // one odd serial, which simply matches no rack
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::vector<std::string> serials{"unchanged"};
        EXPECT_EQ(parseRackSelection(row.text, serials), row.valid);
        if (row.valid) EXPECT_EQ(serials, row.serials);
        else EXPECT_EQ(serials, std::vector<std::string>{"unchanged"});
    }
}

}  // namespace
