// docs/methods.md lists the object's methods in their order and their arguments, no more, no fewer, and its examples,
// played in their order on one fresh head, print what it shows.

#include "head.h"

#include <fstream>
#include <map>
#include <regex>

namespace {

constexpr double CLOCK_SPEED = 10; // the page's waits are lab time

/// "name(argument:Type,...)" of each method, in order.
using Methods = std::vector<std::string>;

struct Example {
    std::string command;
    std::string output;
};

struct Page {
    Methods methods; // in the order of the list at the top, with the arguments of each method's own table
    std::vector<Example> examples;
};

Page readPage()
{
    Page page;
    std::ifstream file(METHODS_PAGE);
    const std::regex listed("\\| \\[`(\\w+)`\\].*");
    const std::regex heading("### `(\\w+)`");
    const std::regex argument("\\| `(\\w+)` \\| (String|Array) \\|.*");
    const std::string indent = "    ";
    std::map<std::string, std::string> arguments;
    std::string* section = nullptr;
    bool inExample = false;
    std::smatch match;
    for (std::string line; std::getline(file, line);) {
        inExample = inExample && line.starts_with(indent);
        if (std::regex_match(line, match, listed))
            page.methods.push_back(match[1]);
        else if (std::regex_match(line, match, heading))
            section = &arguments[match[1]];
        else if (section && std::regex_match(line, match, argument))
            *section += (section->empty() ? "" : ",") + match[1].str() + ":" + match[2].str();
        else if (line.starts_with(indent + "$ ")) {
            page.examples.push_back({line.substr(indent.size() + 2), ""});
            inExample = true;
        } else if (inExample)
            page.examples.back().output += line.substr(indent.size()) + "\n";
    }
    EXPECT_EQ(page.methods.size(), arguments.size());
    for (std::string& method : page.methods)
        method += arguments.contains(method) ? "(" + arguments[method] + ")" : " is not described";
    return page;
}

/// From lines of the form <tab>"name":{"argument":"Type",...}
Methods methodsIn(const std::string& listing)
{
    Methods methods;
    const std::regex method("\t\"(\\w+)\":\\{(.*)\\}\n");
    const std::regex quote("\"");
    for (auto at = std::sregex_iterator(listing.begin(), listing.end(), method); at != std::sregex_iterator(); ++at)
        methods.push_back((*at)[1].str() + "(" + std::regex_replace((*at)[2].str(), quote, "") + ")");
    return methods;
}

constexpr const char* SESSION = "6cc5b76d8fbee5b21715529c80ae239d";

/// The call with the session's id among its arguments, as the web server adds it to all calls of its users.
std::string fromTheWeb(const std::string& command)
{
    const std::string field = std::string("\"ubus_rpc_session\":\"") + SESSION + "\"";
    const std::string named = std::regex_replace(command, std::regex("'\\{(.*)\\}'"), "'{$1," + field + "}'");
    return std::regex_replace(named, std::regex("(call \\w+ \\w+)\\b(?! ')"), "$1 '{" + field + "}'");
}

class ItsPage : public HeadInTheLab, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(FromAShellAndFromTheWeb, ItsPage, testing::Bool());

TEST_P(ItsPage, IsTrue)
{
    up(slowHead()); // as fast as the page's reader's
    lab.clock.setSpeed(CLOCK_SPEED);
    const Page page = readPage();
    std::string text;
    ASSERT_EQ(lab.run({"ubus", "-v", "list", "ptzd"}, text), 0);
    EXPECT_EQ(page.methods, methodsIn(text)) << text;

    const std::string inTheLab = "PTZD_LAB_DIR='" + lab.folder() + "' '" LAB_COMMAND "' exec -- ";
    for (const Example& example : page.examples) {
        const std::string command = GetParam() ? fromTheWeb(example.command) : example.command;
        (void)lab.run({"sh", "-c", "exec 2>&1; " + std::regex_replace(command, std::regex("\\./dev "), inTheLab)},
                      text);
        ASSERT_EQ(text, example.output) << example.command;
        if (!example.command.starts_with("sleep"))
            continue;
        EXPECT_TRUE(rests()) << "still moving after " << example.command;
        EXPECT_TRUE(waitUntil( // its next poll may be late on a loaded machine
            [&] {
                return lab.records.callsToCet("notify_motor_moving") == lab.records.callsToCet("notify_motor_idle");
            },
            DEADLINE));
    }
    EXPECT_GT(page.examples.size(), page.methods.size());
    for (const std::string& log : {lab.records.ptzdLog(), lab.records.messageLog()})
        EXPECT_EQ(log.find(SESSION), std::string::npos) << "whoever reads the log has the user's rights\n" << log;
}

} // namespace
