#include "sdk/Log.h"

#include <charconv>
#include <cstring>

namespace SDK {

namespace {

template <typename T>
void AppendNumber(std::string& out, const void* value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof(digits), *static_cast<const T*>(value));
    out.append(digits, end.ptr);
}

// Appends one argument for the conversion character (with `longMod` for an "l"); false when the
// argument's type is not the one Poco::format would take for it.
bool AppendArg(std::string& out, char conversion, bool longMod, const LogArg& arg) {
    using Kind = LogArg::Kind;
    switch (conversion) {
        case 's':
            if (longMod || arg.kind != Kind::kString) return false;
            out += *static_cast<const std::string*>(arg.value);
            return true;
        case 'd':
            if (arg.kind != (longMod ? Kind::kLong : Kind::kInt)) return false;
            longMod ? AppendNumber<long>(out, arg.value) : AppendNumber<int>(out, arg.value);
            return true;
        case 'u':
            if (arg.kind != (longMod ? Kind::kUnsignedLong : Kind::kUnsigned)) return false;
            longMod ? AppendNumber<unsigned long>(out, arg.value)
                    : AppendNumber<unsigned int>(out, arg.value);
            return true;
        case 'z':  // std::size_t
            if (longMod || arg.kind != Kind::kUnsignedLong) return false;
            AppendNumber<unsigned long>(out, arg.value);
            return true;
        case 'b':  // as a stream writes a bool
            if (longMod || arg.kind != Kind::kBool) return false;
            out += *static_cast<const bool*>(arg.value) ? '1' : '0';
            return true;
        default:
            return false;
    }
}

}  // namespace

bool FormatPlainText(std::string& out, const char* fmt, const LogArg* args, std::size_t count) {
    std::size_t next = 0;
    const char* p = fmt;
    for (;;) {
        const char* mark = std::strchr(p, '%');
        if (mark == nullptr) {
            out.append(p);
            return true;
        }
        out.append(p, mark);
        p = mark + 1;
        if (*p == '%') {
            out += '%';
            ++p;
            continue;
        }
        const bool longMod = *p == 'l';
        if (longMod) ++p;
        if (next == count || !AppendArg(out, *p, longMod, args[next])) return false;
        ++next;
        ++p;
    }
}

}  // namespace SDK
