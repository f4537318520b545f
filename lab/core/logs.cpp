// What happened in a lab: journal, record of CET, and the daemon's own logs.

#include "lab/lab.h"

#include "files.h"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

/// "1,2,3" as numbers; "-" as none.
std::vector<int32_t> wordsOf(const std::string& text)
{
    std::vector<int32_t> words;
    std::istringstream list(text == "-" ? "" : text);
    for (std::string word; std::getline(list, word, ',');)
        words.push_back(static_cast<int32_t>(strtol(word.c_str(), nullptr, 10)));
    return words;
}

std::optional<LabJournalEntry> journalEntry(const std::string& line)
{
    LabJournalEntry entry{};
    char axis = 0;
    char request[32];
    char in[80];
    char out[80];
    const int fields = sscanf(line.c_str(),
                              "%" SCNd64 " %" SCNd64 " %d %d %c %31s in=%79s result=%d out=%79s count=%d shaft=%d "
                              "rate=%" SCNd64 " left=%d",
                              &entry.realNs, &entry.labNs, &entry.pid, &entry.thread, &axis, request, in, &entry.result,
                              out, &entry.count, &entry.shaft, &entry.rate, &entry.left);
    if (fields != 13)
        return std::nullopt;
    entry.axis = axis == 'x' ? LAB_PAN : LAB_TILT;
    entry.request = request;
    entry.in = wordsOf(in);
    entry.out = wordsOf(out);
    return entry;
}

std::optional<LabCetEntry> cetEntry(const std::string& line)
{
    LabCetEntry entry{};
    std::string kind;
    std::istringstream fields(line);
    if (!(fields >> entry.realNs >> entry.labNs >> kind >> entry.name >> entry.text))
        return std::nullopt;
    entry.isEvent = kind == "event";
    return entry;
}

template <typename Entry>
std::vector<Entry> entriesOf(const std::string& text, std::optional<Entry> (*parse)(const std::string&))
{
    std::vector<Entry> entries;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (std::optional<Entry> entry = parse(line))
            entries.push_back(*std::move(entry));
    }
    return entries;
}

/// Empties a file; its writers append, so they go on at its new end.
void empty(const std::string& path)
{
    if (truncate(path.c_str(), 0) != 0 && errno != ENOENT)
        perror(path.c_str());
}

} // namespace

std::vector<LabJournalEntry> LabRecords::journal() const
{
    return entriesOf(readFile(base_.folder() + "/journal"), journalEntry);
}

std::vector<LabCetEntry> LabRecords::cetLog() const
{
    return entriesOf(readFile(base_.folder() + "/cet.log"), cetEntry);
}

int LabRecords::callsToCet(const std::string& method) const
{
    const std::vector<LabCetEntry> log = cetLog();
    return static_cast<int>(std::count_if(
        log.begin(), log.end(), [&](const LabCetEntry& entry) { return !entry.isEvent && entry.name == method; }));
}

std::vector<std::string> LabRecords::actions() const
{
    std::vector<std::string> result;
    for (const LabCetEntry& entry : cetLog()) {
        if (entry.isEvent)
            result.push_back(entry.text);
    }
    return result;
}

void LabRecords::clear()
{
    const LabLock hold(*base_.state);
    empty(base_.folder() + "/journal");
    empty(base_.folder() + "/cet.log");
}

std::string LabRecords::ptzdLog() const
{
    return readFile(base_.folder() + "/log/ptzd.log");
}

std::string LabRecords::messageLog() const
{
    return readFile(base_.folder() + "/log/msglog");
}
