#include "fuzz.h"

#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace {

class Folder {
public:
    Folder()
    {
        for (const char* parent : {"/dev/shm", "/tmp"}) {
            path_ = std::string(parent) + "/ptzd-fuzz-XXXXXX";
            if (mkdtemp(path_.data()))
                return;
        }
        FUZZ_CHECK(false, "no folder for temporary files\n");
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] const std::string& path() const
    {
        return path_;
    }

private:
    std::string path_;
};

} // namespace

const std::string& fuzzFolder()
{
    static const Folder folder;
    return folder.path();
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
    FUZZ_CHECK(fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "%s\n",
               path.c_str());
    close(fd);
}
