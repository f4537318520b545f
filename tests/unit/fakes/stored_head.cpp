#include "fakes/stored_head.h"

#include "config/uci_store.h"
#include "preset/preset_store.h"
#include "ubus/bus_adapter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <uci.h>
}

namespace fs = std::filesystem;

static std::string root;
static std::string reply;

extern "C" uci_context* __real_uci_alloc_context();
extern "C" uci_context* __wrap_uci_alloc_context();

uci_context* __wrap_uci_alloc_context()
{
    uci_context* context = __real_uci_alloc_context();
    uci_set_confdir(context, (root + "/config").c_str());
    uci_set_savedir(context, (root + "/changes").c_str());
    return context;
}

BusGuard::BusGuard() NO_THREAD_SAFETY_ANALYSIS
{
}

BusGuard::~BusGuard() NO_THREAD_SAFETY_ANALYSIS
{
}

int busSendReply(ubus_context*, ubus_request_data*, blob_attr* message)
{
    char* text = blobmsg_format_json(message, true);
    reply += text; // two answers to one call show
    free(text);
    return 0;
}

void StoredHead::SetUp()
{
    char folder[] = "/tmp/stored-head-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    root = folder;
    fs::create_directory(root + "/config");
    for (const char* package : {"ptzd", "image", "diagd", "lens_mask", "target_track", "ptz_plan", "tour"})
        write(package, "");
    ASSERT_EQ(cfg_uci_init(), 0);
    resetDaemon();
    presetTableSet({});
    gContext.preset.presetsLoaded = true;
    gContext.preset.panSpeedFactor.store(1.0F);
    gContext.preset.tiltSpeedFactor.store(1.0F);
}

void StoredHead::TearDown()
{
    cfg_uci_deinit();
    blob_buf_free(&gContext.ubus.replyBuf);
    fs::remove_all(root);
}

void StoredHead::write(const std::string& package, const std::string& text)
{
    std::ofstream(root + "/config/" + package) << text;
}

void StoredHead::remove(const std::string& package)
{
    fs::remove(root + "/config/" + package);
}

std::string StoredHead::file(const std::string& package)
{
    std::ostringstream text;
    text << std::ifstream(root + "/config/" + package).rdbuf();
    return text.str();
}

void StoredHead::spoilStore()
{
    // A file where a folder is needed: nobody can write there, root neither.
    fs::remove_all(root + "/changes");
    std::ofstream(root + "/changes") << "";
}

std::string StoredHead::call(UbusHandler* handler, const std::string& arguments)
{
    blob_buf message{};
    blob_buf_init(&message, 0);
    EXPECT_TRUE(blobmsg_add_json_from_string(&message, arguments.c_str())) << arguments;
    reply.clear();
    handler({nullptr, nullptr, message.head});
    blob_buf_free(&message);
    return reply;
}

bool StoredHead::reported(const std::string& function, const std::string& text)
{
    return std::count(fakes.reports.begin(), fakes.reports.end(), FakeReport{function, text + "\n"}) == 1;
}

void StoredHead::standAt(int32_t pan, int32_t tilt)
{
    fakeMotor.status[PAN].position = pan;
    fakeMotor.status[TILT].position = tilt;
}

std::vector<FakeRequest> StoredHead::driven()
{
    std::vector<FakeRequest> found;
    for (const FakeRequest& request : fakeMotor.requests)
        if (request.number == MOTOR_IOC_MOVE || request.number == MOTOR_IOC_STOP)
            found.push_back(request);
    return found;
}

void StoredHead::atNext(AxisIndex axis, unsigned long request, const std::function<void()>& command)
{
    fakeMotor.onRequest = [=](const FakeRequest& made) {
        if (made.axis != axis || made.number != request)
            return;
        const auto once = command; // outlives the function that it is called from
        fakeMotor.onRequest = nullptr;
        once();
    };
}
