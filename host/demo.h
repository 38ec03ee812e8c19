#pragma once

#include <string>

namespace kiv_host {

class output;

// The demo on the database file `path`; returns the exit status.
int run_demo(output& out, const std::string& path);

}  // namespace kiv_host
