#include "framework/Message.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>

namespace Framework {

Message::Message() = default;
Message::~Message() = default;

std::string Message::TypeName() const {
    const char* mangled = typeid(*this).name();
    int status = 0;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::string name = (status == 0 && demangled != nullptr) ? demangled : mangled;
    std::free(demangled);
    return name;
}

}  // namespace Framework
