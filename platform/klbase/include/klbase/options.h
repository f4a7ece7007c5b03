// Process-wide options of the base library. Both may be read and written from any thread at any time.
#ifndef KLBASE_OPTIONS_H_
#define KLBASE_OPTIONS_H_

#include <atomic>
#include <cstdint>

#include "klbase/export.h"

// Gates additional detail records: 0 is off, larger numbers show more. Starts as KLBASE_DEBUG of the environment, else
// 0.
KLBASE_EXPORT extern std::atomic<int32_t> kOptionDebug;

// A log record is written when this is less than or equal to the record's level (10 tracing, 20 detail, 30 progress,
// 40 warnings, 50 errors). KlLogDefaultInit sets it; KLBASE_LOG_LEVEL of the environment wins over that start value.
KLBASE_EXPORT extern std::atomic<int32_t> kOptionLogLevel;

#endif  // KLBASE_OPTIONS_H_
