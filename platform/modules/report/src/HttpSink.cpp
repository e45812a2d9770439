#include "report/HttpSink.h"

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/RejectCertificateHandler.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/NullStream.h>
#include <Poco/StreamCopier.h>

#include <istream>
#include <ostream>

namespace Report {

namespace {
constexpr const char* kContentType = "application/x-ndjson";
constexpr std::streamsize kMaxResponseExcerpt = 200;
}  // namespace

bool HttpSink::Validate(const std::string& url, std::string& error) {
    try {
        const Poco::URI uri(url);
        if ((uri.getScheme() == "http" || uri.getScheme() == "https") && !uri.getHost().empty()) {
            return true;
        }
    } catch (const Poco::Exception& e) {
        error = "HTTP output URL '" + url + "': " + e.displayText();
        return false;
    }
    error = "HTTP output URL '" + url + "' is not http://HOST[:PORT]/PATH or https://...";
    return false;
}

int HttpSink::Classify(int status) {
    if (status >= 200 && status < 300) return 0;
    if (status == 408 || status == 429 || status >= 500) return 1;
    return 2;
}

namespace {
// An unparsable URL (refused by Validate before an HttpSink is made) leaves an empty URI, whose
// requests then fail instead of throwing out of the constructor.
Poco::URI ParseUri(const std::string& url) {
    try {
        return Poco::URI(url);
    } catch (const Poco::Exception&) {
        return Poco::URI();
    }
}
}  // namespace

HttpSink::HttpSink(const Settings& settings) : settings_(settings), uri_(ParseUri(settings.url)) {
    if (uri_.getScheme() != "https") return;
    try {
        context_ = new Poco::Net::Context(Poco::Net::Context::TLS_CLIENT_USE, settings_.caFile,
                                          settings_.verifyPeer ? Poco::Net::Context::VERIFY_RELAXED
                                                               : Poco::Net::Context::VERIFY_NONE,
                                          9, settings_.caFile.empty());
        // Without a handler of its own Poco would ask on the console about a bad certificate.
        Poco::Net::SSLManager::instance().initializeClient(
            nullptr, new Poco::Net::RejectCertificateHandler(false), context_);
    } catch (const Poco::Exception& e) {
        contextError_ = "TLS set-up for " + settings_.url + ": " + e.displayText();
    }
}

HttpSink::~HttpSink() = default;

bool HttpSink::EnsureSession(std::string& error) {
    if (session_) return true;
    if (uri_.getHost().empty()) {
        error = "HTTP output URL '" + settings_.url + "' has no host";
        return false;
    }
    try {
        if (uri_.getScheme() == "https") {
            if (!context_) {
                error = contextError_;
                return false;
            }
            session_.reset(
                new Poco::Net::HTTPSClientSession(uri_.getHost(), uri_.getPort(), context_));
        } else {
            session_.reset(new Poco::Net::HTTPClientSession(uri_.getHost(), uri_.getPort()));
        }
        session_->setTimeout(Poco::Timespan(static_cast<long>(settings_.timeoutMs) * 1000));
        session_->setKeepAlive(true);
        return true;
    } catch (const Poco::Exception& e) {
        error = "cannot set up a session to " + settings_.url + ": " + e.displayText();
        return false;
    }
}

DeliveryResult HttpSink::Deliver(const std::vector<std::string>& lines) {
    DeliveryResult result;
    if (!EnsureSession(result.error)) return result;
    std::string body;
    for (const std::string& line : lines) body.append(line).push_back('\n');
    const std::string path = uri_.getPathAndQuery().empty() ? "/" : uri_.getPathAndQuery();
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_POST, path,
                                   Poco::Net::HTTPMessage::HTTP_1_1);
    request.setContentType(kContentType);
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    request.setKeepAlive(true);
    try {
        std::ostream& out = session_->sendRequest(request);
        out.write(body.data(), static_cast<std::streamsize>(body.size()));
        Poco::Net::HTTPResponse response;
        std::istream& in = session_->receiveResponse(response);
        std::string excerpt(kMaxResponseExcerpt, '\0');
        in.read(&excerpt[0], kMaxResponseExcerpt);
        excerpt.resize(static_cast<std::size_t>(in.gcount()));
        Poco::NullOutputStream sink;
        Poco::StreamCopier::copyStream(in, sink);  // the session is reused: read it all
        const int status = static_cast<int>(response.getStatus());
        switch (Classify(status)) {
            case 0:
                result.delivered = lines.size();
                return result;
            case 2:
                result.rejected = lines.size();
                break;
            default:
                break;
        }
        result.error = "HTTP " + std::to_string(status) + " " + response.getReason() +
                       (excerpt.empty() ? "" : ": " + excerpt);
        if (!response.getKeepAlive()) session_.reset();
    } catch (const Poco::Exception& e) {
        result.error = "POST " + settings_.url + ": " + e.displayText();
        session_.reset();
    } catch (const std::exception& e) {
        result.error = "POST " + settings_.url + ": " + e.what();
        session_.reset();
    }
    return result;
}

}  // namespace Report
