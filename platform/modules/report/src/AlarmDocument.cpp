#include "report/AlarmDocument.h"

#include <Poco/JSON/Handler.h>
#include <Poco/JSON/Parser.h>

#include <exception>

namespace Report {

namespace {
const char* const kKnownClasses[] = {"dockerfile_001", "dockerfile_002"};

// Follows the parse only as far as the class needs: the depth, whether the document is an
// object, and the string under the top-level "event_classid". Nothing is kept of the rest.
class ClassReader : public Poco::JSON::Handler {
public:
    void reset() override {
        depth_ = 0;
        isObject_ = false;
        wantClass_ = false;
        classId_.clear();
    }
    void startObject() override {
        if (depth_ == 0) isObject_ = true;
        Open();
    }
    void endObject() override { --depth_; }
    void startArray() override { Open(); }
    void endArray() override { --depth_; }
    void key(const std::string& name) override {
        wantClass_ = depth_ == 1 && name == "event_classid";
    }
    void value(const std::string& text) override {
        if (wantClass_) classId_ = text;
        wantClass_ = false;
    }
    void null() override { wantClass_ = false; }
    void value(int) override { wantClass_ = false; }
    void value(unsigned) override { wantClass_ = false; }
    void value(Poco::Int64) override { wantClass_ = false; }
    void value(Poco::UInt64) override { wantClass_ = false; }
    void value(double) override { wantClass_ = false; }
    void value(bool) override { wantClass_ = false; }
    Poco::Dynamic::Var asVar() const override { return {}; }
    Poco::DynamicStruct asStruct() const override { return {}; }

    bool IsObject() const { return isObject_; }
    const std::string& ClassId() const { return classId_; }

private:
    void Open() {
        ++depth_;
        wantClass_ = false;
    }

    int depth_ = 0;
    bool isObject_ = false;
    bool wantClass_ = false;
    std::string classId_;
};

struct ClassParser {
    Poco::SharedPtr<ClassReader> reader{new ClassReader};
    Poco::JSON::Parser parser{reader};
    ClassParser() { parser.setDepth(kMaxAlarmDepth); }
};
}  // namespace

bool ReadAlarmClass(const std::string& text, std::string& alarmClass) {
    // One parser per thread, reused: every alarm passes here.
    thread_local ClassParser state;
    try {
        state.parser.reset();
        state.reader->reset();
        state.parser.parse(text);
    } catch (const std::exception&) {
        return false;  // not JSON, or nested too deep
    }
    if (!state.reader->IsObject()) return false;
    alarmClass = "other";
    for (const char* known : kKnownClasses) {
        if (state.reader->ClassId() == known) alarmClass = known;
    }
    return true;
}

}  // namespace Report
