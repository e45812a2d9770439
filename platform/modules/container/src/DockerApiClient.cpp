#include "container/DockerApiClient.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <exception>
#include <istream>

namespace Engine {

namespace {
constexpr size_t kReadChunk = 16384;
}  // namespace

DockerApiClient::DockerApiClient(const std::string& socketPath, int timeoutMs, size_t maxBody)
    : socketPath_(socketPath), timeoutMs_(timeoutMs), maxBody_(maxBody) {}

int DockerApiClient::Get(const std::string& uri, std::string& body, std::string& error) const {
    try {
        const Poco::Timespan timeout(static_cast<Poco::Timespan::TimeDiff>(timeoutMs_) * 1000);
        Poco::Net::StreamSocket socket;
        socket.connect(Poco::Net::SocketAddress(Poco::Net::SocketAddress::UNIX_LOCAL, socketPath_),
                       timeout);
        socket.setReceiveTimeout(timeout);
        socket.setSendTimeout(timeout);
        Poco::Net::HTTPClientSession session(socket);
        session.setTimeout(timeout, timeout, timeout);
        Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, uri,
                                       Poco::Net::HTTPMessage::HTTP_1_1);
        request.setHost("localhost");
        request.setKeepAlive(false);
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        std::istream& in = session.receiveResponse(response);
        std::string text;
        char buffer[kReadChunk];
        while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
            text.append(buffer, static_cast<size_t>(in.gcount()));
            if (text.size() > maxBody_) {
                error = "answer larger than " + std::to_string(maxBody_) + " bytes";
                return -1;
            }
        }
        if (in.bad()) {
            error = "answer broken off";
            return -1;
        }
        body.swap(text);
        return static_cast<int>(response.getStatus());
    } catch (const Poco::Exception& e) {
        error = e.displayText();
    } catch (const std::exception& e) {
        error = e.what();
    }
    return -1;
}

}  // namespace Engine
