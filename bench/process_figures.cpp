#include "process_figures.h"

#include "lab/core/files.h"
#include "lab/core/process.h"

#include <elf.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string procFile(pid_t pid, const std::string& name)
{
    return readFile("/proc/" + std::to_string(pid) + "/" + name);
}

/// The number behind "Name:" at the beginning of a line; 0 when there is none.
int64_t field(const std::string& text, const std::string& name)
{
    const size_t at = ("\n" + text).find("\n" + name + ":");
    return at == std::string::npos ? 0 : strtoll(text.c_str() + at + name.size() + 1, nullptr, 10);
}

void forEachThread(pid_t pid, const std::function<void(const std::string& folder)>& visit)
{
    std::error_code ended;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ended))
        visit(entry.path().string());
}

/// Where the stacks of the threads are: the kernel shows a sleeping thread's stack pointer.
std::vector<uint64_t> stackPointers(pid_t pid)
{
    std::vector<uint64_t> result;
    forEachThread(pid, [&](const std::string& folder) {
        // "NUMBER ARG1 .. ARG6 SP PC", or "-1 SP PC" for a thread that waits elsewhere.
        std::istringstream words(readFile(folder + "/syscall"));
        std::vector<std::string> word;
        for (std::string text; words >> text;)
            word.push_back(text);
        if (word.size() >= 3)
            result.push_back(strtoull(word[word.size() - 2].c_str(), nullptr, 16));
    });
    return result;
}

/// Resident KiB of the mappings that hold one of the addresses.
double residentAround(const std::string& mappings, const std::vector<uint64_t>& addresses)
{
    double sum = 0;
    bool holds = false;
    std::istringstream lines(mappings);
    for (std::string line; std::getline(lines, line);) {
        uint64_t from = 0;
        uint64_t to = 0;
        if (sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " ", &from, &to) == 2) {
            holds = false;
            for (const uint64_t address : addresses)
                holds = holds || (from <= address && address < to);
        } else if (holds && line.starts_with("Rss:")) {
            sum += static_cast<double>(field(line, "Rss"));
        }
    }
    return sum;
}

/// Counts the entries of all relocation tables; a packed one counts by its words.
template <typename Header, typename Section>
double relocationsIn(const std::string& file)
{
    Header header{};
    memcpy(&header, file.data(), sizeof(header));
    double count = 0;
    for (size_t i = 0; i < header.e_shnum; ++i) {
        Section section{};
        memcpy(&section, file.data() + header.e_shoff + i * sizeof(section), sizeof(section));
        const bool table = section.sh_type == SHT_RELA || section.sh_type == SHT_REL || section.sh_type == 19;
        if (table && section.sh_entsize != 0)
            count += static_cast<double>(section.sh_size / section.sh_entsize);
    }
    return count;
}

} // namespace

int64_t processorNs(pid_t pid)
{
    clockid_t clock = 0;
    timespec spent{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &spent) != 0)
        return 0;
    return spent.tv_sec * int64_t{1'000'000'000} + spent.tv_nsec;
}

int64_t wakeUps(pid_t pid)
{
    int64_t sum = 0;
    forEachThread(
        pid, [&](const std::string& folder) { sum += field(readFile(folder + "/status"), "voluntary_ctxt_switches"); });
    return sum;
}

MemoryUse memoryOf(pid_t pid)
{
    const std::string sums = procFile(pid, "smaps_rollup");
    MemoryUse use;
    use.resident = static_cast<double>(field(sums, "Rss"));
    use.proportional = static_cast<double>(field(sums, "Pss"));
    use.privateDirty = static_cast<double>(field(sums, "Private_Dirty"));
    use.stack = residentAround(procFile(pid, "smaps"), stackPointers(pid));
    return use;
}

ProgramFile programFile(const std::string& path)
{
    ProgramFile result;
    const std::string file = readFile(path);
    if (file.size() < sizeof(Elf64_Ehdr) || memcmp(file.data(), ELFMAG, SELFMAG) != 0)
        return result;
    result.relocations = file[EI_CLASS] == ELFCLASS64 ? relocationsIn<Elf64_Ehdr, Elf64_Shdr>(file)
                                                      : relocationsIn<Elf32_Ehdr, Elf32_Shdr>(file);
    const fs::path stripped = fs::temp_directory_path() / ("stripped-" + std::to_string(getpid()));
    std::string output;
    struct stat info {};
    if (runCommand({"strip", "-o", stripped.string(), path}, {"PATH=/usr/bin:/bin"}, output) == 0 &&
        stat(stripped.c_str(), &info) == 0)
        result.strippedBytes = static_cast<double>(info.st_size);
    unlink(stripped.c_str());
    return result;
}
