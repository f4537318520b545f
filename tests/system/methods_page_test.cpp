// docs/methods.md names the methods and arguments that the running object offers: no more, no fewer.

#include "head.h"

#include <fstream>
#include <map>
#include <regex>

namespace {

using Methods = std::map<std::string, std::vector<std::string>>; // name to advertised arguments

Methods methodsOfThePage()
{
    Methods methods;
    std::vector<std::string>* arguments = nullptr;
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

/// From the lines `<tab>"name":{"argument":"Type",...}` that `ubus -v list` prints.
Methods methodsOfTheObject(const std::string& listing)
{
    Methods methods;
    const std::regex line("\t\"(\\w+)\":\\{(.*)\\}");
    const std::regex argument("\"(\\w+)\":\"(\\w+)\"");
    std::istringstream lines(listing);
    std::smatch match;
    for (std::string text; std::getline(lines, text);) {
        if (!std::regex_match(text, match, line))
            continue;
        std::vector<std::string>& arguments = methods[match[1]];
        const std::string list = match[2];
        for (auto at = std::sregex_iterator(list.begin(), list.end(), argument); at != std::sregex_iterator(); ++at)
            arguments.push_back((*at)[1].str() + ":" + (*at)[2].str());
    }
    return methods;
}

TEST_F(HeadInTheLab, OffersWhatItsPageSays)
{
    up();
    std::string listing;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, listing), 0);
    const Methods offered = methodsOfTheObject(listing);
    EXPECT_FALSE(offered.empty()) << listing;
    EXPECT_EQ(methodsOfThePage(), offered);
}

} // namespace
