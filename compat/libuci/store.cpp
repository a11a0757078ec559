#include "store.hpp"

#include "change.hpp"
#include "files.hpp"
#include "package_file.hpp"
#include "text.hpp"

#include <memory>
#include <vector>

#include <sys/stat.h>

namespace libuci {

namespace {

// Who needs both locks takes that of the package file first, and holds at most one change file's. So nobody waits for
// somebody who waits for him.

std::string change_path(std::string_view folder, const package &of)
{
    return std::string{folder} + '/' + of.name;
}

/// The end of those lines of a change file that are in that package file already.
std::string in_place_comment(file_id file)
{
    return "# in inode " + std::to_string(file.inode) + " of device " + std::to_string(file.device) + '\n';
}

/// The lines of a change file that are not in that package file yet.
std::string pending_lines(const descriptor &changes, file_id file)
{
    if (!changes)
        return {};
    std::string text = read_whole(changes);
    text.erase(0, end_of_comment(text, in_place_comment(file)));
    return text;
}

/// The pending lines of a change file for a load, to which one that it may not open is one without lines.
std::string readable_lines(const std::string &path, file_id file)
{
    try {
        return pending_lines(open_locked(path, access::read), file);
    } catch (const not_permitted &) {
        return {};
    }
}

/// A package made from its locked file, not in the context yet, without any changes.
std::unique_ptr<package> read_package_file(context &ctx, const std::string &name, const std::string &path,
                                           const descriptor &file)
{
    auto fresh = std::make_unique<package>(ctx, name, path);
    read_package(*fresh, read_whole(file));
    return fresh;
}

package &enlist(context &ctx, std::unique_ptr<package> fresh) noexcept
{
    link_before(ctx.root, fresh->e);
    return *fresh.release();
}

void drop(uci_package *&at) noexcept
{
    unlink(at->e);
    delete &own(*at);
    at = nullptr;
}

/// The pending lines of the change files in the other directories than the save directory, which is the last of the
/// list.
std::vector<std::string> other_changes(context &ctx, const package &of, file_id file)
{
    std::vector<std::string> texts;
    for (text_element &folder : items{ctx.delta_path}) {
        if (folder.name != ctx.savedir)
            texts.push_back(pending_lines(open_locked(change_path(folder.text, of), access::read), file));
    }
    return texts;
}

/// Makes the save directory, one level only, and for a package in a subfolder the same one there.
void make_save_folder(context &ctx, const package &of)
{
    const mode_t mode = permissions(ctx.confdir, UCI_DIRMODE);
    const std::string file = change_path(ctx.savedir, of);
    std::size_t slash = std::char_traits<char>::length(ctx.savedir);
    do {
        const std::string folder = file.substr(0, slash);
        if (::mkdir(folder.c_str(), mode) != 0 && !is_folder(folder))
            throw failure{UCI_ERR_IO};
        slash = file.find('/', slash + 1);
    } while (slash != std::string::npos);
}

/// The package's change file in the save directory, locked, with the unsaved changes in it; none if there is neither.
descriptor own_changes(context &ctx, package &of)
{
    const std::string path = change_path(ctx.savedir, of);
    if (of.unsaved.empty() && !is_regular(path))
        return {};
    if (!of.unsaved.empty())
        make_save_folder(ctx, of);
    descriptor file = open_locked(path, access::write, permissions(of.path, UCI_FILEMODE));
    if (!file)
        throw failure{UCI_ERR_IO};
    remove_leftovers(path);
    std::string text = read_whole(file);
    if (end_of_comment(text, in_place_comment(id_at(of.path))) == text.size()) { // nothing is pending
        shorten(file, 0);
        text.clear();
    }
    if (!of.unsaved.empty()) {
        const auto [length, separator] = end_of_lines(text);
        shorten(file, length);
        append(file, separator + of.unsaved);
        of.unsaved.clear();
    }
    return file;
}

/// A package's file, locked. One that had vanished is made, and removed again unless it is kept.
class locked_package {
public:
    explicit locked_package(const package &which)
    {
        const bool vanished = !is_regular(which.path);
        file_ = open_locked(which.path, access::write, UCI_FILEMODE);
        if (!file_)
            throw failure{UCI_ERR_IO};
        if (vanished && read_whole(file_).empty())
            made_ = real_path(which.path);
    }
    ~locked_package()
    {
        if (!made_.empty())
            ::unlink(made_.c_str());
    }
    locked_package(const locked_package &) = delete;
    locked_package &operator=(const locked_package &) = delete;

