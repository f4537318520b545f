// The object offers its methods in their order, and docs/methods.md names them and their arguments: no more, no fewer.

#include "head.h"

#include <fstream>
#include <map>
#include <regex>

namespace {

using Texts = std::vector<std::string>;
using Methods = std::map<std::string, Texts>; // name to advertised arguments

const Texts IN_ORDER = {
    "getCapa",
    "getStatus",
    "updateImageConfig",
    "setConfig",
    "move",
    "moveTo",
    "moveStep",
    "setPowerOffRecover",
    "stop",
    "test",
    "manualCalibrate",
    "checkMotorStatus",
    "lensMask",
    "targetTrack",
    "targetTrackBack",
    "reloadTargetTrackConfig",
    "getPresetPage",
    "setPreset",
    "delPreset",
    "gotoPreset",
    "setPresetConfig",
    "getPresetAll",
    "clearPreset",
    "reloadPresetConfig",
    "set_plan_config",
    "reload_tour_info",
    "reload_scan_tour",
    "startPanorama",
    "movePanorama",
    "stopPanorama",
};

Methods methodsOfThePage()
{
    Methods methods;
    Texts* arguments = nullptr;
    std::ifstream page(METHODS_PAGE);
    const std::regex heading("### `(\\w+)`");
    const std::regex argument("\\| `(\\w+)` \\| (String|Array) \\|.*");
    std::smatch match;
    for (std::string line; std::getline(page, line);) {
        if (std::regex_match(line, match, heading))
            arguments = &methods[match[1]];
        else if (arguments && std::regex_match(line, match, argument))
            arguments->push_back(match[1].str() + ":" + match[2].str());
    }
    return methods;
}

TEST_F(HeadInTheLab, OffersWhatItsPageSays)
{
    up();
    std::string listing;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, listing), 0);
    // Lines of the form <tab>"name":{"argument":"Type",...}
    const std::regex line("\t\"(\\w+)\":\\{(.*)\\}");
    const std::regex argument("\"(\\w+)\":\"(\\w+)\"");
    Methods offered;
    Texts order;
    std::istringstream lines(listing);
    std::smatch match;
    for (std::string text; std::getline(lines, text);) {
        if (!std::regex_match(text, match, line))
            continue;
        order.push_back(match[1]);
        Texts& arguments = offered[match[1]];
        const std::string list = match[2];
        for (auto at = std::sregex_iterator(list.begin(), list.end(), argument); at != std::sregex_iterator(); ++at)
            arguments.push_back((*at)[1].str() + ":" + (*at)[2].str());
    }
    EXPECT_EQ(order, IN_ORDER) << listing;
    EXPECT_EQ(methodsOfThePage(), offered);
}

} // namespace
