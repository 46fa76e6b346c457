// Replaces libFuzzer where it is not available: tries every file of the given folders once.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& folder)
{
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path& file)
{
    std::cout << file.string() << std::endl;  // after a failure, the last file printed is the cause
    const auto size = static_cast<std::size_t>(fs::file_size(file));
    const auto bytes = std::make_unique<char[]>(size);
    std::ifstream stream(file, std::ios::binary);
    if (!stream.read(bytes.get(), static_cast<std::streamsize>(size)))
        return false;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.get()), size);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<fs::path> folders(argv + 1, argv + argc);
    for (const fs::path& folder : folders) {
        const std::vector<fs::path> files = filesIn(folder);
        if (files.empty() || !std::all_of(files.begin(), files.end(), replay)) {
            std::cerr << "no input, or an unreadable one, in " << folder << '\n';
            return EXIT_FAILURE;
        }
    }
    return folders.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
