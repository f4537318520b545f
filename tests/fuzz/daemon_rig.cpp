#include "daemon_rig.h"

#include "config/uci_state.h"
#include "core/lens_mask_library.h"
#include "core/log.h"
#include "core/ptzd_init.h"
#include "core/shutdown.h"
#include "core/worker.h"
#include "fakes/fake_motor.h"
#include "motion/track.h"
#include "motor/calibration.h"
#include "motor/coordinates.h"
#include "motor/motion_state.h"
#include "motor/position_store.h"
#include "motor/quiet_period.h"
#include "motor/status_poll.h"
#include "preset/preset_store.h"
#include "tour/tour_state.h"
#include "ubus/bus_adapter.h"
#include "ubus/method_table.h"
#include "ubus/notify.h"
#include "ubus/ubus_service.h"

#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <deque>
#include <memory>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <uci.h>
}

namespace {

constexpr const char* PACKAGES[] = {"ptzd", "image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"};
constexpr int FIRST_FD = 1000;       // the fake motors' descriptors
constexpr int WORKER_PATIENCE = 300; // sleeps and questions after which a worker is asked to end

struct Worker {
    void* (*routine)(void*);
    void* argument;
};

struct Surroundings {
    std::function<void()> inside;
    bool reached = false; // the event loop
    std::deque<Worker> workers;
    int patience = WORKER_PATIENCE;
    bool armed[4] = {};
    int replies = 0;
    std::optional<int32_t> code;
    bool moving = false; // announced last
    time_t now = 0;
};
Surroundings around;

std::string configFolder()
{
    return fuzzFolder() + "/config";
}

DaemonTimer& timerAt(unsigned index)
{
    Timers& timers = gContext.timers;
    DaemonTimer* const all[] = {&timers.saveStepsTimer, &timers.statusPollTimer, &timers.usrMoveStopTimer,
                                &timers.scanMoveStopTimer};
    return *all[index % std::size(all)];
}

bool& armed(const DaemonTimer* timer)
{
    unsigned index = 0;
    while (&timerAt(index) != timer)
        FUZZ_CHECK(++index < std::size(around.armed), "an unknown timer\n");
    return around.armed[index];
}

const Settings& deliveredSettings()
{
    static const Settings settings = [] {
        Settings read;
        for (const char* package : PACKAGES)
            read[package] = readFile(std::string(FUZZ_SETTINGS) + "/" + package);
        return read;
    }();
    return settings;
}

/// Puts a file into its place unless it holds that text already, as most do from one input to the next.
void provide(const std::string& package, const std::string& text)
{
    const std::string path = configFolder() + "/" + package;
    if (access(path.c_str(), F_OK) != 0 || readFile(path) != text)
        writeFile(path, text);
}

void provideSettings(const Settings& settings)
{
    mkdir(configFolder().c_str(), 0700);
    mkdir((fuzzFolder() + "/changes").c_str(), 0700);
    for (const auto& [package, delivered] : deliveredSettings()) {
        (void)unlink((fuzzFolder() + "/changes/" + package).c_str()); // what an input left behind
        const auto given = settings.find(package);
        provide(package, given == settings.end() ? delivered : given->second);
    }
}

template <typename... Parts>
void renew(Parts&... parts)
{
    (std::destroy_at(&parts), ...);
    (std::construct_at(&parts), ...);
}

/// As main() does.
void prepareContext()
{
    renew(gContext.axes, gContext.timers, gContext.calibrationArg, gContext.motion, gContext.position,
          gContext.panorama, gContext.track, gContext.preset, gContext.tour, gContext.image, gContext.ubus,
          gContext.config);
    lensMaskSetEnabled(0);
    Timers& timers = gContext.timers;
    timers.saveStepsTimer = timerRecord(saveCurSteps, nullptr);
    timers.statusPollTimer = timerRecord(motorStatusPoll, &gContext.motion.motion_origin);
    timers.usrMoveStopTimer = timerRecord(usrMoveStopTimeout, nullptr);
    timers.scanMoveStopTimer = timerRecord(scanMoveStopTimeout, nullptr);
}

/// Every attribute of a message, at every depth, is whole.
void checkWhole(const blob_attr* attribute)
{
    const blob_attr* child = nullptr;
    size_t rest = 0;
    blobmsg_for_each_attr (child, attribute, rest) {
        FUZZ_CHECK(blobmsg_check_attr_len(child, false, rest), "a reply that is no blobmsg\n");
        if (blobmsg_type(child) == BLOBMSG_TYPE_TABLE || blobmsg_type(child) == BLOBMSG_TYPE_ARRAY)
            checkWhole(child);
    }
    FUZZ_CHECK(rest == 0, "%zu bytes behind a reply's last attribute\n", rest);
}

void takeReply(blob_attr* message)
{
    ++around.replies;
    blob_attr* child = nullptr;
    size_t rest = 0;
    blob_for_each_attr (child, message, rest) {
        FUZZ_CHECK(blobmsg_check_attr_len(child, true, rest), "a reply that is no blobmsg\n");
        if (blobmsg_type(child) == BLOBMSG_TYPE_TABLE || blobmsg_type(child) == BLOBMSG_TYPE_ARRAY)
            checkWhole(child);
        const std::string_view name = blobmsg_name(child);
        if (name == "error_code" || name == "err_code")
            around.code = static_cast<int32_t>(blobmsg_get_u32(child));
    }
    FUZZ_CHECK(rest == 0, "%zu bytes behind a reply's last attribute\n", rest);
}

/// In six decimals, as positions are stored.
std::string decimals(float position)
{
    char text[64];
    (void)snprintf(text, sizeof(text), "%0.6f", static_cast<double>(position));
    return text;
}

bool sameEntry(const PresetEntry& a, const PresetEntry& b)
{
    return a.id == b.id && a.read_only == b.read_only && a.enabled == b.enabled && strcmp(a.name, b.name) == 0 &&
           decimals(a.position_pan) == decimals(b.position_pan) &&
           decimals(a.position_tilt) == decimals(b.position_tilt) &&
           decimals(a.position_zoom) == decimals(b.position_zoom);
}

} // namespace

