#include "container/ContainerRegisterMessage.h"

namespace Engine {

ContainerRegisterMessage::ContainerRegisterMessage(Framework::Task* from, bool sub, bool opt)
    : AbstructMessage<ContainerRegisterMessage>(from),
      task(from),
      subscribe(sub),
      option(opt),
      taskName(from != nullptr ? from->name() : std::string()) {}

ContainerRegisterMessage::~ContainerRegisterMessage() = default;

}  // namespace Engine
