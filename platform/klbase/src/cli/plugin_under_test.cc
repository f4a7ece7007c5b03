// A name of plugin_test.cc that stands in another file, linked behind it.
#include <string>

extern const std::string kElsewhereCli;
const std::string kElsewhereCli = "name in another file";
