// Unpacking of gzip texts in memory.
#pragma once

#include <string>
#include <string_view>

// False when the data are cut or broken, or hold more than 256 MiB.
bool unpack_gzip(std::string_view data, std::string *text);
