// zone_generator [SEED [zones=N] [members=N] [large] [equal-keys] [faults] [schedules] [plain]]: prints a zone file
// made by chance, the same for the same arguments. "plain" leaves out deny flags and what is disabled.
#include "zone_generator.hpp"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

bool set_number(unsigned &number, std::string_view argument, std::string_view name)
{
    if (!argument.starts_with(name))
        return false;
    number = static_cast<unsigned>(std::strtoul(argument.substr(name.size()).data(), nullptr, 10));
    return true;
}

bool set_option(generator_options &options, std::string_view argument)
{
    if (set_number(options.zones, argument, "zones=") || set_number(options.members, argument, "members="))
        return true;
    if (argument == "plain")
        return !(options.has_deny_flags = options.has_left_out = false);
    const struct {
        std::string_view name;
        bool &flag;
    } flags[] = {{"large", options.is_large},
                 {"equal-keys", options.has_equal_keys},
                 {"faults", options.has_faults},
                 {"schedules", options.has_schedules}};
    for (const auto &[name, flag] : flags) {
        if (argument == name)
            return flag = true;
    }
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    generator_options options;
    if (argc > 1)
        set_number(options.seed, argv[1], "");
    for (int i = 2; i < argc; ++i) {
        if (!set_option(options, argv[i])) {
            std::fprintf(stderr, "zone_generator: what is %s?\n", argv[i]);
            return 2;
        }
    }
    std::puts(generate_zones(options).text.c_str());
    return 0;
}
