#pragma once

namespace kiv_host {

class output;

// The demo on kiv_demo.db in the current directory; returns the exit status.
int run_demo(output& out);

}  // namespace kiv_host
