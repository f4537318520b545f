#include "files.h"

#include <deque>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <sstream>
#include <system_error>

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool writeFile(const std::string& path, const std::string& text)
{
    const std::string fresh = path + ".new";
    std::ofstream file(fresh, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file)
        return false;
    std::error_code problem;
    std::filesystem::rename(fresh, path, problem);
    return !problem;
}

std::string tailOf(const std::string& text, size_t lines)
{
    std::deque<std::string> last;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);) {
        last.push_back("  " + line + "\n");
        if (last.size() > lines)
            last.pop_front();
    }
    return std::accumulate(last.begin(), last.end(), std::string());
}
