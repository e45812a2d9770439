#include "framework/DataMessage.h"

#include "framework/Task.h"

namespace Framework {

DataMessage::DataMessage(const std::string& type, const std::string& data)
    : type_(type), data_(data) {}

DataMessage::~DataMessage() = default;

int DataMessage::MessageHandle(void* task) {
    if (task == nullptr) return -1;
    return static_cast<Task*>(task)->HandleMsg(this);
}

}  // namespace Framework
