#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "framework/DegradedCounter.h"

namespace Framework {

class Message;
class Task;

/// Messages a service holds back for tasks whose queues are full: kept in order per receiver
/// and offered again on every Flush, so that the service waits instead of dropping. With a
/// high-water mark the service also stops while the receiver already has that many messages
/// waiting, which leaves the rest of the receiver's queue to its other senders and keeps what
/// waits ahead of a newcomer short. Bounded: a message beyond `limit` held ones is released and
/// counted as "<counterPrefix>.dropped"; each time a message has to wait counts as
/// "<counterPrefix>.held". Used by the sending task's own thread only.
class Outbox {
public:
    /// `highWater` 0: offer whenever the receiver's queue has room.
    Outbox(Task& sender, std::size_t limit, const std::string& counterPrefix, long highWater = 0);

    /// Hands `msg` (owned from now on) to `taskName`, or holds it behind messages already held
    /// for that task. false when the bound forced it to be released.
    bool Send(const std::string& taskName, Message* msg);
    /// Offers held messages again, oldest first. Returns how many are still held.
    std::size_t Flush();
    std::size_t Held() const { return held_; }

private:
    bool Offer(const std::string& taskName, std::shared_ptr<Message>& msg);

    Task& sender_;
    std::size_t limit_;
    DegradedCounter heldCounter_;
    DegradedCounter droppedCounter_;
    long highWater_;
    std::map<std::string, std::deque<std::shared_ptr<Message>>> waiting_;  // by receiver
    std::size_t held_ = 0;
};

}  // namespace Framework
