// Public headers, symbol map and library name the same symbols.
#include "device_test.hpp"

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace {

using names = std::set<std::string>;

names words_of(const std::string &command)
{
    names result;
    FILE *pipe = popen(command.c_str(), "r");
    std::array<char, 256> line;
    while (pipe && std::fgets(line.data(), line.size(), pipe))
        result.insert(std::string{line.data()}.substr(0, std::string_view{line.data()}.find('\n')));
    EXPECT_EQ(pclose(pipe), 0) << command;
    return result;
}

const std::string source = host_path(SOURCE_DIR);

/// Functions and variables that the compiler sees declared in the public headers themselves.
names declared()
{
    return words_of("cd " + source +
                    "/include && for header in *.h; do echo \"#include <$header>\"; done | "
                    "gcc -E -x c -I. - | awk '/^# /{ours = $3 ~ /^\"\\.\\// ; next} /^#/{next} ours' | tr '\\n' ' ' | "
                    "sed 's/{[^}]*}//g; s/__attribute__ *(([^;]*))//g' | tr ';' '\\n' | grep -v typedef | "
                    "grep -oE '^[^(]*[ *](\\w+) *\\(|^ *extern [^(]*[ *]\\w+$' | grep -oE '\\w+ *\\(?$' | tr -d ' ('");
}

TEST(interface, headers_map_and_library_agree)
{
    const names headers = declared();
    const names map =
        words_of("sed -n '/global:/,/local:/s/^ *\\([A-Za-z_]\\w*\\);$/\\1/p' " + source + "/src/libvandrel.map");
    const names library = words_of("nm -D --defined-only " + host_path(BINARY_DIR) +
                                   "/libvandrel.so.1 | grep -v ' A ' | sed 's/.* //; s/@.*//'");
    EXPECT_TRUE(headers.contains("vd_logging_log") && headers.contains("libvandrel_logcontext"));
    EXPECT_EQ(headers, map);
    EXPECT_EQ(map, library);
}

} // namespace
