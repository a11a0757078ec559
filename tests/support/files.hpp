// Whole files, and how many are open.
#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

void write_file(const std::string &path, std::string_view content, mode_t mode = 0644); // makes the folders too
void write_script(const std::string &path, std::string_view content);
std::string read_file(const std::string &path); // empty when there is none
int open_descriptors();                         // how many the process has
