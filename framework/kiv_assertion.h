#pragma once

// The framework's assertion function.
//
// Called for every check, holding or not. Without a handler, a false condition writes one
// error line to std::cout ("KIV-SYSTEM**ERROR**" banner, condition text, message, file and
// line) and returns; a true one costs nothing beyond the call.

#include <functional>
#include <string>

#include "framework/kiv_framework_export.h"

KIV_FRAMEWORK_API void kiv_assertion_faild(bool cond, std::string cond_text, std::string message, std::string file,
                                           int line);

// Host and test hook: receives every call, holding or not, instead of the default output.
using kiv_assertion_handler = std::function<void(bool cond, const std::string& cond_text, const std::string& message,
                                                 const std::string& file, int line)>;

// Installs `handler` (an empty function removes it). Not to be called while another thread
// is inside kiv_assertion_faild.
KIV_FRAMEWORK_API void kiv_assertion_set_handler(kiv_assertion_handler handler);
KIV_FRAMEWORK_API void kiv_assertion_clear_handler();
