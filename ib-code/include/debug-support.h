// Macros for the trace lines of the ats module. Before a source file includes this header, it defines ATS_TRACE_UNIT as
// the file name that its trace lines show.
#pragma once

#include "logger.h"

MODULE_EXPORT std::atomic<int32_t> ATS_trace_level; // the module's level; follows its value in the registry
MODULE_EXPORT rep_notifier_t ATS_log_rep_h;         // the subscription to changes of the level; 0: no subscription

// Prints a trace line that shows `operation` as the name of the function. A helper function passes the name of its
// caller. The macros below pass the name of the enclosing function.
#define ATS_TRACE_AS(operation, level, ...)                                                                            \
    ZR_TRACE(level, ATS_trace_level, "ATS", operation, ATS_TRACE_UNIT, __VA_ARGS__)

#define ATS_ERROR(...) ATS_TRACE_AS(__func__, ZR_ERROR, __VA_ARGS__)
#define ATS_WARNING(...) ATS_TRACE_AS(__func__, ZR_WARNING, __VA_ARGS__)
#define ATS_DEBUG(...) ATS_TRACE_AS(__func__, ZR_DEBUG, __VA_ARGS__)
#define ATS_FUNC(...) ATS_TRACE_AS(__func__, ZR_FUNC, __VA_ARGS__)
