#include "head.h"

#include <regex>

void HeadInTheLab::TearDown()
{
    // Whatever a test did, the daemon must end well and no sanitizer may have found anything.
    if (lab.programs.ptzdPid() != 0) {
        const auto status = lab.programs.killPtzd(SIGTERM);
        ASSERT_TRUE(status.has_value()) << "does not end\n" << lab.records.ptzdLog();
        EXPECT_EQ(*status, 0) << lab.records.ptzdLog();
    }
    EXPECT_EQ(lab.records.ptzdLog().find("Sanitizer"), std::string::npos) << lab.records.ptzdLog();
    if (HasFailure())
        printWhatHappened();
}

void HeadInTheLab::up(const LabOptions& options)
{
    // However slow the head is to be, its calibration is quick.
    LabOptions calibrating = options;
    if (options.startPtzd && options.waitCalibrated)
        calibrating.factor = std::max(options.factor, fastHead().factor);
    ASSERT_TRUE(lab.up(calibrating)) << lab.error();
    lab.motors.setFactor(LAB_PAN, options.factor);
    lab.motors.setFactor(LAB_TILT, options.factor);
    // The calibration announces itself too, and its last event may still be on its way when the daemon is ready.
    const auto announced = [&] { return !lab.records.actions().empty() && lab.records.actions().back() == "stop"; };
    ASSERT_TRUE(!options.startCet || !options.startPtzd || waitUntil(announced, DEADLINE));
    lab.records.clear();
}

void HeadInTheLab::printWhatHappened()
{
    std::fprintf(stderr, "--- the daemon's console:\n%s---\n", lab.records.ptzdLog().c_str());
    for (const LabCetEntry& entry : lab.records.cetLog())
        std::fprintf(stderr, "%8.3f s  %s %s\n", static_cast<double>(entry.realNs) / 1e9, entry.name.c_str(),
                     entry.text.c_str());
    for (const LabAxisId axis : {LAB_PAN, LAB_TILT})
        for (const LabJournalEntry& entry : driving(axis))
            std::fprintf(stderr, "%8.3f s  %c %s %d\n", static_cast<double>(entry.realNs) / 1e9,
                         axis == LAB_PAN ? 'x' : 'y', entry.request.c_str(), entry.stepsWord());
}

bool HeadInTheLab::rests()
{
    return lab.motors.now(LAB_PAN).running == 0 && lab.motors.now(LAB_TILT).running == 0;
}

bool HeadInTheLab::settled(int motions)
{
    return waitUntil(
        [&] {
            const int moving = lab.records.callsToCet("notify_motor_moving");
            const int idle = lab.records.callsToCet("notify_motor_idle");
            return moving >= motions && moving == idle &&
                   lab.records.actions().size() == 2 * static_cast<size_t>(moving);
        },
        DEADLINE);
}

bool HeadInTheLab::reported(const std::string& function, const std::string& text)
{
    const std::regex line("\\[" + function + ":[0-9]+\\]: ([^\n]*)\n");
    return waitUntil(
        [&] {
            const std::string log = lab.records.ptzdLog();
            for (auto at = std::sregex_iterator(log.begin(), log.end(), line); at != std::sregex_iterator(); ++at)
                if ((*at)[1] == text)
                    return lab.records.messageLog().find(" 5 PTZD: " + text + "\n") != std::string::npos;
            return false;
        },
        DEADLINE);
}

std::vector<LabJournalEntry> HeadInTheLab::driving(LabAxisId axis)
{
    std::vector<LabJournalEntry> found;
    for (const LabJournalEntry& entry : lab.records.journal())
        if (entry.axis == axis && (entry.request == "MOVE" || entry.request == "STOP"))
            found.push_back(entry);
    return found;
}

void HeadInTheLab::expectAt(int32_t pan, int32_t tilt)
{
    EXPECT_EQ(lab.motors.now(LAB_PAN).shaft, pan);
    EXPECT_EQ(lab.motors.now(LAB_TILT).shaft, tilt);
}

std::string HeadInTheLab::coords(int32_t x, int32_t y)
{
    return R"({"x_coord":")" + std::to_string(x) + R"(","y_coord":")" + std::to_string(y) + "\"}";
}

int HeadInTheLab::requests(const std::string& name)
{
    int count = 0;
    for (const LabJournalEntry& entry : lab.records.journal())
        count += entry.request == name ? 1 : 0;
    return count;
}
