/* What a daemon's start costs before its first line: built with the library, and with only the C libraries below it.
 * Prints how many kilobytes of it are resident then. */
#include <stdio.h>

#ifdef WITH_LIBRARY
#include <zones.h>
#endif

int main(void)
{
#ifdef WITH_LIBRARY
    zones_free();
#endif
    FILE *sizes = fopen("/proc/self/smaps_rollup", "r");
    char line[256];
    long kilobytes = 0;
    while (sizes && fgets(line, sizeof line, sizes) && sscanf(line, "Rss: %ld", &kilobytes) != 1) {}
    printf("%ld\n", kilobytes);
    return kilobytes > 0 ? 0 : 1;
}
