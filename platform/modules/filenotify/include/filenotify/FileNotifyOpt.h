#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Engine {

/// Options of a watch request to "filenotify_task". The member order is part of the interface.
/// In its default state only followPath is set.
struct _FileNotifyOpt {
    bool recursive = false;       ///< 1: also watch subdirectories (not supported: ignored)
    bool onlyDir = false;         ///< 2: IN_ONLYDIR
    bool dontFollow = false;      ///< 3: IN_DONT_FOLLOW
    bool exclUnlink = false;      ///< 4: IN_EXCL_UNLINK
    bool oneShot = false;         ///< 5: IN_ONESHOT
    bool reportSelfOnly = false;  ///< 6: drop events that name a child of a watched directory
    bool followPath = true;       ///< 7: the watch follows its path: armed when the file appears,
                                  ///<    re-armed when it is replaced, moved or deleted
    bool reserved = false;        ///< 8: unused
    std::vector<uint32_t> ignoreMasks;      ///< event masks not to report
    uint64_t extParm = 0;                   ///< handed back unchanged with every event
    std::vector<std::string> includeNames;  ///< report only these child names (empty: all)
    std::vector<std::string> excludeNames;  ///< never report these child names
    bool coalesce = false;                  ///< merge identical consecutive events
    int32_t maxEvents = 0;                  ///< per-watch event budget per second (0: none)
    bool debug = false;                     ///< log every event of this watch at debug level
};

}  // namespace Engine
