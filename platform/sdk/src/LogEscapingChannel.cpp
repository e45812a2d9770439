#include "sdk/LogEscapingChannel.h"

#include <Poco/Message.h>

namespace SDK {

namespace {
constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7f;

bool IsControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < kFirstPrintable || byte == kDelete;
}
}  // namespace

LogEscapingChannel::LogEscapingChannel(Poco::Channel* next) : next_(next, true) {}

LogEscapingChannel::~LogEscapingChannel() = default;

void LogEscapingChannel::open() {
    if (next_) next_->open();
}

void LogEscapingChannel::close() {
    if (next_) next_->close();
}

void LogEscapingChannel::log(const Poco::Message& msg) {
    if (!next_) return;
    // Nearly every record is clean: pass it on without copying.
    if (!NeedsEscape(msg.getText())) {
        next_->log(msg);
        return;
    }
    Poco::Message escaped(msg);
    escaped.setText(Escape(msg.getText()));
    next_->log(escaped);
}

bool LogEscapingChannel::NeedsEscape(const std::string& text) {
    for (char c : text) {
        if (IsControl(c)) return true;
    }
    return false;
}

std::string LogEscapingChannel::Escape(const std::string& text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size() + 8);
    for (char c : text) {
        if (!IsControl(c)) {
            out += c;
            continue;
        }
        switch (c) {
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default: {
                const auto byte = static_cast<unsigned char>(c);
                out += "\\x";
                out += kHex[byte >> 4];
                out += kHex[byte & 0x0f];
            }
        }
    }
    return out;
}

}  // namespace SDK
