#include "fuzz/common/served_tree.h"

#include "fuzz/common/check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

Served_Tree::Served_Tree()
{
    std::string name = fs::temp_directory_path().string() + "/fuzz-tree-XXXXXX";
    FUZZ_CHECK(::mkdtemp(name.data()) != nullptr, "no temporary folder can be made");
    folder_ = name;
    const std::string root = this->root();
    for (const char* folder : {"/root", "/root/dir", "/root/dir/sub", "/root/.well-known",
                               "/root/.hidden", "/root/a b", "/outside", "/root/index.dir"}) {
        fs::create_directory(folder_ + folder);
    }
    this->write("/secret", SECRET);
    this->write("/outside/secret", SECRET);
    this->write("/outside/index.html", SECRET);
    this->write("/root/.hidden/secret", SECRET);
    this->write("/root/.secret", SECRET);
    this->write("/root/dir/.secret", SECRET);

    for (const char* file :
         {"index.html", "page.html", "page.html.gz", "dir/index.html", "dir/sub/deep.txt",
          ".well-known/x", "a b/c d", "\xC3\xBC", "%41", "a+b", "x;y=z", "...", "a..b", "-", "~"}) {
        this->file(file);
    }
    names_.erase("..."); // begins with a dot: hidden

    this->link("out", "../secret", "");
    this->link("out.html.gz", "../secret", "");
    this->file("out.html");
    this->link("out-dir", "../outside", "");
    this->link("absolute", folder_ + "/secret", "");
    this->link("absolute-root", root + "/page.html", "");
    this->link("proc", "/proc/self/root", "");
    this->link("parent", "..", "");
    this->link("circle", "circle", "");
    this->link("around", "../root/page.html", "");
    this->link("in", "dir/sub/deep.txt", "dir/sub/deep.txt");
    this->link("dir/up", "../page.html", "page.html");
    this->link("dir/up-and-out", "../../secret", "");
    this->link("in-dir", "dir/sub", "");
    links_["in-dir/deep.txt"] = "dir/sub/deep.txt";
    this->link("self", ".", "");
    FUZZ_CHECK(::mkfifo((root + "/fifo").c_str(), 0600) == 0, "no FIFO can be made");
}

Served_Tree::~Served_Tree()
{
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

std::string Served_Tree::reached(const std::string& name, bool by_links) const
{
    std::string plain = name;
    while (by_links && plain.starts_with("self/")) { // the root below itself
        plain.erase(0, 5);
    }
    if (const auto found = names_.find(plain); found != names_.end()) {
        return found->second;
    }
    const auto found = links_.find(plain);
    return by_links && found != links_.end() ? found->second : "";
}

void Served_Tree::write(const std::string& name, const std::string& content)
{
    std::ofstream file(folder_ + name, std::ios::binary);
    file << content;
    FUZZ_CHECK(file.good(), "a file of the tree cannot be written");
}

void Served_Tree::file(const std::string& name)
{
    this->write("/root/" + name, name);
    names_[name] = name;
}

void Served_Tree::link(const std::string& name, const std::string& to, const std::string& reached)
{
    fs::create_symlink(to, this->root() + "/" + name);
    if (!reached.empty()) {
        links_[name] = reached;
    }
}
