#pragma once

// Symbols of the framework core; everything else in libkiv_framework stays hidden. Default
// visibility on the importing side too, so that type identity holds across libraries.
#define KIV_FRAMEWORK_API __attribute__((visibility("default")))
