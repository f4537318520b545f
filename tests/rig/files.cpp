#include "rig/files.h"

#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

struct Folder {
    std::string path;

    Folder()
    {
        for (const char* parent : {"/dev/shm", "/tmp"}) {
            path = std::string(parent) + "/ptzd-rig-XXXXXX";
            if (mkdtemp(path.data()))
                return;
        }
        RIG_CHECK(false, "no folder for temporary files\n");
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
};

} // namespace

std::string rigFolder(const std::string& name)
{
    static const Folder folder;
    const std::string path = folder.path + "/" + name;
    std::filesystem::create_directory(path);
    return path;
}

std::string readFile(const std::string& path)
{
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char block[4096];
    for (ssize_t count = 0; (count = read(fd, block, sizeof(block))) > 0;)
        text.append(block, static_cast<size_t>(count));
    close(fd);
    return text;
}

void writeFile(const std::string& path, std::string_view text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    RIG_CHECK(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "%s\n",
              path.c_str());
    close(fd);
}
