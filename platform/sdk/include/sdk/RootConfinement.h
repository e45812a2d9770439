#pragma once

#include <string>

namespace SDK {

/// While an instance lives, the path and file helpers of this library called on the same
/// thread (PathUtils::GetExistedCanonicalizePath, FileUtils::OpenRegularFileForRead,
/// FileUtils::OpenPathNoFollow, FileUtils::GetFileSha256) stay inside `root`: a path below it
/// is resolved as the container sees it (links and ".." clamped at the root), and a path
/// outside it is refused. The audit service sets one up around the delivery of each event of a
/// container, so that a link swapped in after the event was resolved cannot lead the consumer
/// to a host file. Scopes nest; an empty root confines nothing.
class RootConfinement {
public:
    explicit RootConfinement(const std::string& root);
    ~RootConfinement();
    RootConfinement(const RootConfinement&) = delete;
    RootConfinement& operator=(const RootConfinement&) = delete;

    /// The root in force on this thread, or null.
    static const std::string* Current();

private:
    const std::string* previous_;
    std::string root_;
};

}  // namespace SDK