int32_t DaemonRig::run(const Settings& settings, const std::function<void()>& inside)
{
    provideSettings(settings);
    around = {};
    around.inside = inside;
    prepareContext();
    giveAxesFakeMotors();
    std::copy(std::begin(capability), std::end(capability), fakeMotor.capability);
    const int32_t result = PtzdInit();
    FUZZ_CHECK(around.reached || result == -1, "started without a loop\n");
    return result;
}

void DaemonRig::runWorkers()
{
    while (!around.workers.empty()) {
        const Worker worker = around.workers.front();
        around.workers.pop_front();
        around.patience = WORKER_PATIENCE;
        worker.routine(worker.argument);
    }
    around.patience = WORKER_PATIENCE;
    fakeMotor.requests.clear(); // a rotation test makes many
}

void DaemonRig::expire(unsigned timer)
{
    const DaemonTimer& record = timerAt(timer);
    if (armed(&record))
        record.callback(record.argument);
}

int32_t DaemonRig::call(unsigned method, Bytes attributes)
{
    const ubus_method& entry = ptzdObject().methods[method];
    // Exactly as long as it is, so that a byte read behind it is found.
    const size_t length = sizeof(blob_attr) + attributes.size();
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[length]);
    auto* message = reinterpret_cast<blob_attr*>(bytes.get());
    message->id_len = cpu_to_be32(static_cast<uint32_t>(length));
    std::copy(attributes.begin(), attributes.end(), bytes.get() + sizeof(blob_attr));
    around.replies = 0;
    around.code.reset();
    const int status = entry.handler(nullptr, &ptzdObject(), nullptr, entry.name, message);
    FUZZ_CHECK(status == 0 && around.replies == 1, "%s: status %d, %d replies\n", entry.name, status, around.replies);
    return around.code.value_or(0);
}

int32_t DaemonRig::call(const char* method, Bytes attributes)
{
    unsigned index = 0;
    while (methodName(index) != method)
        FUZZ_CHECK(++index < methodCount(), "no method %s\n", method);
    return call(index, attributes);
}

unsigned DaemonRig::methodCount()
{
    return static_cast<unsigned>(ptzdObject().n_methods);
}

std::string DaemonRig::methodName(unsigned method)
{
    return ptzdObject().methods[method].name;
}

std::string DaemonRig::stored(const std::string& package)
{
    return readFile(configFolder() + "/" + package);
}

void DaemonRig::store(const std::string& package, const std::string& text)
{
    writeFile(configFolder() + "/" + package, text);
}

void DaemonRig::checkPresetMap()
{
    const PresetTable table = presetTableNow();
    for (int32_t id = 1; id <= PRESET_COUNT; ++id) {
        const int32_t slot = table.presetSlotOfId[id - 1];
        FUZZ_CHECK(slot >= 0 && slot <= PRESET_COUNT, "id %d: slot %d\n", id, slot);
        if (slot == 0)
            continue;
        const PresetEntry& entry = table.presetTable[slot - 1];
        FUZZ_CHECK(entry.enabled != 0 && entry.id == id, "id %d: slot %d has id %d\n", id, slot, entry.id);
    }
}

