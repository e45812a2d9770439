// The text of a /proc/<pid>/cgroup file through the container id lookup. A container writes
// its own cgroup names, so whatever comes out must still be a plain container id.
#include "FuzzCheck.h"
#include "sdk/ProcessUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string id = SDK::ProcessUtils::ParseContainerIdFromCgroup(text);
    if (id.empty()) return 0;
    FUZZ_CHECK(id.size() == 64 && id.find_first_not_of("0123456789abcdef") == std::string::npos);
    FUZZ_CHECK(text.find(id) != std::string::npos);
    return 0;
}
