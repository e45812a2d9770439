#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "report/SinkWorker.h"

namespace Report {

/// "data_comm_report_task": hands every alarm document (DataMessage) to each configured output.
/// Handling a message only appends the document to each output's on-disk spool; the outputs'
/// own threads deliver from there, so neither a sender nor this task ever waits on an output.
/// A document that is not JSON is logged and dropped (report.alarms.invalid). SIGHUP reopens
/// the outputs (the alarm file after rotation).
class DataCommReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";

    /// Takes the workers; they start in Init and stop (after a bounded drain) in UnInit.
    explicit DataCommReportTask(std::vector<std::unique_ptr<SinkWorker>> workers);

    int Init() override;
    void UnInit() override;
    int HandleMsg(const Framework::Message* msg) override;

protected:
    /// Passes a SIGHUP reopen request on to every output.
    void OnTurn(uint64_t nowMs) override;

private:
    // Parses `text` into `root`; true when it is a JSON object. Task thread only: reuses reader_.
    bool ParseObject(const std::string& text, Json::Value& root);

    std::unique_ptr<Json::CharReader> reader_;
    std::vector<std::unique_ptr<SinkWorker>> workers_;
};

/// One alarm document as one line: line breaks (whitespace in valid JSON) become spaces, so a
/// reader of JSON Lines never sees a document split in two.
std::string ToSingleLine(const std::string& document);

/// The class an alarm is counted under: its "event_classid" when that is one of the classes the
/// agent raises, "other" for anything else, so that a sender cannot grow the set of counters.
std::string AlarmClass(const Json::Value& document);
/// Counter prefix of the alarms received per class ("<prefix>.<class>").
constexpr const char* kAlarmClassCounter = "report.alarms.class";

}  // namespace Report
