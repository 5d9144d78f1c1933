#pragma once

#include <map>
#include <string>

/**
 * A folder of files to serve, with a secret beside it and links of every kind in it, made for the
 * life of the process.
 *
 * Every file's content is the name below the root under which it is no link, so that what was
 * reached can be told from what was read.
 */
class Served_Tree {
public:
    Served_Tree();
    ~Served_Tree();
    Served_Tree(const Served_Tree&) = delete;
    Served_Tree& operator=(const Served_Tree&) = delete;

    std::string root() const { return folder_ + "/root"; }

    /// What a name below the root reaches by the rules; "" when it reaches nothing that is served.
    /// @param by_links  links that stay below the root are followed
    std::string reached(const std::string& name, bool by_links) const;

    static constexpr char SECRET[] = "SECRET";

private:
    void write(const std::string& name, const std::string& content);
    void file(const std::string& name);
    void link(const std::string& name, const std::string& to, const std::string& reached);

    std::string folder_;
    std::map<std::string, std::string> names_; ///< name below the root -> name of the file
    std::map<std::string, std::string> links_; ///< the same through links
};
