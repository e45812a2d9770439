#include "process_collect/AuditRecord.h"

namespace Engine {

const std::string* AuditRecord::Find(const std::string& name) const {
    for (const auto& field : fields) {
        if (field.first == name) return &field.second;
    }
    return nullptr;
}

std::string AuditRecord::Raw(const std::string& name) const {
    const std::string* value = Find(name);
    return value == nullptr ? std::string() : *value;
}

}  // namespace Engine
