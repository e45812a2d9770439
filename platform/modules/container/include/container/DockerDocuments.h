#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/ContainerInfo.h"

namespace Engine {

/// One container event of the engine's /events stream that the collector acts on.
struct ContainerEvent {
    enum class Action { kStart, kDie };
    Action action = Action::kStart;
    std::string id;        ///< container id (validated hex)
    std::string name;      ///< Actor.Attributes.name, may be empty
    int64_t timeNano = 0;  ///< timeNano, 0 when absent
};

/// How one event line was taken.
enum class EventLineResult {
    kEvent,      ///< a container start or die; `event` is filled
    kIgnored,    ///< well-formed, but another type or action
    kMalformed,  ///< not JSON, truncated, or without a valid container id
};

/// True for a container id as the engine writes it: 1 to 64 lower-case hex digits. Ids are
/// put into request paths, so nothing else is ever accepted.
bool IsContainerId(const std::string& text);

/// The `filters` query of the /events request: container starts and exits. Podman filters on
/// its own name for an exit ("died") though it writes "die" in the events it sends; Docker
/// ignores the name it does not know.
const char* ContainerEventFilters();

/// The image reference as Docker names it: Podman writes references fully qualified, with
/// "localhost/" for an image that came from no registry and "docker.io/library/" for Docker
/// Hub's official images; those prefixes are dropped, so that one policy names an image the
/// same way for both engines. The tag stays.
std::string FamiliarImageName(const std::string& reference);

/// Maps a /containers/{id}/json document onto `info`. Needs an object with a valid "Id" and a
/// boolean State.Running, and for a running container GraphDriver.Data.MergedDir as an
/// absolute path below "/" (without it, its files could only be named as host files, so the
/// container is refused). Every other member is optional and taken only when of the right
/// type. `imageName` is Config.Image in its familiar form. On false `error` says why and
/// `info` is unspecified.
bool ParseContainerInspect(const std::string& text, ContainerInfo& info, std::string& error);
/// The same, and `pid` = State.Pid (0 when absent or not a positive number): the container's
/// first process, through which other services see the container's own view of its files.
bool ParseContainerInspect(const std::string& text, ContainerInfo& info, int& pid,
                           std::string& error);

/// Reads the ids of a /containers/json answer. All or nothing: an element without a valid
/// "Id" refuses the whole list (a partial list would look like vanished containers).
bool ParseContainerList(const std::string& text, std::vector<std::string>& ids, std::string& error);

/// Classifies one line of the /events stream; `error` says why on kMalformed.
EventLineResult ParseContainerEvent(const std::string& line, ContainerEvent& event,
                                    std::string& error);

}  // namespace Engine
