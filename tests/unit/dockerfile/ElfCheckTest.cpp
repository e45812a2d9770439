#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>

#include "Capture.h"
#include "RootFsMonitor.h"
#include "support/TempDir.h"

namespace {

using DockerFileTest::Logs;

class ElfCheckTest : public ::testing::Test {
protected:
    void SetUp() override { Logs().Clear(); }
    TestSupport::TempDir dir;
};

// What the file holds is checked with the module's alarms; here the cases an audit event cannot
// reach, as they are filtered out before (or only a race would bring them here).
TEST_F(ElfCheckTest, MissingPathFailsLeavesTheFlagAndWarns) {
    bool elf = true;
    EXPECT_FALSE(Engine::IsElf(dir / "missing", elf));
    EXPECT_TRUE(elf);
    EXPECT_EQ("dockerfile_module: Docker file path invalid: " + (dir / "missing") + ".\n",
              Logs().Dump());
}

// Not regular: examined and not ELF, without a log line; a FIFO without a writer must not block
// the task, and a device is never opened for reading.
TEST_F(ElfCheckTest, DirectoryDeviceAndFifoAreExaminedAsNotElf) {
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0700));
    for (const std::string& path : {dir.Path(), std::string("/dev/null"), fifo}) {
        auto pending = std::async(std::launch::async, [&path] {
            bool elf = true;
            return Engine::IsElf(path, elf) && !elf;
        });
        if (pending.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            // Release the blocked reader so the test can end, then report the hang.
            const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            if (writer >= 0) close(writer);
            pending.wait();
            FAIL() << "the ELF check blocked on " << path;
        }
        EXPECT_TRUE(pending.get()) << path;
    }
    EXPECT_EQ("", Logs().Dump());
}

}  // namespace
