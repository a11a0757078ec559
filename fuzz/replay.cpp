// X_fuzz FOLDER: gives each file of a folder to a fuzz target, as libFuzzer would.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

std::vector<std::uint8_t> read(const std::filesystem::path &path)
{
    std::ifstream file{path, std::ios::binary};
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>{file}, {}};
    bytes.shrink_to_fit(); // the sanitizer guards what lies behind the last byte
    return bytes;
}

} // namespace

int main(int argc, char *argv[])
{
    std::map<std::string, std::vector<std::uint8_t>> inputs; // read before the target hides them
    if (argc == 2) {
        for (const auto &entry : std::filesystem::directory_iterator{argv[1]})
            inputs[entry.path().filename()] = read(entry);
    }
    if (inputs.empty()) {
        std::fputs("usage: X_fuzz FOLDER (with inputs in it)\n", stderr);
        return 2;
    }
    LLVMFuzzerInitialize(&argc, &argv);
    for (const auto &[name, bytes] : inputs) {
        std::fprintf(stderr, "%s\n", name.c_str()); // the last one that is shown is the one that failed
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return 0;
}
