// In the place of libstdc++'s own handler, which prints the name of an exception's type before it aborts, and brings
// along 40 kB that put such names into words. Linked only where the C++ runtime becomes part of what is built.
#include <cstdlib>
#include <exception>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name is libstdc++'s
namespace __cxxabiv1 {
extern std::terminate_handler __terminate_handler;
std::terminate_handler __terminate_handler = std::abort;
} // namespace __cxxabiv1
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
