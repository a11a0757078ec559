// What tests share: a fixture on an empty device with the log open, the records that arrived, files, and refused
// memory.
#pragma once

#include "device.hpp"
#include "files.hpp"

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

/// A log record as it reached /dev/log (; in its text is \;); err is the
/// number in its "error" tag, or -1 without one.
struct record {
    int severity;
    std::string text;
    std::string module; // "zones.c", without the line
    int err = -1;

    bool operator==(const record &) const = default;
};
using records = std::vector<record>;
std::ostream &operator<<(std::ostream &out, const record &entry);

record error(std::string text, std::string module, int err = -1);
record warning(std::string text, std::string module, int err = -1);
record info(std::string text, std::string module, int err = -1);

class device_test : public testing::Test {
protected:
    device_test();
    ~device_test() override;

    /// The records since the last call. With at_least, waits some seconds until that many are there.
    records log(std::size_t at_least = 0) const;
    /// The same, each as it came, with priority, time stamp, program name and all.
    std::vector<std::string> raw_log(std::size_t at_least = 0) const;

private:
    int socket_;
};

/// The command that runs a program of the build tree here, whatever machine it is for.
std::string built_program(const std::string &path_in_build_tree);

/// Whether another program starts those of the tests, as on machines of another kind: processes then have its name.
bool is_started_by_another();

/// Whether the tests run under qemu-user, which lacks some of the kernel's calls and answers others itself.
bool is_emulated();

/// While it lives, a signal whose handler lacks SA_RESTART arrives every few milliseconds.
class interruptions {
public:
    interruptions();
    ~interruptions();
    interruptions(const interruptions &) = delete;
    interruptions &operator=(const interruptions &) = delete;
};

/// While it lives, the n-th allocation (from 1) that the library makes itself, and only that one, is refused.
class allocation_refusal {
public:
    explicit allocation_refusal(int n, std::string_view library = "libvandrel.so"); // a literal
    ~allocation_refusal();
    allocation_refusal(const allocation_refusal &) = delete;
    allocation_refusal &operator=(const allocation_refusal &) = delete;
    bool happened() const;
};

/// While it lives, allocations leave this value in errno, as the C library's may also where they succeed.
class misleading_errno {
public:
    explicit misleading_errno(int value);
    ~misleading_errno();
    misleading_errno(const misleading_errno &) = delete;
    misleading_errno &operator=(const misleading_errno &) = delete;
};
