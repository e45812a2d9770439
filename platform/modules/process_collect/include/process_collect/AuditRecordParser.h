#pragma once

#include <cstddef>
#include <string>

#include "process_collect/AuditRecord.h"

namespace Engine {

/// Turns the text of one kernel audit record ("audit(<sec>.<ms>:<serial>): k=v ...") into an
/// AuditRecord. Pure functions without any fd, so tests and fuzzers can feed them.
class AuditRecordParser {
public:
    /// Longest record text accepted; the kernel's own limit is well below it.
    static constexpr std::size_t kMaxTextLength = 16384;
    /// Most fields kept from one record.
    static constexpr std::size_t kMaxFields = 512;

    /// Parses `len` bytes of record text of type `type`. False (with `error` set) when the text
    /// is not a well-formed record; `out` is then unspecified.
    static bool Parse(int type, const char* text, std::size_t len, AuditRecord& out,
                      std::string& error);
    static bool Parse(int type, const std::string& text, AuditRecord& out, std::string& error) {
        return Parse(type, text.data(), text.size(), out, error);
    }

    /// Decodes an untrusted string field (name, cwd, comm, exe, key, proctitle): a quoted value
    /// loses its quotes, an unquoted even-length hex value is decoded, "(null)" gives empty text
    /// with `isNull` set. Anything else is returned as it stands.
    static std::string DecodeUntrusted(const std::string& raw, bool* isNull = nullptr);

    /// Decodes hex text into bytes; false when it is not even-length hex.
    static bool HexDecode(const std::string& hex, std::string& out);
};

}  // namespace Engine
