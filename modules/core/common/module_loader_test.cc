#include "core/module_loader.h"

#include <gmock/gmock.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/module.h"
#include "klbase/log.h"
#include "modules/core/testing/scripted_registry.h"
#include "platform/testing/log_capture.h"
#include "platform/testing/sync.h"
#include "platform/testing/virtual_slot.h"

namespace core {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vextest::LogCapture;
using vextest::LogRecord;

LogRecord Loading(int level, const std::string& text) {
  return {level, "modules/core/common/module_loader", "LoadAllModules", text};
}
LogRecord Unloading(int level, const std::string& text) {
  return {level, "modules/core/common/module_loader", "Uninitialize", text};
}

// Follows its script and tells the test of each call.
class ScriptedModule : public Module {
 public:
  struct Script {
    std::string name;
    uint32_t priority = 0;
    std::function<bool()> load = [] { return true; };
    bool unload = true;
  };

  ScriptedModule(Script script, std::vector<std::string>& calls) : script_(std::move(script)), calls_(calls) {}
  ~ScriptedModule() override { calls_.push_back("destroy " + script_.name); }

  const std::string& Name() override { return script_.name; }
  bool Load() override {
    calls_.push_back("load " + script_.name);
    return script_.load();
  }
  bool Unload() override {
    calls_.push_back("unload " + script_.name);
    return script_.unload;
  }
  uint32_t Priority() override { return script_.priority; }

 private:
  const Script script_;
  std::vector<std::string>& calls_;
};

// With no module registered but those of the test.
class ModuleLoaderTest : public testing::Test {
 protected:
  bool Register(const ScriptedModule::Script& script) {
    return ModuleFactory::Register(script.name,
                                   [this, script] { return std::make_unique<ScriptedModule>(script, calls_); });
  }

  std::vector<std::string> calls_;

