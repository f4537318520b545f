#include "lab/lab.h"

#include "files.h"
#include "lab_paths.h"
#include "process.h"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

namespace {

using std::chrono::milliseconds;

std::string freshFolder()
{
    const char* parent = getenv("TMPDIR");
    std::string name = std::string(parent && *parent ? parent : "/tmp") + "/ptzd-lab-XXXXXX";
    return mkdtemp(name.data()) ? name : "";
}

/// An absolute path without symbolic links, as far as the path exists.
std::string absolutePath(const std::string& path)
{
    std::error_code problem;
    const auto absolute = std::filesystem::weakly_canonical(std::filesystem::absolute(path, problem), problem);
    std::string text = problem ? path : absolute.string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

} // namespace

LabBase::LabBase(const std::string& folder)
    : folder_(folder.empty() ? freshFolder() : absolutePath(folder)), temporary_(folder.empty())
{
}

LabBase::~LabBase()
{
    if (state)
        munmap(state, sizeof(LabState));
    std::error_code ignored;
    if (temporary_ && !folder_.empty() && !getenv("PTZD_LAB_KEEP"))
        std::filesystem::remove_all(folder_, ignored);
}

bool LabBase::fail(const std::string& reason)
{
    error_ = reason;
    return false;
}

std::string LabBase::busSocket() const
{
    const std::string socket = LAB_BUS_SOCKET;
    return folder_ + (socket.starts_with("/run/") ? "/var" : "") + socket; // as the preloaded library maps it
}

std::vector<std::string> LabBase::environment() const
{
    std::vector<std::string> result;
    const auto set = [&result](const std::string& variable) {
        const std::string name = variable.substr(0, variable.find('=') + 1);
        std::erase_if(result, [&name](const std::string& other) { return other.starts_with(name); });
        result.push_back(variable);
    };
    for (char** variable = environ; *variable; ++variable)
        result.emplace_back(*variable);
    set("PTZD_LAB=" + folder_);
    set("MSGLOG_FILE=" + folder_ + "/log/msglog");
    if (!getenv("TZ"))
        set("TZ=:" + folder_ + "/./" + LAB_ZONE_FILE); // the preloaded library respells it when the file changes
    // The loader splits LD_PRELOAD at blanks, but takes a bare name from LD_LIBRARY_PATH, which it splits at colons
    // only.
    const std::filesystem::path library = LAB_PRELOAD;
    const bool blanks = library.string().find(' ') != std::string::npos;
    const char* others = getenv("LD_PRELOAD");
    const char* folders = getenv("LD_LIBRARY_PATH");
    set("LD_PRELOAD=" + (blanks ? library.filename() : library).string() + (others ? std::string(":") + others : ""));
    if (blanks)
        set("LD_LIBRARY_PATH=" + library.parent_path().string() + (folders ? std::string(":") + folders : ""));
    for (const std::string& variable : options.environment)
        set(variable);
    return result;
}

std::string LabBase::call(const std::string& method, const std::string& json) const
{
    const LabReply reply = invoke("ptzd", method, json);
    return reply.status == 0 ? reply.text : "status " + std::to_string(reply.status);
}

int LabBase::run(const std::vector<std::string>& command, std::string& output)
{
    return runCommand(labCommand(command), environment(), output);
}

std::optional<std::string> LabSettings::get(const std::string& tuple) const
{
    std::string value;
    if (base_.run({"uci", "-q", "get", tuple}, value) != 0)
        return std::nullopt;
    if (!value.empty() && value.back() == '\n')
        value.pop_back();
    return value;
}

bool LabSettings::set(const std::string& tuple, const std::string& value)
{
    std::string ignored;
    if (base_.run({"uci", "set", tuple + "=" + value}, ignored) != 0 ||
        base_.run({"uci", "commit", tuple.substr(0, tuple.find('.'))}, ignored) != 0)
        return base_.fail("uci cannot set " + tuple);
    return true;
}

Lab::Lab(const std::string& folder) : LabBase(folder)
{
}

Lab::~Lab()
{
    if (!options.outlive && programs.hasStarted())
        down();
}

bool Lab::up(const LabOptions& wanted)
{
    if (folder().empty())
        return fail("cannot create a temporary folder");
    if (!down() || !prepare(wanted))
        return false;
    if (options.startBus && !programs.startBus())
        return false;
    if (options.startCet && !programs.startCet())
        return false;
    return !options.startPtzd || programs.startPtzd();
}

bool Lab::attach()
{
    if (state)
        munmap(state, sizeof(LabState));
    state = mapLabState(folder().c_str());
    if (!state) {
        if (errno == EPROTO)
            return fail("the lab in " + folder() + " is of another version; start it anew");
        return fail("there is no lab in " + folder());
    }
    options = LabOptions{};
    options.outlive = true;
    std::istringstream start(readFile(folder() + "/start"));
    std::getline(start, options.ptzd);
    for (std::string line; std::getline(start, line);)
        options.environment.push_back(line);
    return true;
}

bool Lab::down()
{
    return programs.stopAll();
}
