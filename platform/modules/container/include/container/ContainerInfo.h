#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "container/MountPoint.h"

namespace Engine {

/// Description of one container, delivered whole in every ContainerMessage. A plain value
/// record: copied member-wise. The member order is part of the interface; keep it.
struct ContainerInfo {
    /// A published port: container port, host port, protocol ("tcp", "udp").
    struct PortMapping {
        int32_t containerPort = 0;
        int32_t hostPort = 0;
        std::string protocol;
    };

    bool running = false;                 ///< 1: non-zero in a start notification, zero in an exit
    bool paused = false;                  ///< 2: State.Paused
    bool restarting = false;              ///< 3: State.Restarting
    bool privileged = false;              ///< 4: HostConfig.Privileged
    std::string id;                       ///< 5: container id (64 hex)
    std::string name;                     ///< 6: name without its leading slash
    std::string cmd;                      ///< 7: Path and Args joined by blanks
    std::vector<std::string> args;        ///< 8: Args
    std::vector<std::string> env;         ///< 9: Config.Env
    std::vector<std::string> entrypoint;  ///< 10: Config.Entrypoint
    std::vector<std::string> exposedPorts;      ///< 11: Config.ExposedPorts keys
    std::vector<std::string> volumes;           ///< 12: Config.Volumes keys
    std::string hostName;                       ///< 13: Config.Hostname
    std::string imageId;                        ///< 14: Image ("sha256:...")
    std::string imageName;                      ///< 15: Config.Image
    std::vector<std::string> capAdd;            ///< 16: HostConfig.CapAdd
    std::string status;                         ///< 17: State.Status
    std::string created;                        ///< 18: Created
    std::string startedAt;                      ///< 19: State.StartedAt
    std::string finishedAt;                     ///< 20: State.FinishedAt
    std::string networkMode;                    ///< 21: HostConfig.NetworkMode
    std::string user;                           ///< 22: Config.User
    std::vector<std::string> networks;          ///< 23: NetworkSettings.Networks keys
    std::map<std::string, std::string> labels;  ///< 24: Config.Labels
    std::vector<PortMapping> ports;             ///< 25: NetworkSettings.Ports bindings
    std::string workingDir;                     ///< 26: Config.WorkingDir
    std::vector<MountPoint> mountPoints;        ///< 27: Mounts
    std::string rootPath;                       ///< 28: GraphDriver.Data.MergedDir (host path)
};

}  // namespace Engine
