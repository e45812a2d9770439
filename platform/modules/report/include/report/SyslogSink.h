#pragma once

#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "report/Sink.h"

namespace Report {

/// Syslog (RFC 5424), one alarm per message with the JSON document as the message text, over
/// a local socket (unix:/dev/log, datagrams), UDP (udp:host:port) or TCP (tcp:host:port,
/// octet-counted framing, RFC 6587). Each attempt is bounded by the timeout; a broken TCP
/// connection is opened again at the next attempt and the frame that was cut is sent again.
class SyslogSink : public Sink {
public:
    enum class Transport { kUnix, kUdp, kTcp };
    struct Endpoint {
        Transport transport = Transport::kUnix;
        std::string address;  // socket path, or host:port
    };

    /// "unix:/dev/log", "udp:HOST:PORT" or "tcp:HOST:PORT"; false with `error` otherwise.
    static bool ParseTarget(const std::string& text, Endpoint& target, std::string& error);
    /// Facility by name (kern, user, daemon, auth, authpriv, syslog, local0..local7); -1 if none.
    static int FacilityCode(const std::string& name);
    /// One RFC 5424 message: <PRI>1 TIMESTAMP HOST APP PROCID MSGID - MSG.
    static std::string Format(int pri, const std::string& timestamp, const std::string& host,
                              const std::string& app, long pid, const std::string& message);
    /// "LEN SP MSG": how a message travels over TCP.
    static std::string Frame(const std::string& message);

    SyslogSink(const std::string& targetText, const Endpoint& target, int facility, int timeoutMs);
    ~SyslogSink() override;

    std::string Name() const override { return "syslog"; }
    std::string Target() const override { return targetText_; }
    DeliveryResult Deliver(const std::vector<std::string>& lines) override;

private:
    bool Connect(std::string& error);
    void Disconnect();
    bool PeerClosed();
    std::string Message(const std::string& line) const;
    DeliveryResult SendDatagrams(const std::vector<std::string>& lines);
    DeliveryResult SendStream(const std::vector<std::string>& lines);

    const std::string targetText_;
    const Endpoint target_;
    const int pri_;
    const int timeoutMs_;
    const std::string host_;
    const long pid_;
    bool connected_ = false;
    std::unique_ptr<Poco::Net::DatagramSocket> datagram_;
    std::unique_ptr<Poco::Net::StreamSocket> stream_;
};

}  // namespace Report
