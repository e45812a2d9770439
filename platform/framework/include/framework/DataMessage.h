#pragma once

#include <string>

#include "framework/Message.h"

namespace Framework {

/// A typed text payload for a reporting task (an alarm document, for instance). Delivered to
/// the receiving task's Task::HandleMsg.
class DataMessage : public Message {
public:
    DataMessage(const std::string& type, const std::string& data);
    ~DataMessage() override;
    int MessageHandle(void* task) override;

    const std::string& GetType() const { return type_; }
    const std::string& GetData() const { return data_; }

private:
    std::string type_;
    std::string data_;
};

}  // namespace Framework
