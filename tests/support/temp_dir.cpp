#include "tests/support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

Temp_Dir::Temp_Dir()
    : directory_((std::filesystem::temp_directory_path() / "httpd-XXXXXX").string())
{
    if (mkdtemp(directory_.data()) == nullptr) {
        throw std::runtime_error("no directory for the test");
    }
}

Temp_Dir::~Temp_Dir()
{
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}

std::string Temp_Dir::write(const std::string& name, std::string_view content) const
{
    std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path(name));
    }
    return path(name);
}

std::string Temp_Dir::read(const std::string& name) const
{
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> Temp_Dir::names() const
{
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
        result.push_back(entry.path().filename().string());
    }
    std::sort(result.begin(), result.end());
    return result;
}
