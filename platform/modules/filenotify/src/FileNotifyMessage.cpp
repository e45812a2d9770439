#include "filenotify/FileNotifyMessage.h"

#include "engine/AbstractMessageReceiver.h"
#include "framework/Task.h"

namespace Engine {

FileNotifyMessage::FileNotifyMessage(const std::string& path, uint32_t mask, uint64_t extParm)
    : path_(path), mask_(mask), extParm_(extParm) {}

FileNotifyMessage::~FileNotifyMessage() = default;

int FileNotifyMessage::MessageHandle(void* task) {
    if (task == nullptr) return -1;
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(static_cast<Framework::Task*>(task));
    if (receiver == nullptr) return -1;
    return receiver->FileNotifyMessageAction(this);
}

}  // namespace Engine
