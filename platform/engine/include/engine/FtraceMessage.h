#pragma once

namespace Engine {

/// Kernel trace events (not produced in this agent yet); declared for AbstractMessageReceiver.
class FtraceMessage;

}  // namespace Engine