void DaemonRig::checkPresetsStored()
{
    checkPresetMap();
    const PresetTable memory = presetTableNow();
    for (int32_t slot = 1; slot <= PRESET_COUNT; ++slot) {
        const PresetEntry& entry = memory.presetTable[slot - 1];
        if (entry.enabled == 0)
            continue;
        FUZZ_CHECK(entry.id >= 1 && entry.id <= PRESET_COUNT, "slot %d: id %d\n", slot, entry.id);
        FUZZ_CHECK(memory.presetSlotOfId[entry.id - 1] == slot, "id %d is in two slots, or in none\n", entry.id);
    }
    const int32_t current = gContext.motion.tourCurrentPresetId.load();
    FUZZ_CHECK(reloadPresetList() == RESULT_OK, "what was stored cannot be read\n");
    gContext.motion.tourCurrentPresetId.store(current);
    const PresetTable file = presetTableNow();
    for (int32_t slot = 1; slot <= PRESET_COUNT; ++slot) {
        PresetEntry entry = memory.presetTable[slot - 1];
        if (entry.name[0] == '\0') // stored as none, for which the section's name is read
            (void)snprintf(entry.name, sizeof(entry.name), "preset_%d", slot);
        FUZZ_CHECK(sameEntry(entry, file.presetTable[slot - 1]), "slot %d\n", slot);
        FUZZ_CHECK(memory.presetSlotOfId[slot - 1] == file.presetSlotOfId[slot - 1], "id %d\n", slot);
    }
}

std::optional<std::vector<uint8_t>> messageFrom(Input input)
{
    enum { RAW, JSON, DAMAGED, FORMS };
    const int form = input.byte() % FORMS;
    if (form == RAW) {
        const Bytes raw = input.rest();
        return std::vector<uint8_t>(raw.begin(), raw.end());
    }
    const Bytes damage = input.bytes(form == DAMAGED ? size_t{3} * (input.byte() % 8) : 0);
    auto attributes = messageOf(asText(input.rest()));
    for (Input patches(damage); attributes && !attributes->empty() && !patches.empty();) {
        const size_t at = patches.word() % attributes->size();
        (*attributes)[at] = patches.byte();
    }
    return attributes;
}

std::optional<std::vector<uint8_t>> messageOf(const std::string& json)
{
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    const bool added = blobmsg_add_json_from_string(&buffer, json.c_str());
    const auto* content = static_cast<const uint8_t*>(blob_data(buffer.head));
    const std::vector<uint8_t> attributes(content, content + blob_len(buffer.head));
    blob_buf_free(&buffer);
    if (!added)
        return std::nullopt;
    return attributes;
}

// What surrounds the daemon's modules.

extern "C" {
uci_context* __real_uci_alloc_context();
uci_context* __wrap_uci_alloc_context();
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_nanosleep(const timespec* length, timespec* rest);
time_t __wrap_time(time_t* out);
}

uci_context* __wrap_uci_alloc_context()
{
    uci_context* context = __real_uci_alloc_context();
    uci_set_confdir(context, configFolder().c_str());
    uci_set_savedir(context, (fuzzFolder() + "/changes").c_str());
    return context;
}

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

int __wrap_nanosleep(const timespec*, timespec*)
{
    --around.patience;
    return 0;
}

time_t __wrap_time(time_t* out)
{
    around.now += 997 * 60; // through the minutes of all weekdays
    if (out)
        *out = around.now;
    return around.now;
}

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
    FUZZ_CHECK(firstNs > 0 && intervalNs >= 0, "a timer that never expires\n");
    armed(timer) = true;
    return 0;
}

int32_t timerStop(DaemonTimer* timer)
{
    armed(timer) = false;
    return 0;
}

int32_t timerDelete(DaemonTimer*)
{
    return 0;
}

int32_t workerStart(void* (*routine)(void*), void* argument)
{
    around.workers.push_back({routine, argument});
    return 0;
}

WorkerScope::WorkerScope(WorkerEntry) : entered_(around.patience > 0)
{
}

WorkerScope::~WorkerScope() = default;

bool workersStopping()
{
    return --around.patience <= 0;
}

bool workersStop(int32_t)
{
    while (!around.workers.empty()) { // they find the daemon ending, and give back what they own
        const Worker worker = around.workers.front();
        around.workers.pop_front();
        around.patience = 0;
        worker.routine(worker.argument);
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

int shutdownDescriptor()
{
    return -1;
}

int32_t shutdownInit()
{
    return 0;
}

void logWrite(LogLevel, LogSite, const char* format, ...)
{
    char text[1024]; // formatted for the sanitizers' sake
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
}

void motorNotifyState(int32_t state, int32_t)
{
    FUZZ_CHECK(state != NOTIFY_MOVING || !around.moving, "moving is announced twice\n");
    around.moving = state == NOTIFY_MOVING;
}

BusGuard::BusGuard() NO_THREAD_SAFETY_ANALYSIS
{
}

BusGuard::~BusGuard() NO_THREAD_SAFETY_ANALYSIS
{
}

void busServe(UbusHandler* handler, const Call& call)
{
    handler(call);
}

int busSendReply(ubus_context*, ubus_request_data*, blob_attr* message)
{
    takeReply(message);
    return 0;
}

int32_t ubusInit()
{
    around.reached = true;
    around.inside();
    return 0;
}
