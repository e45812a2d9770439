#pragma once

#include <map>
#include <memory>

#include "engine/AssetMessage.h"
#include "engine/FtraceMessage.h"
#include "engine/ProcsMessage.h"

namespace Engine {

class FileNotifyMessage;

/// Receiver of the untyped service events. A task overrides the actions it wants; the defaults
/// ignore the event.
class AbstractMessageReceiver {
public:
    virtual int FileNotifyMessageAction(FileNotifyMessage* msg) { return 0; }
    virtual void ProcsMessageAction(int type, unsigned int count,
                                    std::shared_ptr<ProcsMessage::procInfo> info) {}
    virtual void AssetMessageAction(
        unsigned int type, const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>& assets) {}
    virtual void FtraceMessageAction(const FtraceMessage* msg) {}
    virtual ~AbstractMessageReceiver() = default;
};

}  // namespace Engine
