#include "fault_page.h"

#include "lab/journal.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

std::string trimmed(std::string text)
{
    std::erase(text, '`');
    const size_t from = text.find_first_not_of(' ');
    if (from == std::string::npos)
        return "";
    text = text.substr(from, text.find_last_not_of(' ') - from + 1);
    return text == "–" ? "" : text;
}

template <typename Names>
size_t indexOf(const Names& names, size_t count, const std::string& name)
{
    size_t i = 0;
    while (i < count && name != names[i])
        ++i;
    return i;
}

} // namespace

const std::string& PageRow::operator[](const std::string& column) const
{
    static const std::string none;
    const auto cell = cells.find(column);
    return cell == cells.end() ? none : cell->second;
}

std::vector<std::string> partsOf(const std::string& cell, char separator)
{
    std::vector<std::string> parts;
    std::istringstream text(cell);
    for (std::string part; std::getline(text, part, separator);)
        parts.push_back(trimmed(part));
    return parts;
}

std::vector<PageRow> pageRows(const std::string& heading)
{
    std::vector<PageRow> rows;
    std::vector<std::string> columns;
    std::ifstream page(FAULTS_PAGE);
    bool inside = false;
    int number = 0;
    for (std::string line; std::getline(page, line);) {
        ++number;
        if (line.starts_with("## "))
            inside = line == "## " + heading;
        if (!inside || !line.starts_with("|")) {
            columns.clear();
            continue;
        }
        const std::vector<std::string> cells = partsOf(line.substr(1), '|');
        if (columns.empty()) {
            columns = cells;
        } else if (!line.starts_with("|---")) {
            PageRow row{number, {}};
            for (size_t i = 0; i < cells.size() && i < columns.size(); ++i)
                row.cells[columns[i]] = cells[i];
            rows.push_back(row);
        }
    }
    return rows;
}

std::vector<std::string> toldBy(const std::string& cell)
{
    std::vector<std::string> result;
    for (const std::string& part : partsOf(cell, ',')) {
        if (!part.starts_with("told ")) {
            result.push_back(part);
            continue;
        }
        const std::string origin = part.substr(5);
        const bool events = origin != "1"; // tracking is announced without
        result.push_back("moving " + origin);
        if (events)
            result.emplace_back("start");
        result.push_back("idle " + origin);
        if (events)
            result.emplace_back("stop");
    }
    return result;
}

std::vector<std::string> reportsBy(const std::string& cell)
{
    std::vector<std::string> result = partsOf(cell, ';');
    std::sort(result.begin(), result.end());
    return result;
}

std::optional<FaultPoint> faultPoint(const std::string& text)
{
    FaultPoint point;
    point.text = text;
    std::istringstream words(text);
    std::string word;
    words >> word;
    if (word == "every" || word == "once") {
        point.onlyEvery = word == "every";
        point.onlyOnce = word == "once";
        words >> word;
    }
    if (!word.empty() && word[0] >= '1' && word[0] <= '9') {
        point.nth = std::stoi(word);
        words >> word;
        if (word == "times") {
            std::swap(point.times, point.nth);
            words >> word;
        }
    }
    if (word == "x" || word == "y") {
        point.axis = word == "x" ? LAB_PAN : LAB_TILT;
        words >> word;
        point.request = static_cast<LabRequest>(indexOf(LAB_REQUEST_NAMES, LAB_REQUEST_COUNT, word));
        return point.request == LAB_REQUEST_COUNT ? std::nullopt : std::optional(point);
    }
    point.call = static_cast<FaultCall>(indexOf(FAULT_CALL_NAMES, FAULT_CALL_COUNT, word));
    words >> point.subject;
    return point.call == FAULT_CALL_COUNT ? std::nullopt : std::optional(point);
}
