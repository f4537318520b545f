// Many clients that call without pause, and one that wants the head to stop.

#include "lab/core/process.h"
#include "raw_caller.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <random>
#include <thread>

namespace {

constexpr size_t CLIENTS = 64;

struct Load {
    const char* what;
    int stops;                                              // in the long run
    std::vector<std::pair<const char*, const char*>> calls; // method and arguments, client by client
};

using Counter = std::atomic<long>;

/// Calls for ever, each time as soon as the last call is answered.
[[noreturn]] void callWithoutPause(const std::string& socket, const char* method, const char* arguments,
                                   Counter& answered)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ubus_context* connection = ubus_connect(socket.c_str());
    uint32_t object = 0;
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_json_from_string(&message, arguments);
    if (!connection || ubus_lookup_id(connection, "ptzd", &object) != UBUS_STATUS_OK)
        _exit(1);
    while (ubus_invoke(connection, object, method, message.head, nullptr, nullptr, 0) == UBUS_STATUS_OK)
        ++answered;
    _exit(1);
}

/// The clients, each in a process of its own.
class Crowd {
public:
    Crowd(const Lab& lab, const Load& load)
    {
        void* shared = mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        answered_ = new (shared) Counter(0);
        const std::string socket = lab.folder() + "/var/run/ubus.sock";
        for (size_t i = 0; i < CLIENTS; ++i) {
            const auto& [method, arguments] = load.calls[i % load.calls.size()];
            processes_.push_back(fork());
            if (processes_.back() == 0)
                callWithoutPause(socket, method, arguments, *answered_);
        }
    }
    ~Crowd()
    {
        for (const pid_t process : processes_)
            sendSignal(process, SIGKILL);
        for (const pid_t process : processes_)
            waitpid(process, nullptr, 0);
        munmap(answered_, sizeof(Counter));
    }
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    /// Whether all are still calling.
    [[nodiscard]] bool complete() const
    {
        return std::all_of(processes_.begin(), processes_.end(),
                           [](pid_t process) { return waitpid(process, nullptr, WNOHANG) == 0; });
    }
    [[nodiscard]] long answered() const
    {
        return answered_->load();
    }

private:
    std::vector<pid_t> processes_;
    Counter* answered_ = nullptr;
};

TEST_F(HeadInTheLab, AnswersStopAmidACrowdOfCallers)
{
    up(slowHead());
    std::mt19937 random(1); // only when to call
    const Load loads[] = {
        {"reading", 2000, {{"getStatus", "{}"}, {"getCapa", "{}"}, {"checkMotorStatus", "{}"}, {"getPresetAll", "{}"}}},
        {"moving",
         2000,
         {{"moveTo", R"({"x_coord":"60","y_coord":"0"})"},
          {"moveTo", R"({"x_coord":"-60","y_coord":"10"})"},
          {"moveStep", R"({"direction":"90"})"}}},
        {"storing", 300, {{"setPreset", R"({"id":"1","name":"crowd"})"}, {"getPresetAll", "{}"}}},
    };
    for (const Load& load : loads) {
        SCOPED_TRACE(load.what);
        const Crowd crowd(lab, load);
        ASSERT_TRUE(waitUntil([&] { return crowd.answered() > 2 * static_cast<long>(CLIENTS); }, DEADLINE));
        RawCaller caller(lab);
        blob_buf_init(&caller.message, 0);
        std::vector<double> took; // milliseconds
        const long before = crowd.answered();
        const auto began = std::chrono::steady_clock::now();
        for (int i = 0; i < repetitions(10, load.stops); ++i) {
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 10000));
            const auto sent = std::chrono::steady_clock::now();
            ASSERT_EQ(caller.call("stop"), 0);
            took.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - sent).count());
        }
        const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - began;
        const double rate = static_cast<double>(crowd.answered() - before) / whole.count();
        std::sort(took.begin(), took.end());
        const auto quantile = [&](size_t percent) { return took[(took.size() - 1) * percent / 100]; };
        printf("%s: stop answered in %.2f ms (median), %.2f (99 %%), %.2f (max of %zu), beside %.0f calls a second\n",
               load.what, quantile(50), quantile(99), took.back(), took.size(), rate);
        EXPECT_TRUE(crowd.complete()) << "a call of the crowd has failed";
        EXPECT_LT(quantile(50), 5000) << "the crowd is served first";
    }
    ASSERT_EQ(lab.call("stop"), DONE);
}

TEST_F(HeadInTheLab, ServesTheCallsOfAClientInTheirOrder)
{
    using Call = RawCaller::Call;
    constexpr Call STORING[] = {
        {"setConfig", R"({"x_speed":"3"})"},          {"setPowerOffRecover", R"({"recover":"1"})"},
        {"setPreset", R"({"id":"1","name":"gate"})"}, {"delPreset", R"({"id":["1"]})"},
        {"setPresetConfig", R"({"speed":"0.5"})"},    {"clearPreset", "{}"},
        {"set_plan_config", R"({"monday":[]})"},
    };
    constexpr Call OTHERS[] = {
        {"getCapa", "{}"},
        {"getStatus", "{}"},
        {"checkMotorStatus", "{}"},
        {"getPresetAll", "{}"},
        {"getPresetPage", R"({"start":"0","num":"8"})"},
        {"updateImageConfig", "{}"},
        {"reloadTargetTrackConfig", "{}"},
        {"reloadPresetConfig", "{}"},
        {"reload_tour_info", "{}"},
        {"reload_scan_tour", "{}"},
        {"lensMask", "{}"},
        {"move", R"({"x_coord":"1","y_coord":"0"})"},
        {"moveTo", R"({"x_coord":"10","y_coord":"0"})"},
        {"moveStep", R"({"direction":"90"})"},
        {"stop", "{}"},
        {"gotoPreset", R"({"id":"1"})"},
        {"targetTrack", R"({"x_coord":"1","y_coord":"0","x_speed":"1","y_speed":"1"})"},
        {"targetTrackBack", "{}"},
        {"startPanorama", "{}"},
        {"movePanorama", R"({"x_coord":"5","y_coord":"0"})"},
        {"stopPanorama", "{}"},
    };
    up();
    RawCaller caller(lab);
    const auto order = [](const std::vector<std::string>& answers) {
        std::string places;
        for (const std::string& answer : answers)
            places += answer[0];
        return places;
    };
    for (const Call& store : STORING)
        for (const Call& other : OTHERS)
            EXPECT_EQ(order(caller.pipelined(std::array{store, other})), "01") << store.method << ", " << other.method;

    // What an inversion does to a client.
    ASSERT_TRUE(waitUntil([&] { return rests(); }, DEADLINE));
    const auto shown = caller.pipelined(std::array{STORING[2], OTHERS[3]});
    ASSERT_EQ(order(shown), "01");
    EXPECT_NE(shown[1].find("gate"), std::string::npos) << "a preset that was stored before the list was asked for";
    const auto gone = caller.pipelined(std::array{STORING[3], Call{"gotoPreset", R"({"id":"1"})"}});
    ASSERT_EQ(order(gone), "01");
    EXPECT_EQ(gone[1], R"(1 {"error_code":-64321})") << "goes to a preset that was deleted before";
}

} // namespace
