// Events that the process prints on std::cout can't drive the terminal that it may be.
#ifndef KLBASE_CONSOLE_TERMINAL_STDOUT_FILTER_H_
#define KLBASE_CONSOLE_TERMINAL_STDOUT_FILTER_H_

namespace cli::internal {

// From now on until the process ends, text written to std::cout is made clean (text/clean_text.h) where standard output
// is a terminal. To files and pipes it goes as it is. One thread at a time; more calls change nothing.
void KeepStdoutClean();

}  // namespace cli::internal

#endif  // KLBASE_CONSOLE_TERMINAL_STDOUT_FILTER_H_
