#include "listing.hpp"

#include "failure.hpp"
#include "text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>

namespace libuci {

namespace {

struct closes_folder {
    void operator()(DIR *folder) const noexcept { ::closedir(folder); }
};
using open_folder = std::unique_ptr<DIR, closes_folder>;

open_folder open(const char *path)
{
    open_folder folder{::opendir(path)};
    if (folder)
        return folder;
    if (errno == ENOMEM)
        throw std::bad_alloc{};
    throw failure{errno == ENOENT || errno == ENOTDIR ? UCI_ERR_NOTFOUND : UCI_ERR_IO};
}

const dirent *next_entry(DIR *folder)
{
    errno = 0;
    const dirent *entry = ::readdir(folder);
    if (!entry && errno != 0)
        throw failure{UCI_ERR_IO};
    return entry;
}

bool is_package(DIR *folder, const char *name)
{
    struct stat status;
    return is_printable(name) && std::string_view{name}.find('.') == std::string_view::npos &&
           ::fstatat(::dirfd(folder), name, &status, 0) == 0 && !S_ISDIR(status.st_mode);
}

} // namespace

std::vector<std::string> package_names(const char *path)
{
    const open_folder folder = open(path);
    std::vector<std::string> names;
    bool is_empty = true;
    while (const dirent *entry = next_entry(folder.get())) {
        is_empty = is_empty && entry->d_name[0] == '.';
        if (is_package(folder.get(), entry->d_name))
            names.emplace_back(entry->d_name);
    }
    if (is_empty)
        throw failure{UCI_ERR_NOTFOUND};
    std::sort(names.begin(), names.end());
    return names;
}

char **to_block(const std::vector<std::string> &names)
{
    std::size_t size = (names.size() + 1) * sizeof(char *);
    for (const std::string &name : names)
        size += name.size() + 1;
    auto **block = static_cast<char **>(std::malloc(size));
    if (!block)
        throw std::bad_alloc{};
    char *text = reinterpret_cast<char *>(block + names.size() + 1);
    char **entry = block;
    for (const std::string &name : names) {
        *entry++ = text;
        text = std::copy_n(name.c_str(), name.size() + 1, text);
    }
    *entry = nullptr;
    return block;
}

} // namespace libuci
