// Cuts the power after every change of the disk that a commit asks for, and again with all of what was not synced lost.
// What is then on the disk has to be the old or the new value, and the new one once the commit has told its success.
#include "device.hpp"
#include "files.hpp"
#include "inject.hpp"
#include "logging.h"
#include "uciconfig.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

namespace {

namespace fs = std::filesystem;
using inject::disk_change;

constexpr char package_file[] = "/etc/config/vandrel";
constexpr char package_text[] = "config settings settings\n option name old\n option kept yes\n";

/// What the disk holds, and what of it a power cut leaves at the least.
struct file {
    std::string now, synced;
};
using entries = std::map<std::string, std::shared_ptr<file>>;
entries names{{package_file, std::make_shared<file>(file{package_text, package_text})}};
entries synced_names = names;

void apply(const disk_change &change)
{
    file unnamed;
    const auto found = names.find(change.path);
    file &changed = found != names.end() ? *found->second : unnamed;
    switch (change.what) {
    case disk_change::create:
        names[change.path] = std::make_shared<file>();
        break;
    case disk_change::write: // again too, after a half of it
        changed.now.resize(static_cast<std::size_t>(change.position));
        changed.now += change.bytes;
        break;
    case disk_change::sync:
        changed.synced = changed.now;
        if (fs::is_directory(change.path))
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

void lay_out(const entries &left, std::string file::*content)
{
    for (const char *folder : {"/etc/config", "/tmp/.uci"}) {
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    for (const auto &[path, holds] : left)
        write_file(path, (*holds).*content);
}

std::string looked_up(const char *option)
{
    const std::unique_ptr<char, decltype(&free)> value{config_lookup("vandrel.settings.%s", option), free};
    return value ? value.get() : "nothing";
}

int cuts = 0, wrong = 0;

/// Looks at the disk after the cut, with and without the change file, which lies in memory on a device.
void cut_power(std::size_t changes, bool is_told)
{
    for (int variant = 0; variant < 8; ++variant) {
        lay_out((variant & 2) != 0 ? synced_names : names, (variant & 1) != 0 ? &file::synced : &file::now);
        if ((variant & 4) != 0)
            fs::remove_all("/tmp/.uci");
        ++cuts;
        const std::string name = looked_up("name"), kept = looked_up("kept");
        if (kept == "yes" && (name == "new" || (name == "old" && !is_told)))
            continue;
        ++wrong;
        std::printf("WRONG  power cut after change %zu%s, variant %d: name is %s, kept is %s\n", changes,
                    is_told ? " (the last)" : "", variant, name.c_str(), kept.c_str());
    }
}

} // namespace

int main()
{
    enter_device();
    logging_init("power_cut", 0);
    lay_out(names, &file::now);
    inject::note_changes();
    wrong += config_set_vandrel_setting_string("name", "new") != 0;
    const std::vector<disk_change> changes = inject::take_changes();
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (disk_change half = changes[i]; !half.bytes.empty()) {
            half.bytes.resize(half.bytes.size() / 2);
            apply(half);
            cut_power(i, false);
        }
        apply(changes[i]);
        cut_power(i + 1, i + 1 == changes.size());
    }
    std::printf("power cut: %d cuts, %d wrong\n", cuts, wrong);
    return wrong == 0 && cuts > 0 ? 0 : 1;
}
