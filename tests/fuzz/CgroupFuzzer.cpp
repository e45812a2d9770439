// The text of a /proc/<pid>/cgroup file through the container id lookup. A container writes
// its own cgroup names, so whatever comes out must still be a plain container id.
#include "FuzzCheck.h"
#include "sdk/ProcessUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string id = SDK::ProcessUtils::ParseContainerIdFromCgroup(text);
    FUZZ_CHECK(id.empty() || (id.size() == 64 && text.find(id) != std::string::npos &&
                              id.find_first_not_of("0123456789abcdef") == std::string::npos));
    return 0;
}
