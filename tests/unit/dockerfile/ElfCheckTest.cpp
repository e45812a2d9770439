#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>

#include "LogCapture.h"
#include "RootFsMonitor.h"
#include "support/TempDir.h"

namespace {

using DockerFileUnit::LogCapture;

using TestSupport::TempDir;

const std::string kMagic(
    "\x7f"
    "ELF",
    4);

class ElfCheckTest : public ::testing::Test {
protected:
    void SetUp() override {
        LogCapture::Instance().Clear();
        ASSERT_FALSE(dir.Path().empty());
    }

    /// Runs the check; `isElf` starts as `initial` so an untouched flag can be told apart.
    bool Check(const std::string& path, bool& isElf, bool initial = false) {
        isElf = initial;
        return Engine::IsElf(path, isElf);
    }

    TempDir dir;
};

// Six bytes must be readable, and only the four magic bytes are compared.
TEST_F(ElfCheckTest, ContentDecides) {
    const struct {
        const char* name;
        std::string bytes;
        bool elf;
    } rows[] = {
        {"empty", "", false},
        {"magic alone", kMagic, false},
        {"magic and one byte", kMagic + "\x02", false},
        {"magic and two bytes", kMagic + std::string("\0\0", 2), true},
        {"script", "#!/bin/sh\necho hi\n", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        bool elf = false;
        // The flag starts as the opposite of the answer, so an untouched flag fails.
        EXPECT_TRUE(Check(dir.File(row.name, row.bytes), elf, !row.elf));
        EXPECT_EQ(row.elf, elf);
    }
    bool elf = false;
    EXPECT_TRUE(Check("/bin/sh", elf));
    EXPECT_TRUE(elf) << "a real executable";
}

TEST_F(ElfCheckTest, LinkIsExaminedThroughItsTarget) {
    const std::string target = dir.File("target", kMagic + "\x02\x01");
    const std::string link = dir.Path() + "/link";
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    bool elf = false;
    EXPECT_TRUE(Check(link, elf));
    EXPECT_TRUE(elf);
}

TEST_F(ElfCheckTest, MissingPathFailsLeavesTheFlagAndWarns) {
    const std::string missing = dir.Path() + "/missing";
    bool elf = true;
    EXPECT_FALSE(Check(missing, elf, true));
    EXPECT_TRUE(elf);
    EXPECT_EQ(1, LogCapture::Instance().Count("Docker file path invalid: " + missing + "."))
        << LogCapture::Instance().Dump();
}

// Readable but not regular: examined and not ELF, without a log line; a FIFO without a writer
// must not block the task, and a device is never opened for reading.
TEST_F(ElfCheckTest, DirectoryDeviceAndFifoAreExaminedAsNotElf) {
    const std::string fifo = dir.Path() + "/fifo";
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
    EXPECT_EQ("", LogCapture::Instance().Dump());
}

}  // namespace
