// Target tracking and the way back.

#include "head.h"

namespace {

class Track : public HeadInTheLab {
protected:
    std::string track(int x, int y, const char* xSpeed = "8", const char* ySpeed = "8")
    {
        return lab.call("targetTrack", R"({"x_coord":")" + std::to_string(x) + R"(","y_coord":")" + std::to_string(y) +
                                           R"(","x_speed":")" + xSpeed + R"(","y_speed":")" + ySpeed + "\"}");
    }
    /// Waits for so many ends of motions, with or without events.
    bool idle(int times)
    {
        return waitUntil([&] { return lab.callsToCet("notify_motor_idle") == times; }, DEADLINE);
    }
    std::string reload(const char* enabled)
    {
        EXPECT_TRUE(lab.uciSet("target_track.target_track_info.enabled", enabled));
        return lab.call("reloadTargetTrackConfig");
    }
    std::vector<std::string> origins()
    {
        std::vector<std::string> found;
        for (const LabCetEntry& entry : lab.cetLog())
            if (!entry.isEvent)
                found.push_back(entry.text);
        return found;
    }
};

TEST_F(Track, FollowsTwiceAndReturnsToWhereItStoodBefore)
{
    up();
    goTo(30, 0);
    EXPECT_EQ(track(10, 5), DONE);
    ASSERT_TRUE(idle(1));
    EXPECT_EQ(track(10, -20, "0", "99"), DONE);
    ASSERT_TRUE(idle(2));
    expectAt(2000, 460);
    EXPECT_TRUE(lab.actions().empty()) << "tracking raises no alarm";
    const auto pan = driving(LAB_PAN);
    ASSERT_EQ(pan.size(), 2u);
    EXPECT_EQ(pan[0].speedWord(), 8);
    EXPECT_EQ(pan[1].speedWord(), 1);
    EXPECT_EQ(lab.call("targetTrackBack"), DONE);
    ASSERT_TRUE(idle(3));
    expectAt(1800, 610);
    EXPECT_EQ(origins(), (std::vector<std::string>{"1", "1", "1", "1", "2", "2"}));
    ASSERT_TRUE(waitUntil([&] { return lab.actions() == std::vector<std::string>{"start", "stop"}; }, DEADLINE));
    EXPECT_EQ(lab.call("targetTrackBack"), DONE);
    EXPECT_EQ(moves(LAB_PAN).size(), 3u) << "it is there already";
}

TEST_F(Track, IsRefusedWhileTheHeadRunsAndLeavesItAlone)
{
    up(slowHead());
    EXPECT_EQ(track(100, 0, "1", "1"), DONE);
    EXPECT_EQ(track(1, 0), REFUSED_CALIBRATING);
    EXPECT_EQ(lab.call("targetTrack", coords(1, 1)), REFUSED_PARAM);
    EXPECT_TRUE(reported("ubusTargetTrack", "UBUS: Invalied parameter."));
    EXPECT_EQ(requests("STOP"), 0);
    EXPECT_EQ(lab.call("stop"), DONE);
    EXPECT_EQ(lab.actions(), std::vector<std::string>{"stop"}) << "a stop is the user's motion";
}

TEST_F(Track, ReturnsWhenItIsSwitchedOff)
{
    up(slowHead());
    EXPECT_EQ(reload("off"), R"({"err_code":0})");
    EXPECT_EQ(reload("ON"), R"({"err_code":0})");
    EXPECT_EQ(track(150, 0, "1", "1"), DONE);
    EXPECT_EQ(reload("on"), R"({"err_code":0})");
    EXPECT_EQ(requests("STOP"), 0);
    EXPECT_EQ(reload("off"), R"({"err_code":0})");
    ASSERT_TRUE(idle(1));
    expectAt(1500, 550);
    EXPECT_EQ(moves(LAB_PAN).size(), 2u);
    EXPECT_EQ(origins(), (std::vector<std::string>{"1", "1"})) << "one motion, turned around";

    EXPECT_EQ(reload("on"), R"({"err_code":0})");
    EXPECT_EQ(lab.call("startPanorama"), DONE);
    EXPECT_EQ(reload("off"), R"({"err_code":-64329})");
    EXPECT_EQ(lab.call("stopPanorama"), DONE);
}

TEST_F(Track, KnowsItsSwitchFromTheStart)
{
    LabOptions options = fastHead();
    options.config["target_track"] = "config target_track 'target_track_info'\n\toption enabled 'on'\n";
    up(options);
    EXPECT_EQ(track(10, 0), DONE);
    ASSERT_TRUE(idle(1));
    EXPECT_EQ(reload("off"), R"({"err_code":0})");
    ASSERT_TRUE(idle(2));
    expectAt(1500, 550);
}

} // namespace
