// File names for Tab.
#ifndef EXAMPLE_FILE_COMPLETION_H_
#define EXAMPLE_FILE_COMPLETION_H_

#include <string>
#include <vector>

#include "cli/parameter_completer.h"

// Where a program finds files.
struct FileView {
  std::string root;           // before paths that begin with "/"
  std::string folder = "./";  // before the others
};

// The files and folders in `view`, the tool's own unless said, whose paths begin with `typed`, by name; a folder ends
// in "/". Hidden ones only when `typed` begins their name. Of a folder with very many entries some are left out.
std::vector<cli::ParameterCandidate> CompleteFile(const std::string& typed, const FileView& view = {});

// The view of the program of this machine that serves the abstract unix socket `name`. The tool's own where nobody
// does, or where the tool has no right to look. Waits for nobody.
FileView ViewOfServer(const std::string& name);

#endif  // EXAMPLE_FILE_COMPLETION_H_
