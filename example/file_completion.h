// File names for Tab.
#ifndef EXAMPLE_FILE_COMPLETION_H_
#define EXAMPLE_FILE_COMPLETION_H_

#include <string>
#include <vector>

#include "cli/parameter_completer.h"

// The files and folders, as the tool sees them, whose paths begin with `typed`, by name; a folder ends in "/". Hidden
// ones only when `typed` begins their name. Of a folder with very many entries some are left out.
std::vector<cli::ParameterCandidate> CompleteFile(const std::string& typed);

#endif  // EXAMPLE_FILE_COMPLETION_H_
