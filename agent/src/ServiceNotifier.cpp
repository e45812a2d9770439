#include "agent/ServiceNotifier.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "sdk/UniqueFd.h"

namespace Agent {

namespace {
// Fills `address` from the variable's value; false when it names no usable socket.
bool ParseAddress(const std::string& name, sockaddr_un& address, socklen_t& length) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (name.size() < 2 || name.size() > sizeof(address.sun_path) - 1) return false;
    if (name[0] != '/' && name[0] != '@') return false;
    std::memcpy(address.sun_path, name.data(), name.size());
    // "@name" is the abstract namespace: a leading NUL and no terminator counted.
    if (name[0] == '@') address.sun_path[0] = '\0';
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() +
                                    (name[0] == '/' ? 1 : 0));
    return true;
}
}  // namespace

bool ServiceNotifier::Notify(const std::string& state, std::string& error) {
    const char* variable = std::getenv("NOTIFY_SOCKET");
    if (variable == nullptr || *variable == '\0') return true;
    sockaddr_un address;
    socklen_t length = 0;
    if (!ParseAddress(variable, address, length)) {
        error = std::string("NOTIFY_SOCKET '") + variable + "' names no Unix socket";
        return false;
    }
    SDK::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const ssize_t sent = ::sendto(fd.Get(), state.data(), state.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), length);
    if (sent != static_cast<ssize_t>(state.size())) {
        error = std::string("send to ") + variable + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace Agent
