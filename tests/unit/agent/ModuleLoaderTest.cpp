#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/ModuleLoader.h"
#include "framework/Module.h"
#include "support/FileText.h"
#include "support/TempDir.h"

namespace {

class ModuleLoaderTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("TARNWICK_TEST_MODULE_LOG", log_.c_str(), 1); }
    void TearDown() override { unsetenv("TARNWICK_TEST_MODULE_LOG"); }
    std::vector<std::string> Events() { return TestSupport::FileText::Lines(log_); }

    TestSupport::TempDir tmp_{"tarnwick-loader"};
    const std::string dir_ = tmp_.Path();
    const std::string log_ = tmp_ / "events.log";
};

TEST_F(ModuleLoaderTest, RefusesLibrariesThatAreNotModulesWithTheReason) {
    Agent::ModuleLoader loader;
    std::string error;
    EXPECT_FALSE(loader.LoadOne(std::string(TEST_MODULE_DIR) + "/libnoentry_module.so", error));
    EXPECT_EQ(error, "no CreateModule entry point");
    EXPECT_FALSE(loader.LoadOne(std::string(TEST_MODULE_DIR) + "/libnull_module.so", error));
    EXPECT_EQ(error, "CreateModule returned no module");
    EXPECT_FALSE(loader.LoadOne(dir_ + "/libmissing_module.so", error));
    EXPECT_NE(error.find("cannot load"), std::string::npos);
    EXPECT_TRUE(loader.Modules().empty());
}

// Services first in their order, then feature modules by name.
TEST_F(ModuleLoaderTest, ListsServicesFirstInitsInThatOrderAndUnInitsInReverse) {
    const auto files = Agent::ModuleLoader::ListModuleFiles(TEST_MODULE_DIR);
    std::vector<std::string> names;
    for (const auto& f : files) names.push_back(f.substr(f.find_last_of('/') + 1));
    EXPECT_EQ(names, (std::vector<std::string>{"libdata_comm_module.so", "libcontainer_module.so",
                                               "libalpha_feature_module.so", "libnoentry_module.so",
                                               "libnull_module.so"}));
    {
        Agent::ModuleLoader loader;
        for (const auto& file : files) {
            std::string error;
            loader.LoadOne(file, error);
        }
        ASSERT_EQ(loader.Modules().size(), 3u);
        loader.InitAll();
        // A policy for a key nobody registered is taken by no module.
        EXPECT_EQ(loader.DeliverPolicy("10001", "dockerfile_feature", "{}"), 0);
        loader.UnInitAll();
        EXPECT_TRUE(loader.Modules().empty());
    }
    const std::vector<std::string> expected = {"data_comm:init",     "container:init",
                                               "alpha_feature:init", "alpha_feature:uninit",
                                               "container:uninit",   "data_comm:uninit"};
    EXPECT_EQ(Events(), expected);
}

}  // namespace
