// The trace lines of ats. Before a unit includes this, it defines ATS_TRACE_UNIT, its name in trace lines.
#pragma once

#include "logger.h"

MODULE_EXPORT std::atomic<int32_t> ATS_trace_level; // follows the registry
MODULE_EXPORT rep_notifier_t ATS_log_rep_h;         // the subscription to the registry; 0: none

// Writes a trace line under the name `operation`. A helper function passes its caller's name. The macros below use the
// name of the enclosing function.
#define ATS_TRACE_AS(operation, level, ...)                                                                            \
    ZR_TRACE(level, ATS_trace_level, "ATS", operation, ATS_TRACE_UNIT, __VA_ARGS__)

#define ATS_ERROR(...) ATS_TRACE_AS(__func__, ZR_ERROR, __VA_ARGS__)
#define ATS_WARNING(...) ATS_TRACE_AS(__func__, ZR_WARNING, __VA_ARGS__)
#define ATS_DEBUG(...) ATS_TRACE_AS(__func__, ZR_DEBUG, __VA_ARGS__)
#define ATS_FUNC(...) ATS_TRACE_AS(__func__, ZR_FUNC, __VA_ARGS__)
