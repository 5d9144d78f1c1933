// Runs a fuzz target over stored inputs, each once: the files given, and those of the folders
// given. A folder that is not there has none: few targets have regressions. Without any input it
// fails.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputs_of(const fs::path& path)
{
    if (!fs::exists(path)) {
        std::fprintf(stderr, "%s is not there\n", path.c_str());
        return {};
    }
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> found;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        if (entry.is_regular_file() && entry.path().filename().string().front() != '.') {
            found.push_back(entry.path());
        }
    }
    return found;
}

void run(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw fs::filesystem_error("cannot read", path, std::make_error_code(std::errc::io_error));
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                  std::istreambuf_iterator<char>()};
    // The target ends the process where the input shows a mistake; the last line names it then.
    std::fprintf(stderr, "%s\n", path.c_str());
    // Exactly as large as the input, so that a sanitizer sees what reads beyond.
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

int main(int argc, char** argv)
{
    try {
        std::size_t count = 0;
        for (int i = 1; i < argc; ++i) {
            for (const fs::path& path : inputs_of(argv[i])) {
                run(path);
                ++count;
            }
        }
        std::printf("%zu inputs\n", count);
        return count == 0 ? 1 : 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
