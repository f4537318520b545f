// A head in the lab whose daemon runs on the fault-injecting library: brings it into the state that a row begins with,
// makes the row's call or request fail, and compares what follows with what the row says.
#pragma once

#include "fault_control.h"
#include "fault_page.h"
#include "tests/system/head.h"

inline constexpr double FAST = 10;      // lab time in real time, while nothing is looked at
inline constexpr int32_t FACTOR = 2500; // the whole pan travel takes 0.3 s of the lab
inline constexpr int32_t SLOWLY = 100;  // for steps: 400 steps a second of the lab

/// A call of the matrix, as the page names it.
struct FaultyCall {
    const char* name;   // in the column Call
    const char* method; // null: what happens without a call
    const char* arguments;
    int32_t pan = -1; // where it sends the head, in steps; -1: nowhere
    int32_t tilt = -1;
    bool relative = false;
    const char* package = nullptr; // of the setting that it stores; the texts, separated by "*", that are in its file
    const char* stored = nullptr;  // then, "!" before: are not
    const char* undo = nullptr;    // a call of the matrix that takes it back
};

class FaultyHead : public HeadInTheLab {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Options that put the injecting library before the lab's own.
    LabOptions withFaults();
    /// A calibrated head at home with preset 1, position recovery off, and a plan that names the preset all week.
    void upWithFaults();
    void arm(const FaultPoint& point, bool ever);
    void disarm();
    /// How often the point has failed since it was armed.
    uint32_t met(const FaultPoint& point);
    [[nodiscard]] FaultControl& control() const
    {
        return *control_;
    }
    /// The text of a file of the lab, by its path in it.
    [[nodiscard]] std::string fileText(const std::string& path) const;
    void run(const PageRow& row, const FaultPoint* point, bool ever);
    /// Lines of the console since `from`, a length that ptzdLog() had, without "[function:line]: ". Fails the test for
    /// lines of another form, and for those that are not in the message log too.
    std::vector<std::string> reports(size_t consoleFrom, size_t logFrom);

    static const FaultyCall* callOf(const std::string& name);
    /// Brings the head home, with all that the last call has left taken back by healthy calls; then into a state.
    void home();
    void prepare(const std::string& state);
    bool standsAsStated(const PageRow& row, LabAxisId axis);
    bool isStored(const FaultyCall& call);
    [[nodiscard]] bool turning() const;
    std::string settings(const std::string& package) const;
    std::vector<std::string> told() const;

    const FaultyCall* last_ = nullptr; // to be undone
    bool lastDone_ = false;            // answered with 0
    std::string lastState_;
    int32_t start_[LAB_AXIS_COUNT] = {}; // where the head stands when the call comes

    // Of the latest run(): the settings files behind it, lab time of the call, and what the daemon had called when it
    // answered.
    std::map<std::string, std::string> after_;
    int64_t callNs_ = 0;
    uint32_t seen_[FAULT_CALL_COUNT] = {};

private:
    void restoreSettings();
    void undo();
    void makePreset();
    void goOnABit();
    bool expectAnswer(const PageRow& row, const FaultyCall& call, const std::string& answer);
    void writeSettings(const std::string& package, const std::string& text) const;
    void freeze();
    void thaw();

    FaultControl* control_ = nullptr;
    std::map<std::string, std::string> pristine_;
    int32_t before_[LAB_AXIS_COUNT] = {}; // where a motion under way leads
};
