#include "load.h"

#include <random>

namespace {

constexpr struct {
    const char* method;
    const char* arguments; // "#" stands for an integer of at most three digits, "%" for one from 1 to 8
} CALLS[] = {
    {"moveTo", R"({"x_coord":"#","y_coord":"#"})"},
    {"moveTo", R"({"x_coord":"%","y_coord":"%"})"},
    {"move", R"({"x_coord":"#","y_coord":"#"})"},
    {"moveStep", R"({"direction":"%"})"},
    {"moveStep", R"({"direction":"2%0"})"},
    {"stop", ""},
    {"targetTrack", R"({"x_coord":"#","y_coord":"#","x_speed":"%","y_speed":"%"})"},
    {"targetTrackBack", ""},
    {"reloadTargetTrackConfig", ""},
    {"startPanorama", ""},
    {"movePanorama", R"({"x_coord":"#","y_coord":"%"})"},
    {"stopPanorama", ""},
    {"stopPanorama", ""},
    {"lensMask", ""},
    {"manualCalibrate", ""},
    {"test", R"({"times":"1"})"},
    {"setConfig", R"({"x_speed":"%","y_speed":"%","sustain":"#"})"},
    {"setPowerOffRecover", R"({"recover":"1"})"},
    {"setPreset", R"({"id":"%","name":"at %","save_ptz":"1"})"},
    {"setPreset", R"({"save_ptz":"0"})"},
    {"gotoPreset", R"({"id":"%","speed_pan":"0.%"})"},
    {"delPreset", R"({"id":["%","%"]})"},
    {"setPresetConfig", R"({"image_freeze_enabled":"1","speed":"0.%"})"},
    {"reloadPresetConfig", ""},
    {"getPresetAll", ""},
    {"getPresetPage", R"({"start_id":"0","count":"%"})"},
    {"set_plan_config",
     R"({"monday":[{"monday_1":{"start_time":0,"end_time":60%,"action_type":"preset","action_id":"%"}},)"
     R"({"monday_2":{"start_time":700,"end_time":1440,"action_type":"preset","action_id":"%"}}]})"},
    {"reload_tour_info", ""},
    {"reload_scan_tour", ""},
    {"updateImageConfig", ""},
    {"getStatus", ""},
    {"getCapa", ""},
    {"checkMotorStatus", ""},
};

std::string filledIn(const char* arguments, std::mt19937& random)
{
    std::string text;
    for (; *arguments != '\0'; ++arguments) {
        if (*arguments == '#')
            text += std::to_string(static_cast<int>(random() % 320) - 160);
        else if (*arguments == '%')
            text += std::to_string(1 + random() % 8);
        else
            text += *arguments;
    }
    return text;
}

} // namespace

Load::Load(const Lab& lab, unsigned seed, unsigned clients, bool pauses) : lab_(lab), pauses_(pauses)
{
    for (unsigned client = 0; client < clients; ++client)
        clients_.emplace_back([this, seed, client] { callOn(seed + client); });
}

Load::~Load()
{
    ending_.store(true);
    for (std::thread& client : clients_)
        client.join();
}

void Load::callOn(unsigned seed)
{
    std::mt19937 random(seed);
    while (!ending_.load()) {
        const auto& call = CALLS[random() % std::size(CALLS)];
        answered_ += lab_.invoke("ptzd", call.method, filledIn(call.arguments, random), 500ms).status == 0 ? 1 : 0;
        if (pauses_) // now and then long enough for a save of the position
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % (random() % 8 == 0 ? 120 : 10)));
    }
}
