// One audit record, "<type> <record text>" as the captured files in tests/data/audit hold them,
// through the record parser and the decoders of untrusted fields.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "process_collect/AuditRecordParser.h"

namespace {
// A leading decimal type and one blank; without it the whole input is a SYSCALL record.
std::size_t SplitType(const char* text, std::size_t size, int& type) {
    type = Engine::AuditRecordType::kSyscall;
    std::size_t digits = 0;
    int value = 0;
    while (digits < size && digits < 5 && text[digits] >= '0' && text[digits] <= '9') {
        value = value * 10 + (text[digits] - '0');
        ++digits;
    }
    if (digits == 0 || digits >= size || text[digits] != ' ') return 0;
    type = value;
    return digits + 1;
}

void CheckFields(const Engine::AuditRecord& record) {
    FUZZ_CHECK(record.fields.size() <= Engine::AuditRecordParser::kMaxFields);
    for (const auto& field : record.fields) {
        FUZZ_CHECK(!field.first.empty());
        FUZZ_CHECK(field.first.find('=') == std::string::npos);
        FUZZ_CHECK(record.Find(field.first) != nullptr);
        bool isNull = false;
        const std::string decoded =
            Engine::AuditRecordParser::DecodeUntrusted(field.second, &isNull);
        FUZZ_CHECK(!isNull || decoded.empty());
        FUZZ_CHECK(decoded.size() <= field.second.size());
        std::string bytes;
        if (Engine::AuditRecordParser::HexDecode(field.second, bytes)) {
            FUZZ_CHECK(bytes.size() * 2 == field.second.size());
        }
    }
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    int type = 0;
    const std::size_t skip = SplitType(text, size, type);
    Engine::AuditRecord record;
    std::string error;
    // The fuzzer's own buffer, not a copy: a read past its end is caught.
    if (!Engine::AuditRecordParser::Parse(type, text + skip, size - skip, record, error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    FUZZ_CHECK(record.type == type);
    CheckFields(record);
    return 0;
}
