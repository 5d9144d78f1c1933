#pragma once

#include <string>
#include <string_view>
#include <vector>

/// A directory of its own for one test, removed with all that is in it.
class Temp_Dir {
public:
    Temp_Dir();
    ~Temp_Dir();
    Temp_Dir(const Temp_Dir&) = delete;
    Temp_Dir& operator=(const Temp_Dir&) = delete;

    /// The path of `name` in it.
    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    /// Writes a file and returns its path.
    std::string write(const std::string& name, std::string_view content) const;

    /// What the file holds; "" when there is none.
    std::string read(const std::string& name) const;

    /// The names in it, sorted.
    std::vector<std::string> names() const;

private:
    std::string directory_;
};
