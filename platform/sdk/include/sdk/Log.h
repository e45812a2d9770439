#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Timestamp.h>

#include <cstddef>
#include <exception>
#include <string>
#include <vector>

#include "sdk/PathUtils.h"

namespace SDK {

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
            // Poco::format's variadic forms copy every argument three times on its way into
            // the list it formats from; one copy each is enough.
            std::vector<Poco::Any> values;
            values.reserve(sizeof...(Args));
            (values.emplace_back(args), ...);
            Poco::format(text, fmt, values);
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
