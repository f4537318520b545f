// A head in the lab whose daemon runs on the fault-injecting library: brings it into the state that a row begins with,
// makes the row's call or request fail, and compares what follows with what the row says.
#pragma once

#include "fault_page.h"
#include "inject/fault_control.h"
#include "tests/system/head.h"

inline constexpr double FAST = 10;      // lab time in real time, while nothing is looked at
inline constexpr int32_t FACTOR = 2500; // the whole pan travel takes 0.3 s of the lab
inline constexpr int32_t SLOWLY = 50;   // for steps: 200 steps a second of the lab

inline constexpr int32_t NOWHERE = -1;

/// A call of the matrix.
struct FaultyCall {
    const char* name;      // in the column Call: the method, and behind it what tells calls of one method apart
    const char* arguments; // null: what happens without a call
    struct {
        int32_t pan = NOWHERE; // where it sends the head, in steps
        int32_t tilt = NOWHERE;
        bool relative = false;
    } goal{};
    struct {
        const char* package; // of the setting that it stores
        const char* text;    // a pattern that is in its file then; "!" before: that is not
    } stored{};

    [[nodiscard]] std::string method() const
    {
        return std::string(name).substr(0, std::string(name).find_first_of(" ,"));
    }
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
    /// The text of a file of the lab, by its path in it, and of a package of settings.
    [[nodiscard]] std::string fileText(const std::string& path) const;
    [[nodiscard]] std::string settings(const std::string& package) const;
    void setFactors(int32_t factor);

    /// Does and checks all that a row says; a null point: without failure.
    void run(const PageRow& row, const FaultPoint* point, bool ever);
    /// Expects healthy calls to succeed after the last row, puts the first settings back, which takes a restart unless
    /// they are in the files only, and brings the head home and into the row's state; the clock is nearly stopped then.
    void begin(const PageRow& row);
    /// Whether the head and the settings are what the row says.
    bool isDone(const PageRow& row);
    bool hasReported(size_t lines);
    /// Lines of the console and of the log since they had these lengths, without "[function:line]: ". Fails the test
    /// for lines of another form, and for those that are not in the message log too.
    std::vector<std::string> logged(size_t consoleFrom, size_t logFrom);
    /// Whether a motion was under way when the call came.
    [[nodiscard]] bool turning() const;
    [[nodiscard]] std::vector<std::string> notified() const;

    FaultControl* control_ = nullptr;
    // Of the latest row:
    const FaultyCall* last_ = nullptr;
    bool lastDone_ = false;              // answered with 0
    bool isStep_ = false;                // a step move
    std::string lastState_;              // of the head
    int32_t start_[LAB_AXIS_COUNT] = {}; // where the head was when the call came
    size_t console_ = 0;                 // lengths when the call came
    size_t log_ = 0;
    std::map<std::string, std::string> before_; // the settings files then, and behind the latest run()
    std::map<std::string, std::string> after_;

private:
    static const FaultyCall* callOf(const std::string& name);
    void expectDone(const std::string& method, const std::string& arguments = "");
    void expectRecovered();
    void home();
    void prepare(const std::string& state);
    bool isAsStated(const PageRow& row, LabAxisId axis);
    bool isStored();
    void writeSettings(const std::string& package, const std::string& text) const;

    std::map<std::string, std::string> pristine_;
};
