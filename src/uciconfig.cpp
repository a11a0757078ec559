#include "uciconfig.h"

#include "log.hpp"
#include "paths.hpp"
#include "util.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

using namespace vandrel;

constexpr char log_module[] = "uciconfig.c";

constexpr std::size_t feature_command_size = 128; // the script's command line and its NUL
constexpr std::size_t feature_flag_size = 8;      // room for "true" and "false" with a newline

} // namespace

int config_get_feature_string(char *output, size_t output_size, const char *feature, const char *scope)
{
    if (!feature)
        return -1;
    char command[feature_command_size];
    std::snprintf(command, sizeof command, feature_command_format, scope ? scope : "system", feature);
    return vd_run_command_simple(command, output, output_size);
}

int config_get_feature_bool(const char *feature, const char *scope)
{
    char answer[feature_flag_size] = "";
    const int result = config_get_feature_string(answer, sizeof answer, feature, scope);
    if (result != 0)
        log_error("config_get_feature_string() failed with value %d", result);
    return std::strncmp(answer, "true", 4) == 0;
}

int config_get_peer_type(const char *common_name)
{
    if (!common_name) {
        log_error("Missing common name");
        return PEER_TYPE_UNKNOWN;
    }
    return vpn_type_get_by_common_name(common_name);
}
