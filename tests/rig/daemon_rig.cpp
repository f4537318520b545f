#include "rig/daemon_rig.h"

#include "config/uci_state.h"
#include "config/uci_store.h"
#include "core/lens_mask_library.h"
#include "core/log.h"
#include "core/ptzd_init.h"
#include "core/shutdown.h"
#include "core/worker.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/motion_record.h"
#include "motor/position_store.h"
#include "motor/quiet_period.h"
#include "motor/status_poll.h"
#include "preset/preset_store.h"
#include "tour/tour_state.h"
#include "tour/touring.h"
#include "ubus/method_table.h"
#include "ubus/notify.h"
#include "ubus/ubus_service.h"
#include "ubus/ubus_state.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <utility>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <uci.h>
}

namespace fs = std::filesystem;

Fakes fakes;
FakeMotor fakeMotor;

static constexpr int FIRST_FD = 1000; // no real descriptor of the test

void Fakes::runWorker()
{
    const auto worker = workers.front();
    workers.pop_front();
    worker();
}

std::vector<FakeRequest> FakeMotor::sent(unsigned long number) const
{
    std::vector<FakeRequest> found;
    std::ranges::copy_if(requests, std::back_inserter(found), [&](const auto& one) { return one.number == number; });
    return found;
}

namespace {

const Settings& deliveredSettings()
{
    static const Settings settings = [] {
        Settings read;
        for (const char* package : {"ptzd", "image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"})
            read[package] = readFile(std::string(PTZD_SETTINGS) + "/" + package);
        return read;
    }();
    return settings;
}

template <typename... Parts>
void renew(Parts&... parts)
{
    (std::destroy_at(&parts), ...);
    (std::construct_at(&parts), ...);
}

/// Checks that every attribute of a container, at every depth, is whole.
void checkWhole(const blob_attr* container)
{
    const blob_attr* child = nullptr;
    size_t rest = 0;
    blobmsg_for_each_attr (child, container, rest) {
        RIG_CHECK(blobmsg_check_attr_len(child, false, rest), "a reply that is no blobmsg\n");
        if (blobmsg_type(child) == BLOBMSG_TYPE_TABLE || blobmsg_type(child) == BLOBMSG_TYPE_ARRAY)
            checkWhole(child);
    }
    RIG_CHECK(rest == 0, "%zu bytes behind a reply's last attribute\n", rest);
}

std::optional<int32_t> codeOf(const blob_attr* message)
{
    checkWhole(message);
    const blob_attr* child = nullptr;
    size_t rest = 0;
    blob_for_each_attr (child, message, rest) {
        const std::string_view name = blobmsg_name(child);
        if (name == "error_code" || name == "err_code")
            return static_cast<int32_t>(blobmsg_get_u32(child));
    }
    return std::nullopt;
}

void giveAxesFakeMotors()
{
    fakeMotor = {};
    fakeMotor.capability[PAN] = {300, 8, 3000, {}};
    fakeMotor.capability[TILT] = {122, 8, 1220, {}};
    fakeMotor.status[PAN] = {0, 4, 1500, 0, 1};
    fakeMotor.status[TILT] = {0, 4, 610, 0, 1};
    for (const AxisIndex axis : {PAN, TILT}) {
        gContext.axes[axis].fd = FIRST_FD + axis;
        gContext.axes[axis].range = fakeMotor.capability[axis].range;
        gContext.axes[axis].max_speed = fakeMotor.capability[axis].max_speed;
        gContext.axes[axis].total_steps = fakeMotor.capability[axis].total_steps;
    }
}

} // namespace

