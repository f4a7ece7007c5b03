// Modules around the one that is shown, to see its place: by name they would load the other way round.
#include <cstdint>
#include <string>

#include "core/module.h"

namespace {

const std::string kEarlier = "Earlier";
const std::string kLater = "A later one";

template <const std::string* kName, uint32_t kPriority>
class Quiet : public core::Module {
 public:
  const std::string& Name() override { return *kName; }
  bool Load() override { return true; }
  bool Unload() override { return true; }
  uint32_t Priority() override { return kPriority; }
};

const core::RegisteredModuleFactory<Quiet<&kEarlier, 1999>, &kEarlier> earlier;
const core::RegisteredModuleFactory<Quiet<&kLater, 2001>, &kLater> later;

}  // namespace
