// DockerApiClient against a stand-in server: chunked and plain bodies, answers that break off
// or exceed the bound, and an engine that is not there.
#include <gtest/gtest.h>

#include <string>

#include "FakeEngine.h"
#include "container/DockerApiClient.h"

namespace Engine {
namespace {

using Testing::FakeEngine;

const std::string kBody = R"([{"Id":"abc"},{"Id":"def"}])";

class ApiAnswers : public ::testing::Test {
protected:
    int Get(const std::string& answer, size_t maxBody, std::string& body, std::string& error) {
        FakeEngine engine([&](const std::string&) { return answer; });
        DockerApiClient client(engine.SocketPath(), 2000, maxBody);
        return client.Get("/containers/json", body, error);
    }
};

TEST_F(ApiAnswers, ChunkedBodyIsReassembled) {
    std::string body;
    std::string error;
    EXPECT_EQ(Get(FakeEngine::ChunkedAnswer(kBody, 3), 1024, body, error), 200) << error;
    EXPECT_EQ(body, kBody);
}

TEST_F(ApiAnswers, ContentLengthBodyAndErrorStatusAreReturned) {
    std::string body;
    std::string error;
    EXPECT_EQ(Get(FakeEngine::Answer(200, kBody), 1024, body, error), 200) << error;
    EXPECT_EQ(body, kBody);
    EXPECT_EQ(Get(FakeEngine::Answer(404, R"({"message":"No such container"})"), 1024, body, error),
              404);
}

TEST_F(ApiAnswers, AnswerOverTheBoundIsRefused) {
    std::string body = "untouched";
    std::string error;
    EXPECT_EQ(
        Get(FakeEngine::ChunkedAnswer(std::string(5000, ' ') + kBody, 100), 4096, body, error), -1);
    EXPECT_NE(error.find("larger"), std::string::npos) << error;
    EXPECT_EQ(body, "untouched");
}

TEST_F(ApiAnswers, BrokenOffAnswerNeverPassesForTheWholeDocument) {
    const std::string whole = FakeEngine::ChunkedAnswer(kBody, 5);
    const size_t lastChunk = whole.rfind("}]");
    for (size_t cut = whole.find("\r\n\r\n") + 4; cut <= lastChunk; ++cut) {
        std::string body;
        std::string error;
        const int status = Get(whole.substr(0, cut), 1024, body, error);
        // Refused outright, or a strict prefix that the document parsers refuse.
        if (status != -1) {
            EXPECT_LT(body.size(), kBody.size()) << "cut at " << cut;
        }
    }
    std::string body;
    std::string error;
    EXPECT_EQ(Get("HTTP/1.1 2", 1024, body, error), -1);
}

TEST_F(ApiAnswers, MissingEngineIsAnErrorNotAnException) {
    DockerApiClient client("/nonexistent/tarnwick/docker.sock", 500, 1024);
    std::string body;
    std::string error;
    EXPECT_EQ(client.Get("/containers/json", body, error), -1);
    EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace Engine