    const descriptor &file() const noexcept { return file_; }
    void keep() noexcept { made_.clear(); }

private:
    descriptor file_;
    std::string made_;
};

/// Puts the package as its file and the changes have it in the place of the old one, which is gone even if that fails.
/// Gives the number of lines that were applied.
std::size_t reload(context &ctx, uci_package *&at, const descriptor &file, const std::vector<std::string> &changes)
{
    const std::string name = at->e.name;
    const std::string path = at->path;
    drop(at);
    auto fresh = read_package_file(ctx, name, path, file);
    fresh->has_delta = true;
    std::size_t applied = 0;
    for (const std::string &text : changes)
        applied += apply_lines(*fresh, text);
    at = &enlist(ctx, std::move(fresh));
    return applied;
}

/// Says behind the lines of a change file that the package file which is about to be in place has them.
void announce(const descriptor &saved, const line_end &end, file_id fresh)
{
    if (end.length == 0)
        return;
    shorten(saved, end.length);
    try {
        append(saved, end.separator + in_place_comment(fresh));
    } catch (const failure &) { // a full disk is no reason not to commit
    }
}

/// Replaces the package file; false if it may not outlive a power cut. A failure leaves the change file as it was.
bool replace_announced(package &from, const locked_package &locked, const descriptor &saved)
{
    const line_end end = saved ? end_of_lines(read_whole(saved)) : line_end{};
    try {
        return replace(from.path, locked.file(), package_text(from),
                       [&](file_id fresh) { announce(saved, end, fresh); });
    } catch (...) {
        if (end.length > 0)
            shorten(saved, end.length);
        throw;
    }
}

/// Replaces the package file, and only then empties the change file, if there is one. Who is killed in between leaves
/// a comment there that tells which package file has the lines. Whoever renames or reads has the change file's lock.
void put_in_place(package &from, locked_package &locked, const descriptor &saved)
{
    const bool on_disk = replace_announced(from, locked, saved);
    locked.keep();
    from.unsaved.clear();
    if (saved)
        shorten(saved, 0);
    if (!on_disk)
        throw failure{UCI_ERR_IO};
}

/// Takes the changes of a section or option, or of the whole package, out of the change file.
void take_out(context &ctx, package &of, const std::string &section_name, const std::string &option_name)
{
    const descriptor saved = own_changes(ctx, of);
    if (!saved)
        return;
    const std::string rest = lines_without(of.name, pending_lines(saved, id_at(of.path)), section_name, option_name);
    if (!replace(change_path(ctx.savedir, of), saved, rest))
        throw failure{UCI_ERR_IO};
}

void overwrite_file(context &ctx, package &from)
{
    locked_package locked{from};
    const std::string path = change_path(ctx.savedir, from);
    descriptor saved;
    if (from.has_delta && is_regular(path)) {
        saved = open_locked(path, access::write, UCI_FILEMODE);
        if (!saved)
            throw failure{UCI_ERR_IO};
        remove_leftovers(path);
    }
    put_in_place(from, locked, saved);
}

} // namespace

package &load(context &ctx, const std::string &name)
{
    const bool by_path = name.starts_with('/') || name.starts_with("./");
    if (!by_path && name.starts_with('.'))
        throw failure{UCI_ERR_NOTFOUND};
    if (!by_path && !is_printable(name))
        throw failure{UCI_ERR_INVAL};
    const std::string path = by_path ? name : std::string{ctx.confdir} + '/' + name;
    const std::string package_name = by_path ? name.substr(name.rfind('/') + 1) : name;
    const descriptor file = open_locked(path, access::read);
    if (!file)
        throw failure{UCI_ERR_NOTFOUND};
    if (ctx.find(package_name))
        throw failure{UCI_ERR_DUPLICATE};

    auto fresh = read_package_file(ctx, package_name, path, file);
    fresh->has_delta = !by_path;
    if (fresh->has_delta) {
        for (text_element &folder : items{ctx.delta_path})
            apply_lines(*fresh, readable_lines(change_path(folder.text, *fresh), id_of(file)));
    }
    return enlist(ctx, std::move(fresh));
}

void save(context &ctx, package &from)
{
    if (!from.has_delta)
        overwrite_file(ctx, from);
    else if (!from.unsaved.empty())
        own_changes(ctx, from);
}

void commit(context &ctx, uci_package *&at, bool overwrite)
{
    package &old = own(*at);
    if (overwrite || !old.has_delta)
        return overwrite_file(ctx, old);
    locked_package locked{old};
    const file_id id = id_of(locked.file());
    std::vector<std::string> changes = other_changes(ctx, old, id);
    const descriptor saved = own_changes(ctx, old);
    changes.push_back(pending_lines(saved, id));
    if (reload(ctx, at, locked.file(), changes) == 0)
        return locked.keep();
    put_in_place(own(*at), locked, saved);
}

void revert(context &ctx, uci_package *&at, const std::string &section_name, const std::string &option_name)
{
    take_out(ctx, own(*at), section_name, option_name);
    const std::string name = at->e.name;
    drop(at);
    at = &load(ctx, name);
}

} // namespace libuci