namespace rig {

std::string section(const std::string& type, const std::string& name,
                    const std::vector<std::pair<std::string, std::string>>& options)
{
    std::string text = "config " + type + " '" + name + "'\n";
    for (const auto& [option, value] : options)
        text += "\toption " + option + " '" + value + "'\n";
    return text;
}

void provide(const Settings& settings)
{
    fs::remove_all(rigFolder() + "changes");
    (void)rigFolder("changes");
    for (const auto& [package, delivered] : deliveredSettings()) {
        const auto given = settings.find(package);
        const std::string& text = given == settings.end() ? delivered : given->second;
        if (stored(package) != text || text.empty()) // most are the same from one input to the next
            store(package, text);
    }
}

std::string stored(const std::string& package)
{
    return readFile(rigFolder("config") + "/" + package);
}

void store(const std::string& package, const std::string& text)
{
    writeFile(rigFolder("config") + "/" + package, text);
}

void spoilStore()
{
    // A file where a folder is needed: nobody can write there, root neither.
    fs::remove_all(rigFolder() + "changes");
    writeFile(rigFolder() + "changes", "");
}

void reset()
{
    cfg_uci_deinit();
    TourDeinit();
    blob_buf_free(&gContext.ubus.replyBuf);
    blob_buf_free(&gContext.ubus.motionBuf);
    fakes = {};
    renew(gContext.axes, gContext.timers, gContext.calibrationArg, gContext.motion, gContext.record, gContext.position,
          gContext.panorama, gContext.track, gContext.preset, gContext.tour, gContext.image, gContext.ubus,
          gContext.config);
    lensMaskSetEnabled(0);
    Timers& timers = gContext.timers;
    timers.saveStepsTimer = timerRecord(saveCurSteps, nullptr);
    timers.statusPollTimer = timerRecord(motorStatusPoll, &gContext.motion.motion_origin);
    timers.usrMoveStopTimer = timerRecord(usrMoveStopTimeout, nullptr);
    timers.scanMoveStopTimer = timerRecord(scanMoveStopTimeout, nullptr);
    giveAxesFakeMotors();
}

int32_t run(const Settings& settings, const std::function<void()>& inside)
{
    provide(settings);
    fakes.loop = inside;
    const int32_t result = PtzdInit();
    RIG_CHECK(!fakes.loop || result == -1, "started without a loop\n");
    return result;
}

int32_t call(const std::string& method, Bytes attributes)
{
    unsigned index = 0;
    while (methodName(index) != method)
        RIG_CHECK(++index < methodCount(), "no method %s\n", method.c_str());
    const ubus_method& entry = ptzdObject().methods[index];
    // Exactly as long as it is, so that a byte read behind it is found.
    const size_t length = sizeof(blob_attr) + attributes.size();
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[length]);
    auto* message = reinterpret_cast<blob_attr*>(bytes.get());
    message->id_len = cpu_to_be32(static_cast<uint32_t>(length));
    std::copy(attributes.begin(), attributes.end(), bytes.get() + sizeof(blob_attr));
    fakes.reply.clear();
    const int outer = std::exchange(fakes.replies, 0); // a fake may make a call amid another
    fakes.code.reset();
    const int status = entry.handler(nullptr, &ptzdObject(), nullptr, entry.name, message);
    RIG_CHECK(status == 0 && fakes.replies == 1, "%s: status %d, %d replies\n", entry.name, status, fakes.replies);
    fakes.replies = outer;
    return fakes.code.value_or(0);
}

int32_t call(const std::string& method, const std::string& json)
{
    const auto message = messageOf(json);
    RIG_CHECK(message, "no JSON object: %s\n", json.c_str());
    return call(method, *message);
}

unsigned methodCount()
{
    return static_cast<unsigned>(ptzdObject().n_methods);
}

std::string methodName(unsigned method)
{
    return ptzdObject().methods[method].name;
}

std::optional<std::vector<uint8_t>> messageOf(const std::string& json)
{
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    const bool added = blobmsg_add_json_from_string(&buffer, json.c_str());
    const auto* content = static_cast<const uint8_t*>(blob_data(buffer.head));
    const std::vector<uint8_t> attributes(content, content + blob_len(buffer.head));
    blob_buf_free(&buffer);
    return added ? std::optional(attributes) : std::nullopt;
}

DaemonTimer& timerAt(unsigned index)
{
    Timers& timers = gContext.timers;
    DaemonTimer* const all[] = {&timers.saveStepsTimer, &timers.statusPollTimer, &timers.usrMoveStopTimer,
                                &timers.scanMoveStopTimer};
    return *all[index % std::size(all)];
}

} // namespace rig

// What surrounds the daemon's modules. The linker puts __wrap_ functions in the place of the libraries' own.

#pragma GCC diagnostic ignored "-Wmissing-declarations"

