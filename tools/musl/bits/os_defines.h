// libstdc++'s is for glibc and asks for its version.
#pragma once
#define __NO_CTYPE 1
