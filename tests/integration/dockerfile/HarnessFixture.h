#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ModuleHarness.h"

namespace DockerFileHarness {

/// Base fixture: clean capture, the module loaded and initialised next to the recording
/// neighbours; everything stopped again afterwards.
class ModuleFixture : public ::testing::Test {
protected:
    void SetUp() override {
        Logs().Clear();
        Sent().Clear();
        std::string error;
        ASSERT_TRUE(harness.Start(error)) << error << " (" << ModuleLibraryPath() << ")";
    }
    void TearDown() override { harness.Stop(); }

    /// Delivers a policy and asserts that the framework took it.
    void Policy(const std::string& document) {
        ASSERT_EQ(0, harness.DeliverPolicy(document)) << Logs().Dump();
    }

    ModuleHarness harness;
};

}  // namespace DockerFileHarness
