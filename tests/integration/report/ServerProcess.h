#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace ReportTest {

/// A server the test starts (rsyslogd, nginx) in the foreground, its output in a file of its
/// own. Stop (also from the destructor, whatever the test's outcome) sends SIGTERM and waits,
/// then SIGKILL after a deadline, so that no server outlives its test; a test process that
/// crashes takes its servers with it (parent-death signal).
class ServerProcess {
public:
    ServerProcess() = default;
    ~ServerProcess() { Stop(); }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    bool Start(const std::vector<std::string>& argv, const std::string& outputFile);
    void Stop();
    bool Running() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
};

/// A TCP (or UDP) port on 127.0.0.1 that nothing listens on right now.
int FreePort(bool udp = false);
/// true when a TCP connection to 127.0.0.1:port is accepted.
bool Accepts(int port);

}  // namespace ReportTest
