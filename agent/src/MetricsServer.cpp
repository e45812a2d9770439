#include "agent/MetricsServer.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include "agent/AgentMetrics.h"
#include "agent/PrometheusText.h"

namespace Agent {

namespace {
using Poco::Net::HTTPResponse;

void Send(Poco::Net::HTTPServerResponse& response, HTTPResponse::HTTPStatus status,
          const std::string& contentType, const std::string& body, bool withBody) {
    response.setStatus(status);
    response.setContentType(contentType);
    response.setContentLength(static_cast<std::streamsize>(body.size()));
    response.set("Cache-Control", "no-store");
    std::ostream& out = response.send();
    if (withBody) out << body;
}

// Answers one request from a snapshot taken for it; never blocks on the services.
class EndpointHandler : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(Poco::Net::HTTPServerRequest& request,
                       Poco::Net::HTTPServerResponse& response) override {
        const std::string& method = request.getMethod();
        const bool head = method == Poco::Net::HTTPRequest::HTTP_HEAD;
        if (method != Poco::Net::HTTPRequest::HTTP_GET && !head) {
            response.set("Allow", "GET, HEAD");
            Send(response, HTTPResponse::HTTP_METHOD_NOT_ALLOWED, "text/plain",
                 "method not allowed\n", true);
            return;
        }
        std::string path = request.getURI();
        path = path.substr(0, path.find('?'));
        if (path == "/metrics") {
            const std::string text =
                PrometheusText::Render(AgentMetrics::Families(AgentMetrics::Gather()));
            Send(response, HTTPResponse::HTTP_OK, PrometheusText::kContentType, text, !head);
            return;
        }
        if (path == "/healthz") {
            const auto problems = AgentMetrics::HealthProblems(AgentMetrics::Gather());
            if (problems.empty()) {
                Send(response, HTTPResponse::HTTP_OK, "text/plain", "ok\n", !head);
                return;
            }
            std::string text = "degraded: ";
            for (std::size_t i = 0; i < problems.size(); ++i) {
                text += (i == 0 ? "" : ", ") + problems[i];
            }
            Send(response, HTTPResponse::HTTP_SERVICE_UNAVAILABLE, "text/plain", text + "\n",
                 !head);
            return;
        }
        Send(response, HTTPResponse::HTTP_NOT_FOUND, "text/plain",
             "not found; try /metrics or /healthz\n", !head);
    }
};

class EndpointFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler* createRequestHandler(
        const Poco::Net::HTTPServerRequest&) override {
        return new EndpointHandler();
    }
};
}  // namespace

MetricsServer::MetricsServer() = default;

MetricsServer::~MetricsServer() { Stop(); }

bool MetricsServer::Start(const std::string& address, uint16_t port, std::string& error) {
    if (server_) {
        error = "already running";
        return false;
    }
    Poco::Net::IPAddress ip;
    if (!Poco::Net::IPAddress::tryParse(address, ip)) {
        error = "'" + address + "' is not an IP address";
        return false;
    }
    try {
        Poco::Net::ServerSocket socket;
        // No SO_REUSEPORT: a second agent must not share, and split, the port.
        socket.bind(Poco::Net::SocketAddress(ip, port), true, false);
        socket.listen(kMaxQueued);
        Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams();
        params->setMaxThreads(kMaxThreads);
        params->setMaxQueued(kMaxQueued);
        params->setTimeout(Poco::Timespan(kTimeoutS, 0));
        params->setKeepAlive(false);
        pool_.reset(new Poco::ThreadPool(1, kMaxThreads));
        server_.reset(new Poco::Net::HTTPServer(new EndpointFactory(), *pool_, socket, params));
        server_->start();
    } catch (const Poco::Exception& e) {
        server_.reset();
        pool_.reset();
        error = "cannot listen on " + address + ":" + std::to_string(port) + ": " + e.displayText();
        return false;
    }
    return true;
}

void MetricsServer::Stop() {
    // Closes the socket and aborts the requests in progress; their threads still unregister
    // from the server's factory as they end, so the server goes only once they have.
    if (server_) server_->stopAll(true);
    if (pool_) pool_->joinAll();
    server_.reset();
    pool_.reset();
}

uint16_t MetricsServer::Port() const { return server_ ? server_->port() : 0; }

}  // namespace Agent
