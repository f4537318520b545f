// The motor devices as a program in the lab sees them.

#include "probe.h"

#include "lab/clock.h"

#include <filesystem>
#include <regex>

namespace {

using namespace std::chrono_literals;

constexpr const char* IO_ERROR = "errno 5";

class Motors : public MotorLab {
protected:
    void SetUp() override
    {
        MotorLab::SetUp();
        probe_.emplace(lab_);
        ASSERT_EQ(probe_->ask("open x"), "1"); // FD_CLOEXEC, as asked
        ASSERT_EQ(probe_->ask("open y"), "1");
    }
    void TearDown() override
    {
        EXPECT_EQ(probe_->finish(), 0) << "a sanitizer has something to say";
    }
    std::string ask(const std::string& command)
    {
        return probe_->ask(command);
    }
    std::vector<LabJournalEntry> journalOf(const std::string& request)
    {
        std::vector<LabJournalEntry> entries = lab_.records.journal();
        std::erase_if(entries, [&](const LabJournalEntry& entry) { return entry.request != request; });
        return entries;
    }
    /// The numbers under which the probe holds the journal open.
    std::vector<std::string> journalNumbers() const
    {
        std::vector<std::string> numbers;
        std::error_code gone;
        for (const auto& fd : std::filesystem::directory_iterator("/proc/" + std::to_string(probe_->pid()) + "/fd"))
            if (std::filesystem::read_symlink(fd.path(), gone).string().starts_with(lab_.folder() + "/journal"))
                numbers.push_back(fd.path().filename());
        return numbers;
    }
    bool rotates()
    {
        return waitUntil([this] { return lab_.motors.now(LAB_PAN).running == 1; }, 5s);
    }
    std::optional<Probe> probe_;
};

TEST_F(Motors, StandInTheMiddleWithoutPowerAtFirst)
{
    EXPECT_EQ(ask("capa x"), "300 8 3000 0 0");
    EXPECT_EQ(ask("capa y"), "122 8 1220 0 0");
    EXPECT_EQ(ask("status x"), "0 1 0 0 1");
    EXPECT_EQ(lab_.motors.now(LAB_PAN).shaft, 1500);
    EXPECT_EQ(ask("nothing x"), "errno 14") << "a request without a record";
}

TEST_F(Motors, MoveReturnsAtOnceAndThePositionFollowsTheClock)
{
    ask("setpos x 1500");
    ask("move x 1 1000"); // for 1 s
    ask("status x");
    ask("speed x 4"); // counts for the motion too
    const auto begun = journalOf("MOVE").at(0);
    const auto asked = journalOf("GET_STATUS").at(0);
    EXPECT_EQ(begun.rate, 1000);
    EXPECT_EQ(begun.left, 1000);
    EXPECT_EQ(begun.stepsWord(), 1000);
    EXPECT_EQ(asked.out.at(2), 1500 + (asked.labNs - begun.labNs) / 1'000'000) << "a step in 1 ms";
    EXPECT_EQ(journalOf("SET_SPEED").at(0).rate, 4000);
    EXPECT_TRUE(waitUntil([this] { return ask("status x") == "0 4 2500 0 1"; }, 5s));
}

TEST_F(Motors, ABlockedRotationAnswersOthersAndFailsWhenStoppedReplacedOrWithoutPower)
{
    const auto rotateBehind = [this] {
        ask("rotate-behind x -2000");
        ASSERT_TRUE(rotates());
        EXPECT_EQ(ask("status x").substr(0, 4), "0 1 ");
    };
    ask("setpos x 3000");
    rotateBehind();
    EXPECT_EQ(ask("stop x"), "0");
    EXPECT_EQ(ask("join"), IO_ERROR);
    rotateBehind();
    ask("move x 8 40");
    EXPECT_EQ(ask("join"), IO_ERROR);
    EXPECT_TRUE(waitUntil([this] { return lab_.motors.now(LAB_PAN).running == 0; }, 5s));
    rotateBehind();
    const int32_t shaft = lab_.motors.now(LAB_PAN).shaft;
    lab_.motors.powerLoss();
    EXPECT_EQ(ask("join"), IO_ERROR);
    EXPECT_EQ(ask("status x"), "0 1 0 0 1");
    EXPECT_NEAR(lab_.motors.now(LAB_PAN).shaft, shaft, 500) << "the head itself does not move";
    EXPECT_EQ(journalOf(JOURNAL_POWER_LOSS).size(), 2u);
    const auto ends = journalOf(JOURNAL_ROTATE_END);
    ASSERT_EQ(ends.size(), 3u);
    EXPECT_EQ(ends[0].result, 5);
    ask("rotate-behind x 20");
    EXPECT_EQ(ask("join"), "done 0");
}

TEST_F(Motors, ADelayedAnswerIsStaleHoldsNobodyUpAndEndsWhenHealed)
{
    ask("setpos x 100");
    lab_.motors.delayRequest(LAB_PAN, LAB_ROTATE, 3'600'000);
    ask("rotate-behind x 1");
    ASSERT_TRUE(waitUntil([this] { return !journalOf(JOURNAL_ROTATE_END).empty(); }, 5s));
    EXPECT_EQ(ask("status x"), "0 1 101 0 1") << "done, but not answered";
    lab_.motors.clearFaults(LAB_PAN);
    EXPECT_EQ(ask("join"), "done 0");

    lab_.motors.delayRequest(LAB_PAN, LAB_GET_STATUS, 300);
    Probe other(lab_);
    ASSERT_EQ(other.ask("open x"), "1");
    probe_->send("status x");
    ASSERT_TRUE(waitUntil([this] { return journalOf("GET_STATUS").size() == 2; }, 5s));
    EXPECT_EQ(other.ask("setpos x 900"), "0");
    EXPECT_EQ(probe_->receive(), "0 1 101 0 1") << "what was true when it was asked";
}

TEST_F(Motors, GoOnWhenTheirProgramIsKilledInTheMidst)
{
    ask("setpos x 0");
    ask("setpos y 1000");
    ask("move x 1 400"); // 400 ms
    ask("rotate-behind y -300");
    ASSERT_TRUE(waitUntil([this] { return lab_.motors.now(LAB_TILT).running == 1; }, 5s));
    probe_->kill9();
    Probe next(lab_);
    next.ask("open x");
    next.ask("open y");
    EXPECT_TRUE(waitUntil([&] { return next.ask("status x") == "0 1 400 0 1"; }, 5s));
    EXPECT_TRUE(waitUntil([&] { return next.ask("status y") == "0 1 700 0 -1"; }, 5s));
    EXPECT_EQ(lab_.motors.now(LAB_PAN).shaft, 1900);
}

TEST_F(Motors, ALockLeftBehindStopsNobody)
{
    const pid_t child = fork();
    if (child == 0) {
        const LabLock hold(*mapLabState(lab_.folder().c_str()));
        raise(SIGKILL);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(ask("setpos x 5"), "0");
    EXPECT_EQ(lab_.motors.now(LAB_PAN).count, 5);
}

TEST_F(Motors, JournalEveryRequestWhateverTheProgramDoesWithItsDescriptors)
{
    const std::string journal = lab_.folder() + "/journal";
    const std::string own = lab_.folder() + "/own";
    const auto asked = [this] { return journalOf("GET_STATUS").size(); };
    ask("status x");
    // "#" stands for the number of the journal's descriptor.
    const struct {
        const char* command;
        const char* answer;
    } disturbances[] = {
        {"close #", "errno 9"}, {"close-range 3", "0"}, {"closefrom 3", "0"},
        {"put # OWN", "#"},     {"put-raw # OWN", "#"}, {"close-range #", "0"},
    };
    for (const auto& [command, answer] : disturbances) {
        SCOPED_TRACE(command);
        ASSERT_EQ(journalNumbers().size(), 1u);
        const std::string number = journalNumbers()[0];
        const auto filled = [&](std::string text) {
            text = std::regex_replace(text, std::regex("#"), number);
            return std::regex_replace(text, std::regex("OWN"), own);
        };
        lab_.records.clear();
        EXPECT_EQ(ask(filled(command)), filled(answer));
        ask("open x");
        EXPECT_EQ(ask("status x"), "0 1 0 0 1");
        EXPECT_EQ(asked(), 1u);
        EXPECT_EQ(journalNumbers().size(), 1u);
    }
    lab_.records.clear();
    EXPECT_EQ(ask("storm 3000 " + own), "3000");
    EXPECT_EQ(asked(), 3000u);
    EXPECT_EQ(std::filesystem::file_size(own), 0u) << "the lab's text in a file of the program's";

    std::filesystem::remove(journal);
    EXPECT_EQ(ask("fork 20"), "0");
    const std::vector<LabJournalEntry> entries = lab_.records.journal();
    EXPECT_EQ(entries.size(), 21u);
    for (const LabJournalEntry& entry : entries)
        EXPECT_TRUE(entry.pid == entry.thread && (entry.pid == probe_->pid()) == (&entry == &entries.back()));
    EXPECT_EQ(journalNumbers().size(), 1u);
}

TEST_F(Motors, KeepTheHeadWhereItIsWhenTheLabStartsAnew)
{
    ask("setpos x 1500");
    ask("rotate x 300");
    ASSERT_TRUE(lab_.up(options_));
    EXPECT_EQ(lab_.motors.now(LAB_PAN).shaft, 1800);
    EXPECT_EQ(lab_.motors.now(LAB_PAN).count, 0);
    EXPECT_TRUE(lab_.records.journal().empty());
}

} // namespace
