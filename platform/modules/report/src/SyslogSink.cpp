#include "report/SyslogSink.h"

#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timestamp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>

namespace Report {

namespace {
constexpr int kSeverityWarning = 4;
constexpr const char* kAppName = "tarnwick";
constexpr const char* kMsgId = "alarm";

// RFC 5424 header fields are printable US-ASCII without spaces, at most `max` long.
std::string HeaderField(const std::string& value, std::size_t max) {
    std::string out;
    for (char c : value) {
        if (out.size() == max) break;
        if (c > 32 && c < 127) out.push_back(c);
    }
    return out.empty() ? "-" : out;
}
}  // namespace

bool SyslogSink::ParseTarget(const std::string& text, Endpoint& target, std::string& error) {
    const std::size_t colon = text.find(':');
    const std::string scheme = colon == std::string::npos ? "" : text.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (scheme == "unix" && !rest.empty() && rest[0] == '/') {
        target = {Transport::kUnix, rest};
        return true;
    }
    if (scheme == "udp" || scheme == "tcp") {
        const std::size_t port = rest.rfind(':');
        const std::string digits = port == std::string::npos ? "" : rest.substr(port + 1);
        const bool numeric = !digits.empty() && digits.size() <= 5 &&
                             digits.find_first_not_of("0123456789") == std::string::npos &&
                             std::stoi(digits) > 0 && std::stoi(digits) < 65536;
        if (port != 0 && numeric) {
            target = {scheme == "udp" ? Transport::kUdp : Transport::kTcp, rest};
            return true;
        }
    }
    error = "syslog target '" + text + "' is not unix:/PATH, udp:HOST:PORT or tcp:HOST:PORT";
    return false;
}

int SyslogSink::FacilityCode(const std::string& name) {
    static const std::map<std::string, int> codes = {
        {"kern", 0},    {"user", 1},      {"mail", 2},    {"daemon", 3},  {"auth", 4},
        {"syslog", 5},  {"authpriv", 10}, {"local0", 16}, {"local1", 17}, {"local2", 18},
        {"local3", 19}, {"local4", 20},   {"local5", 21}, {"local6", 22}, {"local7", 23},
    };
    const auto it = codes.find(name);
    return it == codes.end() ? -1 : it->second;
}

std::string SyslogSink::Format(int pri, const std::string& timestamp, const std::string& host,
                               const std::string& app, long pid, const std::string& message) {
    return "<" + std::to_string(pri) + ">1 " + timestamp + " " + HeaderField(host, 255) + " " +
           HeaderField(app, 48) + " " + std::to_string(pid) + " " + kMsgId + " - " + message;
}

std::string SyslogSink::Frame(const std::string& message) {
    return std::to_string(message.size()) + " " + message;
}

SyslogSink::SyslogSink(const std::string& targetText, const Endpoint& target, int facility,
                       int timeoutMs)
    : targetText_(targetText),
      target_(target),
      pri_(facility * 8 + kSeverityWarning),
      timeoutMs_(timeoutMs),
      host_(Poco::Environment::nodeName()),
      pid_(static_cast<long>(::getpid())) {}

SyslogSink::~SyslogSink() { Disconnect(); }

std::string SyslogSink::Message(const std::string& line) const {
    const std::string now =
        Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%iZ");
    return Format(pri_, now, host_, kAppName, pid_, line);
}

bool SyslogSink::Connect(std::string& error) {
    if (connected_) return true;
    try {
        const Poco::Timespan timeout(static_cast<long>(timeoutMs_) * 1000);
        if (target_.transport == Transport::kTcp) {
            stream_.reset(new Poco::Net::StreamSocket());
            stream_->connect(Poco::Net::SocketAddress(target_.address), timeout);
            stream_->setSendTimeout(timeout);
        } else {
            const Poco::Net::SocketAddress address =
                target_.transport == Transport::kUnix
                    ? Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL,
                                               target_.address)
                    : Poco::Net::SocketAddress(target_.address);
            datagram_.reset(new Poco::Net::DatagramSocket(address.family()));
            datagram_->connect(address);
            datagram_->setSendTimeout(timeout);
        }
        connected_ = true;
        return true;
    } catch (const Poco::Exception& e) {
        error = "cannot connect to " + targetText_ + ": " + e.displayText();
    } catch (const std::exception& e) {
        error = "cannot connect to " + targetText_ + ": " + e.what();
    }
    Disconnect();
    return false;
}

void SyslogSink::Disconnect() {
    try {
        if (stream_) stream_->close();
        if (datagram_) datagram_->close();
    } catch (const Poco::Exception&) {
        // Closing a broken socket may fail; it is gone either way.
    }
    stream_.reset();
    datagram_.reset();
    connected_ = false;
}

// A collector that went away closes its end; sending into it would vanish unnoticed until the
// reset arrives, so look for the end of stream before each batch.
bool SyslogSink::PeerClosed() {
    try {
        if (!stream_->poll(Poco::Timespan(0), Poco::Net::Socket::SELECT_READ)) return false;
        char buf[256];
        return stream_->receiveBytes(buf, sizeof(buf), MSG_DONTWAIT) <= 0;
    } catch (const Poco::Exception&) {
        return true;
    }
}

DeliveryResult SyslogSink::Deliver(const std::vector<std::string>& lines) {
    DeliveryResult result;
    if (connected_ && target_.transport == Transport::kTcp && PeerClosed()) Disconnect();
    if (!Connect(result.error)) return result;
    return target_.transport == Transport::kTcp ? SendStream(lines) : SendDatagrams(lines);
}

DeliveryResult SyslogSink::SendDatagrams(const std::vector<std::string>& lines) {
    DeliveryResult result;
    for (const std::string& line : lines) {
        const std::string message = Message(line);
        try {
            const int sent = datagram_->sendBytes(message.data(), static_cast<int>(message.size()));
            if (sent != static_cast<int>(message.size())) {
                result.error = "message cut short by " + targetText_;
                break;
            }
            ++result.delivered;
        } catch (const Poco::Exception& e) {
            result.error = "cannot send to " + targetText_ + ": " + e.displayText();
            // Too long for a datagram: it never will fit, so it must not hold up the rest.
            if (e.code() == EMSGSIZE && result.delivered == 0) result.rejected = 1;
            if (e.code() != EMSGSIZE) Disconnect();
            break;
        }
    }
    return result;
}

DeliveryResult SyslogSink::SendStream(const std::vector<std::string>& lines) {
    DeliveryResult result;
    std::string data;
    std::vector<std::size_t> ends;  // where each frame ends in `data`
    for (const std::string& line : lines) {
        data += Frame(Message(line));
        ends.push_back(data.size());
    }
    std::size_t sent = 0;
    try {
        while (sent < data.size()) {
            const int n = stream_->sendBytes(data.data() + sent,
                                             static_cast<int>(data.size() - sent), MSG_NOSIGNAL);
            if (n <= 0) throw Poco::Net::NetException("connection closed");
            sent += static_cast<std::size_t>(n);
        }
    } catch (const Poco::Exception& e) {
        result.error = "cannot send to " + targetText_ + ": " + e.displayText();
        Disconnect();
    }
    while (result.delivered < ends.size() && ends[result.delivered] <= sent) ++result.delivered;
    return result;
}

}  // namespace Report
