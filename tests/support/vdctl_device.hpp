// What the tests of vdctl share: an empty device on which it is found, and its output is the same on a terminal.
#pragma once

#include "device_test.hpp"
#include "program_run.hpp"

#include <cstdlib>
#include <filesystem>

class vdctl_device : public device_test {
protected:
    vdctl_device()
    {
        const std::string program = built_program("tools/vdctl/vdctl");
        write_script("/var/bin/vdctl", "#!/bin/sh\nexec " + program + " \"$@\"\n");
        setenv("PATH", (std::string{"/var/bin:"} + std::getenv("PATH")).c_str(), 1);
        setenv("NO_COLOR", "1", 1);
        std::filesystem::current_path("/tmp");
    }
};
