#include "util.h"

#include "handles.hpp"
#include "ip_calculation.h"
#include "log.hpp"
#include "shell_command.hpp"
#include "sizes.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "util.c";

constexpr long largest_file = 200'000'000; // that file_read_all reads
constexpr std::size_t path_size = 256;     // a directory path and its NUL

enum file_read_mode { read_bytes = 0, read_line = 1 };

enum command_flag {
    command_failed = 1,
    output_cut = 2,
    command_missing = 4,
    output_missing = 8,
    shell_missing = 16,
};

enum number_fault { no_fault, invalid, too_small, too_large };

number_fault convert_number(const char *text, long long lowest, long long highest, long long &number)
{
    if (!text || lowest > highest)
        return invalid;
    constexpr auto smallest = std::numeric_limits<long long>::min(), largest = std::numeric_limits<long long>::max();
    char *end;
    errno = 0;
    number = std::strtoll(text, &end, 10);
    if (end == text || *end != '\0')
        return invalid;
    const bool out_of_type = errno == ERANGE;
    if ((number == smallest && out_of_type) || number < lowest)
        return too_small;
    if ((number == largest && out_of_type) || number > highest)
        return too_large;
    return no_fault;
}

/// The first line of file in buffer, without its line end; 0 when there is none.
int read_first_line(FILE *file, char *buffer, int size)
{
    if (!std::fgets(buffer, size, file))
        return 0;
    std::size_t length = std::strlen(buffer);
    while (length > 0 && (buffer[length - 1] == '\r' || buffer[length - 1] == '\n'))
        buffer[--length] = '\0';
    return static_cast<int>(length);
}

/// The size of file, which is then at its start; -1 when it cannot be told.
long file_size(FILE *file)
{
    struct stat status; // a directory of some file systems can be sought in and has a size of 0
    if (fstat(fileno(file), &status) != 0 || S_ISDIR(status.st_mode) || std::fseek(file, 0, SEEK_END) != 0)
        return -1;
    const long size = std::ftell(file);
    return size >= 0 && std::fseek(file, 0, SEEK_SET) == 0 ? size : -1;
}

/// Reads what fits into output, ends it with a NUL and says whether it was cut.
bool read_output(shell_command &command, char *output, std::size_t size)
{
    const std::size_t length = command.read(output, size);
    if (size == 0)
        return false;
    const bool is_cut = length == size;
    output[is_cut ? size - 1 : length] = '\0';
    return is_cut;
}

constexpr std::string_view server_role = "vd-vpnserver", client_role = "vd-vpnclient";

bool begins_with(const char *text, std::string_view prefix)
{
    return std::strncmp(text, prefix.data(), prefix.size()) == 0;
}

} // namespace

int safestrcmp(const char *a, const char *b)
{
    if (!a || !b)
        return a != b;
    return std::strcmp(a, b);
}

int safestrncmp(const char *a, const char *b, size_t n)
{
    if (!a || !b)
        return a != b;
    return std::strncmp(a, b, n);
}

int safememcmp(const void *a, size_t size, const void *b)
{
    if (!a || !b)
        return a != b;
    return std::memcmp(a, b, size);
}

char *safedup(const char *text)
{
    return text ? strdup(text) : nullptr;
}

void *memdup(const void *source, size_t size)
{
    void *copy = source && size != 0 ? std::malloc(size) : nullptr;
    return copy ? std::memcpy(copy, source, size) : nullptr;
}

void *memzero(void *block, size_t size)
{
    return block ? std::memset(block, 0, size) : nullptr;
}

