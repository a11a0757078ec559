// Cuts the power after every change of the disk that a commit asks for, and again with all of what was not synced lost.
// What is then on the disk has to be the old or the new value, and the new one once the commit has told its success.
#include "device.hpp"
#include "files.hpp"
#include "inject.hpp"
#include "logging.h"
#include "uciconfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using inject::disk_change;

constexpr char package_file[] = "/etc/config/vandrel";
constexpr char package_text[] = "config settings settings\n option name old\n option kept yes\n";
constexpr const char *folders[] = {"/etc/config", "/tmp/.uci"};

/// What the disk holds, and what of it a power cut leaves at the least.
struct disk {
    struct file {
        std::string now, synced;
    };
    using entries = std::map<std::string, ino_t>;

    std::map<ino_t, file> files;
    entries names, synced_names;

    disk();
    void apply(const disk_change &change);
    void lay_out(bool data_synced_only, bool names_synced_only) const;
};

disk::disk()
{
    struct stat status;
    stat(package_file, &status);
    files[status.st_ino] = {package_text, package_text};
    names[package_file] = synced_names[package_file] = status.st_ino;
}

void disk::apply(const disk_change &change)
{
    file &changed = files[change.file];
    switch (change.what) {
    case disk_change::create:
        changed = {};
        names[change.path] = change.file;
        break;
    case disk_change::write:
        changed.now.resize(static_cast<std::size_t>(change.position));
        changed.now += change.bytes;
        break;
    case disk_change::truncate:
        changed.now.resize(static_cast<std::size_t>(change.position));
        break;
    case disk_change::sync:
        changed.synced = changed.now;
        break;
    case disk_change::sync_folder:
        synced_names = names;
        break;
    case disk_change::rename:
        names[change.to] = names[change.path];
        names.erase(change.path);
        break;
    case disk_change::remove:
        names.erase(change.path);
        break;
    }
}

void disk::lay_out(bool data_synced_only, bool names_synced_only) const
{
    for (const char *folder : folders) {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    for (const auto &[path, id] : names_synced_only ? synced_names : names) {
        const file &holds = files.at(id);
        write_file(path.c_str(), (data_synced_only ? holds.synced : holds.now).c_str());
    }
}

std::string looked_up(const char *option)
{
    char *value = config_lookup("vandrel.settings.%s", option);
    std::string text = value ? value : "nothing";
    free(value);
    return text;
}

struct {
    int cuts = 0, wrong = 0;
} sum;

/// Looks at the disk after the cut, with and without the change file, which lies in memory on a device.
void check_after(const disk &left, std::size_t changes, bool told, const char *call)
{
    for (int variant = 0; variant < 8; ++variant) {
        left.lay_out((variant & 1) != 0, (variant & 2) != 0);
        if ((variant & 4) != 0)
            fs::remove_all("/tmp/.uci");
        ++sum.cuts;
        const std::string name = looked_up("name"), kept = looked_up("kept");
        const bool is_new = name == "new";
        if (kept == "yes" && (is_new || (name == "old" && !told)))
            continue;
        ++sum.wrong;
        std::printf("WRONG  %s: power cut after change %zu%s, variant %d: name is %s, kept is %s\n", call, changes,
                    told ? " (the last)" : "", variant, name.c_str(), kept.c_str());
    }
}

/// Each change of the call, whole and, where it writes, by half.
void cut_everywhere(const char *call)
{
    for (const char *folder : folders) {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    write_file(package_file, package_text);
    disk now;
    inject::note_changes();
    const int result = config_set_vandrel_setting_string("name", "new");
    const std::vector<disk_change> changes = inject::take_changes();
    if (result != 0) {
        ++sum.wrong;
        std::printf("WRONG  %s gives %d\n", call, result);
        return;
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (disk_change half = changes[i]; half.what == disk_change::write) {
            half.bytes.resize(half.bytes.size() / 2);
            disk torn = now;
            torn.apply(half);
            check_after(torn, i, false, call);
        }
        now.apply(changes[i]);
        check_after(now, i + 1, i + 1 == changes.size(), call);
    }
}

} // namespace

int main()
{
    enter_device();
    logging_init("power_cut", 0);
    cut_everywhere("config_set_vandrel_setting_string");
    std::printf("power cut: %d cuts, %d wrong\n", sum.cuts, sum.wrong);
    return sum.wrong == 0 && sum.cuts > 0 ? 0 : 1;
}
