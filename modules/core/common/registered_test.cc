// Modules and services that register themselves: in each of the three ways, with a name constant that stands before
// the registration, behind it, and in another file.
#include <gmock/gmock.h>

#include <memory>
#include <string>

#include "core/module.h"
#include "core/rpc_service.h"

namespace core {

// In registered_under_test.cc, which is linked behind this file, so that its constants are built later.
extern const std::string kObjectElsewhere;
extern const std::string kInstanceElsewhere;
extern const std::string kBaseElsewhere;

namespace {

// Names of 16 characters and more, which need the heap: shorter ones may be in the program file, and so never too late.
const std::string kObjectBefore = "object, name before it";
const std::string kInstanceBefore = "instantiation, name before it";
const std::string kBaseBefore = "base class, name before it";
extern const std::string kObjectBehind;
extern const std::string kInstanceBehind;
extern const std::string kBaseBehind;

template <const std::string* kName>
class TestModule : public Module {
 public:
  const std::string& Name() override { return *kName; }
  bool Load() override { return true; }
  bool Unload() override { return true; }
  uint32_t Priority() override { return 0; }
};

template <const std::string* kName>
class TestService : public RpcService {
 public:
  bool Service(const google::protobuf::Any&, google::protobuf::Any&) override { return true; }
  const std::string& ServiceRequestType() override { return *kName; }
};

template <const std::string* kName>
using ModuleRegistration = RegisteredModuleFactory<TestModule<kName>, kName>;
template <const std::string* kName>
using ServiceRegistration = RegisteredRpcServiceFactory<TestService<kName>, kName>;

const ModuleRegistration<&kObjectBefore> module_object_before;
const ModuleRegistration<&kObjectBehind> module_object_behind;
const ModuleRegistration<&kObjectElsewhere> module_object_elsewhere;
const ServiceRegistration<&kObjectBefore> service_object_before;
const ServiceRegistration<&kObjectBehind> service_object_behind;
const ServiceRegistration<&kObjectElsewhere> service_object_elsewhere;

// Nothing calls the constructors of these but the creator that they register.
class BaseBefore : public TestModule<&kBaseBefore>, public RegisteredModuleFactory<BaseBefore, &kBaseBefore> {};
class BaseBehind : public TestModule<&kBaseBehind>, public RegisteredModuleFactory<BaseBehind, &kBaseBehind> {};
class BaseElsewhere : public TestModule<&kBaseElsewhere>,
                      public RegisteredModuleFactory<BaseElsewhere, &kBaseElsewhere> {};
class ServiceBefore : public TestService<&kBaseBefore>,
                      public RegisteredRpcServiceFactory<ServiceBefore, &kBaseBefore> {};
class ServiceBehind : public TestService<&kBaseBehind>,
                      public RegisteredRpcServiceFactory<ServiceBehind, &kBaseBehind> {};
class ServiceElsewhere : public TestService<&kBaseElsewhere>,
                         public RegisteredRpcServiceFactory<ServiceElsewhere, &kBaseElsewhere> {};

}  // namespace

template class RegisteredModuleFactory<TestModule<&kInstanceBefore>, &kInstanceBefore>;
template class RegisteredModuleFactory<TestModule<&kInstanceBehind>, &kInstanceBehind>;
template class RegisteredModuleFactory<TestModule<&kInstanceElsewhere>, &kInstanceElsewhere>;
template class RegisteredRpcServiceFactory<TestService<&kInstanceBefore>, &kInstanceBefore>;
template class RegisteredRpcServiceFactory<TestService<&kInstanceBehind>, &kInstanceBehind>;
template class RegisteredRpcServiceFactory<TestService<&kInstanceElsewhere>, &kInstanceElsewhere>;

namespace {

const std::string kObjectBehind = "object, name behind it";
const std::string kInstanceBehind = "instantiation, name behind it";
const std::string kBaseBehind = "base class, name behind it";

const auto kAllNames = testing::ElementsAre(
    "base class, name before it", "base class, name behind it", "base class, name in another file",
    "instantiation, name before it", "instantiation, name behind it", "instantiation, name in another file",
    "object, name before it", "object, name behind it", "object, name in another file");

TEST(RegisteredModuleFactoryTest, EachWayRegistersItsModuleBeforeMain) {
  EXPECT_THAT(ModuleFactory::Names(), kAllNames);
  for (const auto& name : ModuleFactory::Names()) EXPECT_EQ(ModuleFactory::Create(name)->Name(), name);
}

TEST(RegisteredModuleFactoryTest, ABaseClassMakesItsModule) {
  EXPECT_NE(dynamic_cast<BaseBehind*>(ModuleFactory::Create(kBaseBehind).get()), nullptr);
  EXPECT_NE(dynamic_cast<BaseBehind*>(BaseBehind::Create().get()), nullptr);
}

TEST(RegisteredRpcServiceFactoryTest, EachWayRegistersItsServiceBeforeMain) {
  EXPECT_THAT(RpcServiceFactory::Names(), kAllNames);
  for (const auto& name : RpcServiceFactory::Names()) {
    EXPECT_EQ(RpcServiceFactory::Create(name)->ServiceRequestType(), name);
  }
}

TEST(RegisteredRpcServiceFactoryTest, ABaseClassMakesItsService) {
  EXPECT_NE(dynamic_cast<ServiceBehind*>(RpcServiceFactory::Create(kBaseBehind).get()), nullptr);
  EXPECT_NE(dynamic_cast<ServiceBehind*>(ServiceBehind::Create().get()), nullptr);
}

}  // namespace
}  // namespace core
