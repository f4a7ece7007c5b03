// The system's journal, for records with fields: `journalctl VEXTOOL_STATUS=refused` finds them.
#ifndef KLBASE_CONSOLE_RECORD_JOURNAL_H_
#define KLBASE_CONSOLE_RECORD_JOURNAL_H_

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "klbase/collapsed_records.h"

namespace cli::internal {

// By its native protocol: a datagram for each record, a line "FIELD=value" for each field. Any thread; nothing waits,
// and nothing throws but for lack of memory.
class Journal {
 public:
  using Field = std::pair<std::string_view, std::string_view>;

  // The journal of the process, which has one when systemd connected its standard output or error to it. Else nothing
  // is sent. Never destroyed.
  static Journal& OfProcess();

  // The journal that listens on the socket at `path`; "" is none.
  explicit Journal(std::string path);
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;
  ~Journal();

  bool Wanted() const { return fd_ >= 0; }
  // Sends a record. Fields' names are upper-case words, their values have no line ends. One that the journal does not
  // take at once is lost and counted.
  void Send(std::initializer_list<Field> fields);
  std::uint64_t Lost() const { return lost_.load(std::memory_order_relaxed); }

 private:
  const std::string path_;
  const int fd_;
  std::atomic<std::uint64_t> lost_{0};
  klbase::CollapsedRecords losses_{40, "records of lines that the journal did not take"};
};

// Whether the journal is the file of descriptor `fd`: `stream` is what systemd says in JOURNAL_STREAM, the file's
// device and inode with a colon in between. The variable alone says nothing: children inherit it, whatever they write
// to.
bool IsJournal(int fd, const char* stream);

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_RECORD_JOURNAL_H_