extern "C" {

uci_context* __real_uci_alloc_context();
int __real_uci_set(uci_context* context, uci_ptr* ptr);
int __real_uci_commit(uci_context* context, uci_package** package, bool overwrite);

uci_context* __wrap_uci_alloc_context()
{
    uci_context* context = __real_uci_alloc_context();
    uci_set_confdir(context, rigFolder("config").c_str());
    uci_set_savedir(context, (rigFolder() + "changes").c_str());
    return context;
}

int __wrap_uci_set(uci_context* context, uci_ptr* ptr)
{
    const bool fails = fakes.failingChange > 0 && --fakes.failingChange == 0;
    return fails ? UCI_ERR_MEM : __real_uci_set(context, ptr);
}

int __wrap_uci_commit(uci_context* context, uci_package** package, bool overwrite)
{
    if (!fakes.commitLosesPackage)
        return __real_uci_commit(context, package, overwrite);
    uci_unload(context, *package); // as the library does on its way, without a word to the caller's handle
    return UCI_ERR_IO;
}

int __wrap_ubus_notify(ubus_context*, ubus_object*, const char*, blob_attr* message, int timeout)
{
    RIG_CHECK(timeout < 0, "a notification that waits\n");
    char* text = blobmsg_format_json(message, true);
    fakes.motions.emplace_back(text);
    free(text);
    return 0;
}

int __wrap_ubus_send_reply(ubus_context*, ubus_request_data*, blob_attr* message)
{
    ++fakes.replies;
    fakes.code = codeOf(message);
    char* text = blobmsg_format_json(message, true);
    fakes.reply += text;
    free(text);
    return 0;
}

int __wrap_nanosleep(const timespec*, timespec*)
{
    ++fakes.sleeps;
    --fakes.turnsLeft;
    if (fakes.onSleep)
        fakes.onSleep();
    return 0;
}

time_t __wrap_time(time_t* out)
{
    fakes.now += fakes.timeStride;
    if (out)
        *out = fakes.now;
    return fakes.now;
}

int __real_open(const char* path, int flags, ...);

int __wrap_open(const char* path, int flags, ...)
{
    for (const AxisIndex axis : {PAN, TILT})
        if (strcmp(path, gContext.axes[axis].device_path) == 0)
            return FIRST_FD + axis;
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return __real_open(path, flags, mode);
}

int __wrap_ioctl(int fd, unsigned long number, ...)
{
    va_list args;
    va_start(args, number);
    void* record = va_arg(args, void*);
    va_end(args);
    const auto axis = static_cast<AxisIndex>(fd - FIRST_FD);
    FakeRequest request{axis, number, 0, 0};
    if (record && number != MOTOR_IOC_GET_CAPA && number != MOTOR_IOC_GET_STATUS) {
        const auto* command = static_cast<const MotorCommand*>(record);
        request.speed = command->speed;
        request.steps = command->steps;
    }
    fakeMotor.requests.push_back(request);
    if (fakeMotor.onRequest)
        fakeMotor.onRequest(request);
    if (fakeMotor.failing[{axis, number}]) {
        errno = EIO;
        return -1;
    }
    if (number == MOTOR_IOC_GET_CAPA)
        *static_cast<MotorCapability*>(record) = fakeMotor.capability[axis];
    if (number == MOTOR_IOC_GET_STATUS)
        *static_cast<MotorStatus*>(record) = fakeMotor.status[axis];
    if (number == MOTOR_IOC_STOP)
        fakeMotor.status[axis].running = 0;
    return 0;
}

} // extern "C"

DaemonTimer timerRecord(void (*callback)(void*), void* argument)
{
    return {nullptr, callback, argument};
}

int32_t timerCreate(DaemonTimer*)
{
    return 0;
}

int32_t timerStart(DaemonTimer* timer, int64_t firstNs, int64_t intervalNs)
{
    RIG_CHECK(firstNs > 0 && intervalNs >= 0, "a timer that never expires\n");
    if (fakes.beforeTimerStart)
        fakes.beforeTimerStart();
    fakes.timers[timer] = {firstNs, intervalNs};
    if (const auto command = fakes.afterTimerStart)
        command();
    return 0;
}

int32_t timerStop(DaemonTimer* timer)
{
    fakes.timers[timer] = {};
    return 0;
}

int32_t timerDelete(DaemonTimer*)
{
    return 0;
}

int32_t workerStart(void* (*routine)(void*), void* argument)
{
    if (fakes.workersFail)
        return -1;
    fakes.workers.emplace_back([=] { routine(argument); });
    return 0;
}

WorkerScope::WorkerScope(WorkerEntry) : entered_(fakes.turnsLeft > 0)
{
}

WorkerScope::~WorkerScope() = default;

bool workersStopping()
{
    return --fakes.turnsLeft <= 0;
}

bool workersStop(int32_t)
{
    while (!fakes.workers.empty()) { // they find the daemon ending, and give back what they own
        fakes.turnsLeft = 0;
        fakes.runWorker();
    }
    return true;
}

bool shutdownRequested()
{
    return false;
}

bool shutdownSleep(int32_t)
{
    return true;
}

void logWrite(LogLevel, LogSite site, const char* format, ...)
{
    char text[1024]; // formatted for the sanitizers' sake
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fakes.reports.push_back({site.function, text});
}

void motorNotifyState(int32_t state, int32_t origin)
{
    fakes.notifications.push_back({state, origin});
    if (fakes.onNotification)
        fakes.onNotification();
}

int32_t ubusInit()
{
    std::exchange(fakes.loop, nullptr)();
    return 0;
}
