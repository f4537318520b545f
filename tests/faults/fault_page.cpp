#include "fault_page.h"

#include "lab/journal.h"

#include <algorithm>
#include <fstream>
#include <regex>
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

std::vector<std::string> notifiedBy(const std::string& cell)
{
    std::vector<std::string> result;
    for (const std::string& part : partsOf(cell, ',')) {
        if (part == "notified 1") // tracking sends no events
            result.insert(result.end(), {"moving 1", "idle 1"});
        else if (part.starts_with("notified "))
            result.insert(result.end(), {"moving " + part.substr(9), "start", "idle " + part.substr(9), "stop"});
        else
            result.push_back(part);
    }
    return result;
}

std::vector<std::string> loggedBy(const std::string& cell)
{
    std::vector<std::string> result = partsOf(cell, ';');
    std::sort(result.begin(), result.end());
    return result;
}

std::optional<FaultPoint> faultPoint(const std::string& text)
{
    static const std::regex form("(every |once )?([0-9]+ (times )?)?([xy] )?(\\w+)( .*)?");
    std::smatch parts;
    if (!std::regex_match(text, parts, form))
        return std::nullopt;
    FaultPoint point{.text = text, .subject = parts[6].matched ? parts[6].str().substr(1) : ""};
    point.onlyEvery = parts[1] == "every ";
    point.onlyOnce = parts[1] == "once ";
    if (parts[2].matched)
        (parts[3].matched ? point.times : point.nth) = std::stoi(parts[2]);
    const auto find = [&](const auto& names) {
        return static_cast<uint32_t>(std::find(std::begin(names), std::end(names), parts[5].str()) - std::begin(names));
    };
    if (parts[4].matched) {
        point.axis = parts[4] == "x " ? LAB_PAN : LAB_TILT;
        point.request = static_cast<LabRequest>(find(LAB_REQUEST_NAMES));
        return point.request < std::size(LAB_REQUEST_NAMES) ? std::optional(point) : std::nullopt;
    }
    point.call = static_cast<FaultCall>(find(FAULT_CALL_NAMES));
    return point.call < FAULT_CALL_COUNT ? std::optional(point) : std::nullopt;
}