 private:
  const internal::ScriptedRegistry<ModuleFactory> registry_{{}};
};

TEST_F(ModuleLoaderTest, WithoutModulesWritesTheirCountOnly) {
  ModuleLoader loader;
  LogCapture log;
  loader.Initialize();
  EXPECT_THAT(log.Records(), ElementsAre(Loading(30, "Load 0 Modules")));
}

TEST_F(ModuleLoaderTest, LoadsByAscendingPriorityWithARecordEach) {
  Register({.name = "Late", .priority = 1020});
  Register({.name = "early", .priority = 10});
  ModuleLoader loader;
  LogCapture log;
  loader.Initialize();
  EXPECT_THAT(calls_, ElementsAre("load early", "load Late"));
  EXPECT_THAT(log.Records(), ElementsAre(Loading(30, "Load 2 Modules"), Loading(30, "Load Module ***early***."),
                                         Loading(30, "Load Module ***Late***.")));
}

TEST_F(ModuleLoaderTest, CreatesAllModulesBeforeItLoadsTheFirst) {
  for (const char* name : {"a", "b"}) {
    ModuleFactory::Register(name, [this, name] {
      calls_.push_back(std::string("create ") + name);
      return std::make_unique<ScriptedModule>(ScriptedModule::Script{.name = name}, calls_);
    });
  }
  ModuleLoader loader;
  loader.Initialize();
  EXPECT_THAT(calls_, ElementsAre("create a", "create b", "load a", "load b"));
}

TEST(ModuleTest, VirtualOperationsStandInTheirOrder) {
  EXPECT_EQ(vextest::VirtualSlot(&Module::Name), 2u);  // the destructor has two places
  EXPECT_EQ(vextest::VirtualSlot(&Module::Load), 3u);
  EXPECT_EQ(vextest::VirtualSlot(&Module::Unload), 4u);
  EXPECT_EQ(vextest::VirtualSlot(&Module::Priority), 5u);
  EXPECT_EQ(vextest::VirtualSlots<Module>(), 6u);
}

TEST_F(ModuleLoaderTest, LoadsModulesOfEqualPriorityInOrderOfName) {
  for (const char* name : {"b", "B", "a", "C"}) Register({.name = name, .priority = 7});
  ModuleLoader().Initialize();
  calls_.resize(4);  // without their destruction
  EXPECT_THAT(calls_, ElementsAre("load B", "load C", "load a", "load b"));
}

TEST_F(ModuleLoaderTest, ComparesPrioritiesAsUnsigned) {
  Register({.name = "a", .priority = 0xFFFFFFFF});
  Register({.name = "b", .priority = 1});
  ModuleLoader loader;
  loader.Initialize();
  EXPECT_THAT(calls_, ElementsAre("load b", "load a"));
}

TEST_F(ModuleLoaderTest, AModuleThatFailsToLoadIsLoggedAndStaysInTheList) {
  Register({.name = "a", .load = [] { return false; }});
  Register({.name = "b"});
  ModuleLoader loader;
  LogCapture log;
  loader.Initialize();
  EXPECT_THAT(log.Records(), ElementsAre(Loading(30, "Load 2 Modules"), Loading(30, "Load Module ***a***."),
                                         Loading(40, "Load Module a  failed."), Loading(30, "Load Module ***b***.")));
  loader.Uninitialize();
  EXPECT_THAT(calls_, ElementsAre("load a", "load b", "unload a", "unload b"));
}

TEST_F(ModuleLoaderTest, UnloadsInLoadOrderAndGoesOnAfterAFailure) {
  Register({.name = "a", .priority = 2});
  Register({.name = "b", .priority = 1, .unload = false});
  ModuleLoader loader;
  loader.Initialize();
  LogCapture log;
  loader.Uninitialize();
  EXPECT_THAT(log.Records(),
              ElementsAre(Unloading(30, "***** Unload all modules *****"), Unloading(30, "UnLoad Module ***b***."),
                          Unloading(50, "unload module(b)"), Unloading(30, "UnLoad Module ***a***.")));
}

TEST_F(ModuleLoaderTest, InitializesOnceEvenAfterUnloading) {
  Register({.name = "a"});
  ModuleLoader loader;
  loader.Initialize();
  loader.Uninitialize();
  LogCapture log;
  loader.Initialize();
  EXPECT_THAT(log.Records(), IsEmpty());
  EXPECT_THAT(calls_, ElementsAre("load a", "unload a"));
}

TEST_F(ModuleLoaderTest, AConcurrentInitializeWaitsForTheFirst) {
  vextest::Gate loading;
  Register({.name = "a", .load = [&] {
              loading.Pass();
              calls_.push_back("loaded");
              return true;
            }});
  ModuleLoader loader;
  std::thread first([&] { loader.Initialize(); });
  EXPECT_TRUE(loading.WaitUntilReached());
  std::atomic<pid_t> second_thread = 0;
  std::atomic<bool> second_returned = false;
  std::thread second([&] {
    second_thread = gettid();
    loader.Initialize();
    second_returned = true;
  });
  // It has nothing to sleep for but the first one's end.
  EXPECT_TRUE(vextest::WaitFor(
      [&] { return second_returned || (second_thread != 0 && vextest::ThreadSleeps(second_thread)); }));
  EXPECT_FALSE(second_returned) << "while the first one is still loading";
  loading.Open();
  first.join();
  second.join();
  EXPECT_THAT(calls_, ElementsAre("load a", "loaded"));
}

TEST_F(ModuleLoaderTest, TheFirstRegistrationOfANameWins) {
  EXPECT_TRUE(Register({.name = "a", .priority = 1}));
  LogCapture log;
  EXPECT_FALSE(Register({.name = "a", .load = []() -> bool { throw std::logic_error("the later creator was used"); }}));
  EXPECT_THAT(log.Records(), IsEmpty());
  ModuleLoader loader;
  loader.Initialize();
  EXPECT_THAT(calls_, ElementsAre("load a"));
}

TEST_F(ModuleLoaderTest, AnExceptionOutOfLoadPassesThroughOnce) {
  Register({.name = "a", .load = []() -> bool { throw std::runtime_error("no device"); }});
  Register({.name = "b"});
  ModuleLoader loader;
  EXPECT_THROW(loader.Initialize(), std::runtime_error);
  EXPECT_NO_THROW(loader.Initialize());
  EXPECT_THAT(calls_, ElementsAre("load a"));
}

TEST_F(ModuleLoaderTest, AnEmptyCreatorThrows) {
  ModuleFactory::Register("a", nullptr);
  ModuleLoader loader;
  EXPECT_THROW(loader.Initialize(), std::bad_function_call);
}

TEST_F(ModuleLoaderTest, ACreatorThatMakesNothingIsPassedOverWhileWarningsAreOff) {
  ModuleFactory::Register("a", [] { return nullptr; });
  Register({.name = "b"});
  ModuleLoader loader;
  LogCapture log(50);
  loader.Initialize();
  EXPECT_THAT(calls_, ElementsAre("load b"));
}

TEST_F(ModuleLoaderTest, DestroysInListOrderWithoutUnloading) {
  Register({.name = "a", .priority = 2});
  Register({.name = "b", .priority = 1});
  std::make_unique<ModuleLoader>()->Initialize();
  EXPECT_THAT(calls_, ElementsAre("load b", "load a", "destroy b", "destroy a"));
}

using ModuleLoaderDeathTest = ModuleLoaderTest;

TEST_F(ModuleLoaderDeathTest, ACreatorThatMakesNothingStopsTheProgram) {
  ModuleFactory::Register("ghost", [] { return nullptr; });
  ModuleLoader loader;
  LogCapture log(40);
  EXPECT_EXIT(loader.Initialize(), testing::KilledBySignal(SIGABRT), "module \"ghost\": its creator made no module");
}

TEST(ModuleFactoryTest, MakesNothingForAnUnknownName) { EXPECT_EQ(ModuleFactory::Create("unknown"), nullptr); }

}  // namespace
}  // namespace core