// Where <string.h> declares it, nothing but this attribute makes it visible.
__attribute__((visibility("default"))) size_t strlcpy(char *dst, const char *src, size_t size)
{
    const std::size_t length = std::strlen(src);
    if (size != 0) {
        const std::size_t copied = std::min(length, size - 1);
        std::memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}

int __stricmp(const char *a, const char *b)
{
    for (;; ++a, ++b) {
        const int from_a = std::tolower(static_cast<unsigned char>(*a));
        const int from_b = std::tolower(static_cast<unsigned char>(*b));
        if (from_a == '\0' || from_a != from_b)
            return from_a - from_b;
    }
}

long long strtonum(const char *str, long long minval, long long maxval, const char **errstr)
{
    const struct {
        const char *message;
        int error;
    } faults[] = {{nullptr, errno}, {"invalid", EINVAL}, {"too small", ERANGE}, {"too large", ERANGE}};
    long long number = 0;
    const auto &[message, error] = faults[convert_number(str, minval, maxval, number)];
    if (errstr)
        *errstr = message;
    errno = error;
    return message ? 0 : number;
}

int random_number(int a, int b)
{
    const auto [low, high] = std::minmax<int64_t>({a, b}); // an int cannot hold the size of every range of ints
    return static_cast<int>(low + std::rand() % (high - low + 1));
}

int file_exists(const char *path)
{
    return path && access(path, F_OK) == 0;
}

time_t file_get_mtime(const char *path)
{
    if (!file_exists(path))
        return -1;
    struct stat status;
    if (stat(path, &status) != 0) {
        std::perror(path);
        return -1;
    }
    return status.st_mtime;
}

int file_read(const char *path, char *buffer, int size, int mode)
{
    const stream_handle file{path ? std::fopen(path, "re") : nullptr};
    if (!file) {
        log_warning("Couldn't open file %s", path ? path : "(null)");
        return 0;
    }
    if (!buffer || size <= 0)
        return 0;
    if (mode == read_bytes)
        return static_cast<int>(std::fread(buffer, 1, static_cast<std::size_t>(size), file.get()));
    return mode == read_line ? read_first_line(file.get(), buffer, size) : 0;
}

long file_read_all(char **buffer, const char *path)
{
    const stream_handle file{buffer && path ? std::fopen(path, "rbe") : nullptr};
    const long size = file ? file_size(file.get()) : -1;
    if (size < 0 || size > largest_file)
        return -1;
    const auto bytes = static_cast<std::size_t>(size);
    c_string block{static_cast<char *>(std::malloc(std::max<std::size_t>(bytes, 1)))}; // malloc(0) may give null
    if (!block || std::fread(block.get(), 1, bytes, file.get()) != bytes)
        return -1;
    *buffer = block.release();
    return size;
}

int mkdir_recursive(const char *path, mode_t mode)
{
    char prefix[path_size];
    std::size_t length = path ? strlcpy(prefix, path, sizeof prefix) : 0;
    if (length == 0 || length >= sizeof prefix)
        return 0;
    if (prefix[length - 1] == '/')
        prefix[--length] = '\0';
    for (std::size_t i = 1; i < length; ++i) {
        if (prefix[i] == '/') {
            prefix[i] = '\0';
            mkdir(prefix, mode);
            prefix[i] = '/';
        }
    }
    mkdir(prefix, mode);
    return 1;
}

int ensure_dir_exists(const char *path, mode_t mode)
{
    if (file_exists(path))
        return 1;
    const mode_t before = umask(0);
    mkdir_recursive(path, mode);
    umask(before);
    return 0;
}

long get_uptime(void)
{
    struct sysinfo info;
    return sysinfo(&info) == 0 ? static_cast<long>(info.uptime) : static_cast<long>(std::time(nullptr));
}

long get_uptime_seconds(void)
{
    return -1;
}

int vd_run_command_simple(const char *command, char *output, size_t output_size)
{
    if (output && output_size != 0)
        output[0] = '\0';
    if (!command)
        return command_missing;
    if (!output && output_size != 0)
        return output_missing;
    shell_command running{command};
    if (!running.has_started())
        return shell_missing;
    int flags = output && read_output(running, output, output_size) ? output_cut : 0;
    if (running.wait() != 0)
        flags |= command_failed;
    return flags;
}

uint32_t parse_ip(const char *text)
{
    log_warning("parse_ip() is obsolete");
    return ip_parse(text);
}

uint32_t parse_ip_free(char *text)
{
    log_warning("parse_ip_free() is obsolete");
    return ip_parse_free(text);
}

int vpn_type_get_by_common_name(const char *common_name)
{
    if (!common_name)
        return PEER_TYPE_UNKNOWN;
    if (begins_with(common_name, "token-"))
        return PEER_TYPE_TOKEN;
    if (begins_with(common_name, "vd-vpnclient-"))
        return PEER_TYPE_VPNCLIENT;
    if (begins_with(common_name, "vd-vpnserver-"))
        return PEER_TYPE_VPNSERVER;
    return PEER_TYPE_UNKNOWN;
}

int extract_cn_from_path(const char *path, char *common_name)
{
    if (!common_name)
        return -1;
    const c_string copy{safedup(path)};
    memzero(common_name, common_name_size);
    if (!copy) {
        log_error("basename is null");
        return -1;
    }
    char *slash = std::strrchr(copy.get(), '/');
    char *name = slash ? slash + 1 : copy.get();
    name[std::strcspn(name, ".")] = '\0';
    strlcpy(common_name, name, common_name_size);
    return 0;
}

int translate_common_name(char *out, const char *common_name, int output_type)
{
    if (!out || !common_name) {
        log_warning("Missing arguments");
        return 0;
    }
    if (output_type != PEER_TYPE_VPNSERVER && output_type != PEER_TYPE_VPNCLIENT) {
        log_warning("Invalid output_type %d", output_type);
        return 0;
    }
    if (!begins_with(common_name, "token") && !begins_with(common_name, server_role) &&
        !begins_with(common_name, client_role)) {
        log_warning("Invalid common name %s", common_name);
        return 0;
    }
    const auto [wanted, other] =
        output_type == PEER_TYPE_VPNCLIENT ? std::pair{client_role, server_role} : std::pair{server_role, client_role};
    std::memmove(out, common_name, std::strlen(common_name) + 1);
    if (begins_with(out, other))
        std::memcpy(out, wanted.data(), wanted.size());
    return 1;
}
