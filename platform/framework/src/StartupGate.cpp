#include "framework/StartupGate.h"

#include <atomic>

namespace Framework {

namespace {
std::atomic<bool> gOpen{true};
}  // namespace

void StartupGate::Close() { gOpen.store(false); }
void StartupGate::Open() { gOpen.store(true); }
bool StartupGate::IsOpen() { return gOpen.load(); }

}  // namespace Framework
