// Runs a fuzz target over the files of the directories that are named: the corpus as an ordinary test.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv)
{
    size_t count = 0;
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file())
                continue;
            printf("%s\n", entry.path().c_str());
            fflush(stdout); // a finding ends the process
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string content(std::istreambuf_iterator<char>(file), {});
            const std::unique_ptr<uint8_t[]> exact(new uint8_t[content.size()]);
            memcpy(exact.get(), content.data(), content.size());
            LLVMFuzzerTestOneInput(exact.get(), content.size());
            count++;
        }
    printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
