// One audit record, "<type> <record text>" as the captured files in tests/data/audit hold them,
// through the record parser and the decoders of untrusted fields.
#include <charconv>

#include "FuzzCheck.h"
#include "process_collect/AuditRecordParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    // A leading decimal type (at most 5 digits) and one blank; without it, a SYSCALL record.
    int type = 0;
    const auto [end, ec] = std::from_chars(text, text + std::min<std::size_t>(size, 5), type);
    const bool typed = ec == std::errc() && text[0] != '-' && end < text + size && *end == ' ';
    if (!typed) type = Engine::AuditRecordType::kSyscall;
    const std::size_t skip = typed ? end - text + 1 : 0;
    Engine::AuditRecord record;
    std::string error;
    // The fuzzer's own buffer, not a copy: a read past its end is caught.
    if (!Engine::AuditRecordParser::Parse(type, text + skip, size - skip, record, error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    FUZZ_CHECK(record.type == type);
    FUZZ_CHECK(record.fields.size() <= Engine::AuditRecordParser::kMaxFields);
    for (const auto& [name, value] : record.fields) {
        FUZZ_CHECK(!name.empty() && name.find('=') == std::string::npos);
        FUZZ_CHECK(record.Find(name) != nullptr);
        bool isNull = false;
        const std::string decoded = Engine::AuditRecordParser::DecodeUntrusted(value, &isNull);
        FUZZ_CHECK((!isNull || decoded.empty()) && decoded.size() <= value.size());
        std::string bytes;
        if (Engine::AuditRecordParser::HexDecode(value, bytes))
            FUZZ_CHECK(bytes.size() * 2 == value.size());
    }
    return 0;
}
