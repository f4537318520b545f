#include "callers.h"

#include "lab/clock.h"

#include <cstdint>
#include <span>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

using std::chrono::milliseconds;

namespace {

constexpr int64_t TIMEOUT_NS = 20 * NS_PER_SECOND;

/// What the clients of a run share.
struct Run {
    const Target* target;
    int64_t endNs = 0;
    int running = 0;
    bool failed = false;
    std::vector<double> us{};
};

void giveUp(uloop_timeout*)
{
    uloop_end();
}

} // namespace

class Caller {
public:
    explicit Caller(const std::string& socket) : bus_(ubus_connect(socket.c_str()))
    {
        for (blob_buf& buffer : arguments_)
            blob_buf_init(&buffer, 0);
        if (bus_)
            ubus_add_uloop(bus_);
    }
    ~Caller()
    {
        for (blob_buf& buffer : arguments_)
            blob_buf_free(&buffer);
        if (bus_)
            ubus_free(bus_);
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    [[nodiscard]] bool connected() const
    {
        return bus_ != nullptr;
    }
    /// When the latest call was sent, CLOCK_MONOTONIC.
    [[nodiscard]] int64_t sentNs() const
    {
        return sentNs_;
    }

    /// Looks the object up and makes the arguments.
    bool prepare(const Run& run)
    {
        object_ = 0;
        if (ubus_lookup_id(bus_, run.target->object, &object_) != 0 || object_ == 0)
            return false;
        for (int i = 0; i < 2; ++i) {
            blob_buf_init(&arguments_[i], 0);
            const char* json = run.target->arguments[i];
            if (*json && !blobmsg_add_json_from_string(&arguments_[i], json))
                return false;
        }
        return true;
    }

    void begin(Run& run)
    {
        run_ = &run;
        ++run.running;
        call();
    }

private:
    struct Request {
        ubus_request record; // first: the library's callbacks get its address
        Caller* caller;
    };

    void call()
    {
        turn_ = 1 - turn_;
        Request& request = requests_[turn_];
        request.caller = this;
        answered_ = false;
        sentNs_ = monotonicNs();
        if (ubus_invoke_async(bus_, object_, run_->target->method, arguments_[turn_].head, &request.record) != 0) {
            end(false);
            return;
        }
        request.record.data_cb = onData;
        request.record.complete_cb = onEnd;
        ubus_complete_request_async(bus_, &request.record);
    }

    void end(bool succeeded)
    {
        run_->failed = run_->failed || !succeeded;
        if (--run_->running == 0)
            uloop_end();
    }

    static void onData(ubus_request* request, int, blob_attr*)
    {
        reinterpret_cast<Request*>(request)->caller->answered_ = true;
    }

    static void onEnd(ubus_request* request, int status)
    {
        Caller& caller = *reinterpret_cast<Request*>(request)->caller;
        const int64_t now = monotonicNs();
        if (status != 0 || !caller.answered_) {
            caller.end(false);
            return;
        }
        caller.run_->us.push_back(static_cast<double>(now - caller.sentNs_) / 1000);
        if (now < caller.run_->endNs)
            caller.call();
        else
            caller.end(true);
    }

    ubus_context* bus_;
    uint32_t object_ = 0;
    blob_buf arguments_[2] = {};
    Request requests_[2] = {};
    int turn_ = 0;
    int64_t sentNs_ = 0;
    bool answered_ = false;
    Run* run_ = nullptr;
};

namespace {

using Clients = std::span<const std::unique_ptr<Caller>>;

/// Runs the event loop until the last client has ended. The ns that the calls took, 0 when one failed.
int64_t runClients(Clients clients, Run& run, milliseconds window)
{
    for (const auto& client : clients) {
        if (!client->connected() || !client->prepare(run))
            return 0;
    }
    const int64_t start = monotonicNs();
    run.endNs = start + window.count() * NS_PER_MS;
    for (const auto& client : clients)
        client->begin(run);
    uloop_timeout limit{};
    limit.cb = giveUp;
    uloop_timeout_set(&limit, static_cast<int>(TIMEOUT_NS / NS_PER_MS));
    uloop_run();
    uloop_timeout_cancel(&limit);
    return run.running == 0 && !run.failed ? monotonicNs() - start : 0;
}

} // namespace

Callers::Callers(const std::string& socket, int count)
{
    uloop_handle_sigchld = false; // the labs' programs are waited for by their pids
    uloop_init();
    for (int i = 0; i < count; ++i)
        callers_.push_back(std::make_unique<Caller>(socket));
}

Callers::~Callers() = default;

CallTimes Callers::run(const Target& target, milliseconds window)
{
    Run run{&target};
    const int64_t spent = runClients(callers_, run, window);
    if (spent == 0)
        return {};
    const auto calls = static_cast<double>(run.us.size());
    return {std::move(run.us), calls * NS_PER_SECOND / static_cast<double>(spent)};
}

CallMoment Callers::once(const Target& target)
{
    Run run{&target};
    if (runClients(Clients(callers_).first(1), run, milliseconds(0)) == 0)
        return {};
    return {callers_.front()->sentNs(), callers_.front()->sentNs() + static_cast<int64_t>(run.us.front() * 1000)};
}
