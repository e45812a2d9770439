// Tiny module libraries for the loader tests, one per compile definition.
#include <cstdlib>
#include <fstream>

#include "framework/Module.h"

#if defined(TEST_MODULE_GOOD)
namespace {
// Appends "<name>:<event>" lines to the file named by TARNWICK_TEST_MODULE_LOG.
void Record(const char* event) {
    if (const char* path = std::getenv("TARNWICK_TEST_MODULE_LOG")) {
        std::ofstream(path, std::ios::app) << TEST_MODULE_NAME << ':' << event << '\n';
    }
}

class GoodModule : public Framework::Module {
public:
    GoodModule() : Framework::Module(TEST_MODULE_NAME) {}
    int Init() override {
        Record("init");
        return 0;
    }
    void UnInit() override { Record("uninit"); }
};
}  // namespace

extern "C" Framework::Module* CreateModule() { return new GoodModule(); }
#elif defined(TEST_MODULE_NULL)
extern "C" Framework::Module* CreateModule() { return nullptr; }
#else
extern "C" int NotTheEntryPoint() { return 0; }
#endif
