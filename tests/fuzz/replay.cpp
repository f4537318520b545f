// Runs a fuzzer over every file of the folders that are named: its corpus as an ordinary test.

#include "fuzz.h"

#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

int main(int count, char** arguments)
{
    std::vector<fs::path> files;
    for (const char* name : std::span(arguments, static_cast<size_t>(count)).subspan(1)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(name))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        fprintf(stderr, "%s\n", file.c_str()); // the last one is what failed
        const std::string text = readFile(file);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    RIG_CHECK(!files.empty(), "no inputs\n");
    printf("%zu inputs\n", files.size());
    return 0;
}
