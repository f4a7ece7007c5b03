// The names of registered_test.cc that stand in another file.
#include <string>

namespace core {

extern const std::string kObjectElsewhere;
extern const std::string kInstanceElsewhere;
extern const std::string kBaseElsewhere;

const std::string kObjectElsewhere = "object, name in another file";
const std::string kInstanceElsewhere = "instantiation, name in another file";
const std::string kBaseElsewhere = "base class, name in another file";

}  // namespace core
