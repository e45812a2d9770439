// The text of a /proc/<pid>/cgroup file through the container id lookup. A container writes
// its own cgroup names, so whatever comes out must still be a plain container id.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "sdk/ProcessUtils.h"

namespace {
constexpr std::size_t kIdLength = 64;

bool IsLowerHex(const std::string& text) {
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    }
    return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string id = SDK::ProcessUtils::ParseContainerIdFromCgroup(text);
    if (id.empty()) return 0;
    FUZZ_CHECK(id.size() == kIdLength);
    FUZZ_CHECK(IsLowerHex(id));
    FUZZ_CHECK(text.find(id) != std::string::npos);
    return 0;
}
