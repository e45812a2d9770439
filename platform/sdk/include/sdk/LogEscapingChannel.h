#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

#include <string>

namespace SDK {

/// A channel in front of another that makes every record one line of plain text: control
/// bytes in the record's text (below 0x20, and 0x7f) become escapes such as \n, \r, \t and
/// \x1b before the record goes on. Text without them passes unchanged. Anything a container
/// controls (file names, container names, policy text) reaches the log through here, so it
/// cannot start a record of its own or drive the operator's terminal. Thread-safe as far as
/// the channel behind it is.
class LogEscapingChannel : public Poco::Channel {
public:
    /// Takes a reference to `next`, which receives every record.
    explicit LogEscapingChannel(Poco::Channel* next);

    void open() override;
    void close() override;
    void log(const Poco::Message& msg) override;

    /// `text` with its control bytes escaped; every other byte kept as it is.
    static std::string Escape(const std::string& text);
    /// Whether Escape would change `text`.
    static bool NeedsEscape(const std::string& text);

protected:
    ~LogEscapingChannel() override;

private:
    Poco::AutoPtr<Poco::Channel> next_;
};

}  // namespace SDK
