#pragma once

#include <string>

namespace Engine {

/// One mount of a container, as the Docker engine reports it.
struct MountPoint {
    std::string source;       ///< host path (or volume path)
    std::string destination;  ///< path inside the container
    std::string mode;         ///< mount mode text ("", "ro", "z", ...)
    bool rw = false;          ///< mounted read-write
};

}  // namespace Engine
