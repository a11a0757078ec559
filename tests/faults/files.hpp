// Whole files, written and read without any call that a fault is planted in.
#pragma once

#include <sys/types.h>

struct file_text {
    char bytes[8192]; // and a NUL; empty without a file
};

void write_file(const char *path, const char *text, mode_t mode = 0644); // makes the folder too
file_text read_file(const char *path);
void remove_file(const char *path);
