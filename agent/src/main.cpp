#include <Poco/Exception.h>
#include <malloc.h>

#include <cstdlib>
#include <iostream>

#include "agent/AgentApplication.h"

int main(int argc, char** argv) {
    // A dozen threads would each get a malloc arena of their own, and the memory freed in one
    // is not reused by another: two arenas keep the resident size close to what is in use.
    // MALLOC_ARENA_MAX in the environment still decides.
    if (std::getenv("MALLOC_ARENA_MAX") == nullptr) mallopt(M_ARENA_MAX, 2);
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
