// Runs a fuzz target over the files of folders: what once was found stays found, in every build. A file that
// ends the program is the last one named.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" {
[[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
}

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize != nullptr)
        (void)LLVMFuzzerInitialize(&argc, &argv);
    int files = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            std::cerr << entry.path().string() << '\n';
            std::ifstream file(entry.path(), std::ios::binary);
            // Of the exact size, so that a read beyond the end is seen.
            const std::vector<char> read(std::istreambuf_iterator<char>(file), {});
            const std::vector<uint8_t> bytes(read.begin(), read.end());
            (void)LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            files++;
        }
    }
    std::cerr << files << " files\n";
    return files > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
