#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Timestamp.h>

#include <cstddef>
#include <exception>
#include <string>
#include <type_traits>
#include <vector>

#include "sdk/PathUtils.h"

namespace SDK {

/// One argument of a log record as the plain formatter sees it.
struct LogArg {
    enum class Kind { kString, kInt, kLong, kUnsigned, kUnsignedLong, kBool, kOther };
    Kind kind = Kind::kOther;
    const void* value = nullptr;
};

template <typename T>
LogArg MakeLogArg(const T& value) {
    using Kind = LogArg::Kind;
    Kind kind = Kind::kOther;
    if constexpr (std::is_same_v<T, std::string>) kind = Kind::kString;
    if constexpr (std::is_same_v<T, int>) kind = Kind::kInt;
    if constexpr (std::is_same_v<T, long>) kind = Kind::kLong;
    if constexpr (std::is_same_v<T, unsigned int>) kind = Kind::kUnsigned;
    if constexpr (std::is_same_v<T, unsigned long>) kind = Kind::kUnsignedLong;
    if constexpr (std::is_same_v<T, bool>) kind = Kind::kBool;
    return LogArg{kind, &value};
}

/// Formats `fmt` with `args` into `out` as Poco::format does, for the plain placeholders the
/// agent's records use (%s, %d, %ld, %u, %lu, %z, %b, %%) with arguments of their exact types,
/// without Poco's stream and copies. false (and `out` unspecified) for anything else: a width, a
/// flag, another conversion, a missing or mistyped argument; the caller then asks Poco::format.
bool FormatPlainText(std::string& out, const char* fmt, const LogArg* args, std::size_t count);

/// A record made once per thread: a new Poco::Message asks the kernel for the process id every
/// time (a system call per log line); a copy of this one carries the thread's ids along.
inline const Poco::Message& ThreadRecordPrototype() {
    thread_local const Poco::Message prototype;
    return prototype;
}

/// Writes one log record the agent's way: nothing is formatted unless the logger exists and
/// admits the priority; the record carries the logger's name, the bare source-file name and the
/// line; a std::exception thrown while formatting or writing (a wrong argument type for a
/// placeholder, a failing channel) is swallowed so that logging never breaks the caller.
/// Arguments must match their placeholders exactly: %s std::string, %d int, %u unsigned int,
/// %lu unsigned long, %b bool.
template <typename... Args>
inline void LogRecord(Poco::Logger* logger, Poco::Message::Priority prio, const char* file,
                      int line, const char* fmt, const Args&... args) {
    try {
        if (logger == nullptr || !logger->is(prio)) return;
        const std::string fileName = PathUtils::GetFileNameFromPath(file);
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = fmt;
        } else {
            const LogArg plain[] = {MakeLogArg(args)...};
            if (!FormatPlainText(text, fmt, plain, sizeof...(Args))) {
                // Poco::format's variadic forms copy every argument three times on its way
                // into the list it formats from; one copy each is enough.
                text.clear();
                std::vector<Poco::Any> values;
                values.reserve(sizeof...(Args));
                (values.emplace_back(args), ...);
                Poco::format(text, fmt, values);
            }
        }
        Poco::Channel* channel = logger->getChannel();
        if (!logger->is(prio) || channel == nullptr) return;
        // The record keeps a pointer to its file name: point into the __FILE__ literal, which
        // lives for the whole process, so that a channel that keeps records stays valid.
        const std::size_t length = std::char_traits<char>::length(file);
        const char* bareName = fileName.size() <= length ? file + (length - fileName.size()) : file;
        Poco::Message record(ThreadRecordPrototype(), text);
        record.setSource(logger->name());
        record.setPriority(prio);
        record.setSourceFile(bareName);
        record.setSourceLine(line);
        record.setTime(Poco::Timestamp());
        channel->log(record);
    } catch (const std::exception&) {
        // A log line must never interrupt the operation around it.
    }
}

}  // namespace SDK

/// TW_LOG(loggerExpr, PRIO_xxx, "fmt", args...): the one logging helper of the agent.
#define TW_LOG(logger, prio, ...) \
    ::SDK::LogRecord((logger), ::Poco::Message::prio, __FILE__, __LINE__, __VA_ARGS__)
