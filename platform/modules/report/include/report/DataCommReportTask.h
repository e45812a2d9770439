#pragma once

#include <memory>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "report/SinkTask.h"

namespace Report {

/// "data_comm_report_task": hands every alarm document (DataMessage) to each configured output.
/// Handling a message only appends the document to each output's on-disk spool; each output's
/// own task delivers from there, so neither a sender nor this task ever waits on an output.
/// A document that is not JSON is logged and dropped (report.alarms.invalid). SIGHUP reopens
/// the outputs (the alarm file after rotation).
class DataCommReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";

    /// `outputs` are registered tasks of the same module, which stops this task before them.
    explicit DataCommReportTask(std::vector<SinkTask*> outputs);

    int Init() override;
    /// Checks and counts an alarm; it is spooled with the rest of its batch.
    int HandleMsg(const Framework::Message* msg) override;
    /// Spools the alarms of the batch just handled: one write per output, one wake-up of
    /// each output's task.
    void OnBatchEnd() override;

protected:
    /// Passes a SIGHUP reopen request on to every output.
    void OnTurn(uint64_t nowMs) override;

private:
    std::vector<std::string> gathered_;  // checked alarms of the current batch; task thread
    std::vector<SinkTask*> outputs_;
};

/// One alarm document as one line: line breaks (whitespace in valid JSON) become spaces, so a
/// reader of JSON Lines never sees a document split in two.
std::string ToSingleLine(const std::string& document);

}  // namespace Report
