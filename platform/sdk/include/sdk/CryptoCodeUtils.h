#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    /// A new random (version 4) UUID in its canonical 36-character text form.
    static std::string GenerateUUID();
};

}  // namespace SDK
