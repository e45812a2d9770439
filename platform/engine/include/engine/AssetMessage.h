#pragma once

#include <string>

namespace Engine {

/// Asset inventory events (not produced in this agent yet); only the record type is needed by
/// AbstractMessageReceiver.
class AssetMessage {
public:
    struct assetInfo {
        std::string name;
        std::string value;
    };
};

}  // namespace Engine
