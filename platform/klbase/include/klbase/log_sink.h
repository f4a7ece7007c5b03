// Looking at log records from inside the process: for tests that assert them, and for tools that show them.
#ifndef KLBASE_LOG_SINK_H_
#define KLBASE_LOG_SINK_H_

#include <functional>
#include <string_view>

#include "klbase/export.h"

// One record as its statement gave it. The views are valid during the observer's call only.
struct KlLogRecord {
  int level = 0;
  std::string_view source_file;  // below the repository, without extension
  int line = 0;
  std::string_view function;
  std::string_view text;  // formatted, with the line ends that the format has
};

// Has `observer` called for each record from now on, in place of an earlier one; an empty function ends that.
//
// The observer is called on the thread that logs, after the record was written, with no lock of the log held. It sees
// records also while no log file is open (before KlLogDefaultInit, after KlLogDestory), but never one that its level
// suppressed. It may log: such records are written but not shown to it. Several threads may be in it at once. Its
// exceptions are dropped.
//
// When this returns, the earlier observer is not running and won't run again, unless this was called from inside that
// observer. So don't call it with a lock held that the observer takes.
KLBASE_EXPORT void KlLogSetObserver(std::function<void(const KlLogRecord&)> observer);

#endif  // KLBASE_LOG_SINK_H_
