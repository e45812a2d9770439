#include <Poco/Exception.h>

#include <iostream>

#include "agent/AgentApplication.h"

int main(int argc, char** argv) {
    Poco::AutoPtr<Agent::AgentApplication> app(new Agent::AgentApplication());
    try {
        const int rc = app->run(argc, argv);
        // Poco reports option errors as EXIT_CONFIG; the agent's contract is 2.
        return rc == Poco::Util::Application::EXIT_CONFIG ? Agent::AgentApplication::kExitConfig
                                                          : rc;
    } catch (const Poco::Exception& e) {
        std::cerr << "tarnwick-agent: " << e.displayText() << std::endl;
        return Agent::AgentApplication::kExitConfig;
    }
}
