#pragma once

// The library exports exactly its kiv_* API, plus the _kiv_sqlite class (hosts may derive
// from it). Member operations of _kiv_sqlite are marked local.
#define KIV_DATABASE_API __attribute__((visibility("default")))
#define KIV_DATABASE_LOCAL __attribute__((visibility("hidden")))
