#include "rig/files.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

std::string newFolder()
{
    for (const char* parent : {"/dev/shm", "/tmp"}) {
        std::string path = std::string(parent) + "/ptzd-rig-XXXXXX";
        if (mkdtemp(path.data()))
            return path;
    }
    RIG_CHECK(false, "no folder for temporary files\n");
}

struct Folder {
    const std::string path = newFolder();

    ~Folder()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

} // namespace

std::string rigFolder(const std::string& name)
{
    static const Folder folder;
    const std::string path = folder.path + "/" + name;
    fs::create_directory(path);
    return path;
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, std::string_view text)
{
    RIG_CHECK(std::ofstream(path, std::ios::binary) << text, "%s\n", path.c_str());
}
