// Public headers, symbol map, library and manual page name the same symbols.
#include "device_test.hpp"

#include <cstdio>
#include <set>
#include <sstream>

namespace {

const std::string source = host_path(SOURCE_DIR), library = host_path(BINARY_DIR) + "/libvandrel.so.1",
                  manual_page = host_path(BINARY_DIR) + "/man/libvandrel.3";

std::set<std::string> words_of(const std::string &command)
{
    EXPECT_EQ(std::system((command + " >/tmp/words").c_str()), 0) << command;
    std::istringstream words{read_file("/tmp/words")};
    return {std::istream_iterator<std::string>{words}, {}};
}

TEST(interface, headers_map_library_and_manual_agree)
{
    const auto headers = words_of( // functions and variables that the compiler sees declared in the headers themselves
        "cd " + source +
        "/include && for header in *.h; do echo \"#include <$header>\"; done | gcc -E -x c -I. - | "
        "awk '/^# /{ours = $3 ~ /^\"\\.\\// ; next} /^#/{next} ours' | tr '\\n' ' ' | "
        "sed 's/{[^}]*}//g; s/__attribute__ *(([^;]*))//g' | tr ';' '\\n' | grep -v typedef | "
        "grep -oE '^[^(]*[ *](\\w+) *\\(|^ *extern [^(]*[ *]\\w+$' | grep -oE '\\w+ *\\(?$' | tr -d ' ('");
    const auto map =
        words_of("sed -n '/global:/,/local:/s/^ *\\([A-Za-z_]\\w*\\);$/\\1/p' " + source + "/src/libvandrel.map");
    EXPECT_TRUE(headers.contains("vd_logging_log"));
    EXPECT_TRUE(headers.contains("libvandrel_logcontext"));
    EXPECT_EQ(headers, map);
    EXPECT_EQ(map, words_of("nm -D --defined-only " + library + " | grep -v ' A ' | sed 's/.* //; s/@.*//'"));

    const auto manual = words_of("sed 's/^[.].*//' " + manual_page + " | grep -oE '\\w+'");
    for (const std::string &name : map)
        EXPECT_TRUE(manual.contains(name)) << name;
}

} // namespace
