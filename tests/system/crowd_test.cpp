// Many clients that call without pause, one that wants the head to stop, and one that sends its calls all at once.

#include "raw_caller.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <random>

namespace {

using Call = RawCaller::Call;
using Clock = std::chrono::steady_clock;

constexpr size_t CLIENTS = 64;

/// Clients that call without end, each as soon as its last call is answered, with the calls in turn.
class Crowd {
public:
    Crowd(const Lab& lab, const std::vector<Call>& calls)
    {
        for (size_t i = 0; i < CLIENTS; ++i)
            clients_.emplace_back([this, &lab, call = calls[i % calls.size()]] {
                RawCaller caller(lab);
                blob_buf_init(&caller.message, 0);
                blobmsg_add_json_from_string(&caller.message, call.arguments);
                for (; !ending_.load(); ++answered_)
                    (void)caller.call(call.method); // fails the test without an answer
            });
    }
    ~Crowd()
    {
        ending_.store(true);
        for (std::thread& client : clients_)
            client.join();
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    [[nodiscard]] long answered() const
    {
        return answered_.load();
    }

private:
    std::atomic<bool> ending_{false};
    std::atomic<long> answered_{0};
    std::vector<std::thread> clients_;
};

TEST_F(HeadInTheLab, AnswersStopAmidACrowdOfCallers)
{
    up(slowHead());
    std::mt19937 random(1); // only when to call
    const struct {
        const char* what;
        int stops; // in the long run
        std::vector<Call> calls;
    } loads[] = {
        {"reading", 2000, {{"getStatus", "{}"}, {"getCapa", "{}"}, {"checkMotorStatus", "{}"}, {"getPresetAll", "{}"}}},
        {"moving",
         2000,
         {{"moveTo", R"({"x_coord":"60","y_coord":"0"})"},
          {"moveTo", R"({"x_coord":"-60","y_coord":"10"})"},
          {"moveStep", R"({"direction":"90"})"}}},
        {"storing", 300, {{"setPreset", R"({"id":"1","name":"crowd"})"}, {"getPresetAll", "{}"}}},
    };
    for (const auto& [what, stops, calls] : loads) {
        SCOPED_TRACE(what);
        const Crowd crowd(lab, calls);
        ASSERT_TRUE(waitUntil([&] { return crowd.answered() > 2 * static_cast<long>(CLIENTS); }, DEADLINE));
        RawCaller caller(lab);
        blob_buf_init(&caller.message, 0);
        std::vector<double> took; // milliseconds
        const long before = crowd.answered();
        const auto began = Clock::now();
        for (int i = 0; i < repetitions(10, stops); ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 10000));
            const auto sent = Clock::now();
            ASSERT_EQ(caller.call("stop"), 0);
            took.push_back(std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
        }
        const std::chrono::duration<double> whole = Clock::now() - began;
        const double rate = static_cast<double>(crowd.answered() - before) / whole.count();
        std::sort(took.begin(), took.end());
        const auto quantile = [&](size_t percent) { return took[(took.size() - 1) * percent / 100]; };
        printf("%s: stop answered in %.2f ms (median), %.2f (99 %%), %.2f (max of %zu), beside %.0f calls a second\n",
               what, quantile(50), quantile(99), took.back(), took.size(), rate);
        EXPECT_LT(quantile(50), 5000) << "the crowd is served first";
    }
    ASSERT_EQ(lab.call("stop"), DONE);
}

TEST_F(HeadInTheLab, ServesTheCallsOfAClientInTheirOrder)
{
    constexpr Call SET_PRESET{"setPreset", R"({"id":"1","name":"gate"})"};
    constexpr Call DELETE_PRESET{"delPreset", R"({"id":["1"]})"};
    constexpr Call GET_PRESETS{"getPresetAll", "{}"};
    constexpr Call GO_TO_PRESET{"gotoPreset", R"({"id":"1"})"};
    constexpr Call STORING[] = {{"setConfig", R"({"x_speed":"3"})"},
                                {"setPowerOffRecover", R"({"recover":"1"})"},
                                SET_PRESET,
                                DELETE_PRESET,
                                {"setPresetConfig", R"({"speed":"0.5"})"},
                                {"clearPreset", "{}"},
                                {"set_plan_config", R"({"monday":[]})"}};
    constexpr Call OTHERS[] = {{"getStatus", "{}"},
                               GET_PRESETS,
                               {"updateImageConfig", "{}"},
                               {"reload_tour_info", "{}"},
                               {"moveTo", R"({"x_coord":"10","y_coord":"0"})"},
                               {"moveStep", R"({"direction":"90"})"},
                               {"stop", "{}"},
                               GO_TO_PRESET,
                               {"startPanorama", "{}"},
                               {"stopPanorama", "{}"}};
    up();
    RawCaller caller(lab);
    const auto pipelined = [&](const Call& first, const Call& second) {
        const std::vector<std::string> answers = caller.pipelined(std::array{first, second});
        const bool inOrder = answers.size() == 2 && answers[0][0] == '0' && answers[1][0] == '1';
        EXPECT_TRUE(inOrder) << first.method << ", " << second.method << ": " << testing::PrintToString(answers);
        return inOrder ? answers[1] : "";
    };
    for (const Call& store : STORING)
        for (const Call& other : OTHERS)
            (void)pipelined(store, other);

    // What an inversion does to a client.
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    EXPECT_NE(pipelined(SET_PRESET, GET_PRESETS).find("gate"), std::string::npos) << "it was stored before";
    EXPECT_EQ(pipelined(DELETE_PRESET, GO_TO_PRESET), R"(1 {"error_code":-64321})") << "it was deleted before";
}

} // namespace
