#include "filenotify/FileNotifyWatchMessage.h"

namespace Engine {

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* from, const std::string& p,
                                               std::vector<unsigned int> m,
                                               const _FileNotifyOpt& opt)
    : AbstructMessage<FileNotifyWatchMessage>(from),
      path(p),
      requester(from != nullptr ? from->name() : std::string()),
      masks(std::move(m)),
      options(opt),
      add(true) {}

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* from, const std::string& p, bool a)
    : AbstructMessage<FileNotifyWatchMessage>(from),
      path(p),
      requester(from != nullptr ? from->name() : std::string()),
      add(a) {}

FileNotifyWatchMessage::~FileNotifyWatchMessage() = default;

}  // namespace Engine
