#pragma once

namespace kiv_host {

// The demo on kiv_demo.db in the current directory; returns the exit status.
int run_demo();

}  // namespace kiv_host
