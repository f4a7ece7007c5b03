// A program from its start to its end, its output thrown away.
//   bench_process time COUNT PROGRAM WORD...     how long it takes
//   bench_process memory COUNT PROGRAM WORD...   {"peak_kb": N}: the most memory that a run had resident
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "samples.h"

namespace {

bool Run(char** words) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  const int error = posix_spawn(&pid, words[0], &actions, nullptr, words, environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return error == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The kernel counts what the child had before its exec, too, but this program is smaller than those that it starts.
int PrintMemory(std::size_t count, char** words) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!Run(words)) {
      std::fprintf(stderr, "%s failed\n", words[0]);
      return 1;
    }
  }
  rusage used{};
  getrusage(RUSAGE_CHILDREN, &used);
  std::printf("{\"peak_kb\": %ld}\n", used.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 3 ? argv[1] : "";
  const std::size_t count = bench::CountArgument(argc - 1, argv + 1, 100);
  char** words = argv + 3;
  if (what == "time") return bench::MeasureAndPrint(count, [&] { return Run(words); });
  if (what == "memory") return PrintMemory(count, words);
  std::fprintf(stderr, "usage: bench_process time|memory COUNT PROGRAM WORD...\n");
  return 2;
}
