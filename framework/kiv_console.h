#pragma once

// Console line pieces of the framework's own messages (hidden inside libkiv_framework).

#include <iostream>
#include <string>

namespace kiv_framework_detail {

inline const char* const warning_banner = "\x1b[1;35mKIV-SYSTEM**WARNING**\x1b[0;0m: ";
inline const char* const error_banner = "\x1b[1;31mKIV-SYSTEM**ERROR**\x1b[0;0m: ";

inline std::string coloured(std::string name) {
    name.insert(0, "\x1b[0;35m");
    name.append("\x1b[0;0m");
    return name;
}

}  // namespace kiv_framework_detail
