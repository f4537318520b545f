#include "files.h"

#include <filesystem>
#include <fstream>
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

std::string tailOf(const std::string& text, int lines)
{
    size_t start = text.size();
    if (start > 0 && text.back() == '\n')
        --start;
    for (int i = 0; i < lines && start > 0 && start != std::string::npos; ++i)
        start = text.rfind('\n', start - 1);
    std::istringstream tail(text.substr(start == std::string::npos || start == 0 ? 0 : start + 1));
    std::string result;
    for (std::string line; std::getline(tail, line);)
        result += "  " + line + "\n";
    return result;
}
