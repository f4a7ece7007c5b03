#include "klbase/registry.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "klbase/log_sink.h"
#include "klbase/options.h"

namespace klbase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Creator = std::function<std::string()>;

Creator Making(const std::string& product) {
  return [product] { return product; };
}

class RegistryTest : public testing::Test {
 protected:
  RegistryTest() {
    KlLogSetObserver([this](const KlLogRecord& record) {
      records_.push_back(std::to_string(record.level) + " " + std::string(record.text));
    });
  }
  ~RegistryTest() override { KlLogSetObserver({}); }

  std::string Make(const std::string& name) {
    const Creator* creator = registry_.Find(name);
    return creator == nullptr ? "(no such name)" : (*creator)();
  }

  std::vector<std::string> records_;
  Registry<Creator> registry_{"thing"};
};

TEST_F(RegistryTest, ListsNamesInAscendingByteOrder) {
  const std::string b = "b";
  registry_.Register(&b, Making("b"));
  for (const char* name : {"c", "Z", "a"}) registry_.Register(name, Making(name));
  EXPECT_THAT(registry_.Names(), ElementsAre("Z", "a", "b", "c"));
}

TEST_F(RegistryTest, FindsNothingUnderAnUnknownName) { EXPECT_EQ(registry_.Find("unknown"), nullptr); }

TEST_F(RegistryTest, KeepsAnEmptyCreator) {
  registry_.Register("empty", nullptr);
  ASSERT_NE(registry_.Find("empty"), nullptr);
  EXPECT_FALSE(*registry_.Find("empty"));
}

TEST_F(RegistryTest, CopiesAStringAtOnce) {
  std::string name = "at once";
  registry_.Register(name, Making("thing"));
  name = "later";
  EXPECT_THAT(registry_.Names(), ElementsAre("at once"));
}

TEST_F(RegistryTest, ReadsAConstantWhenItIsFirstUsed) {
  std::string constant;
  EXPECT_TRUE(registry_.Register(&constant, Making("thing")));
  constant = "built by now";
  EXPECT_EQ(Make("built by now"), "thing");
  constant = "read once";
  EXPECT_THAT(registry_.Names(), ElementsAre("built by now"));
  EXPECT_THAT(records_, IsEmpty());
}

TEST_F(RegistryTest, TakesNewEntriesAfterItsFirstUse) {
  EXPECT_THAT(registry_.Names(), IsEmpty());
  const std::string constant = "constant";
  registry_.Register(&constant, Making("constant"));
  EXPECT_TRUE(registry_.Register("string", Making("string")));
  EXPECT_THAT(registry_.Names(), ElementsAre("constant", "string"));
}

TEST_F(RegistryTest, OfTwoStringsTheFirstWinsAndTheSecondIsToldSo) {
  EXPECT_TRUE(registry_.Register("twice", Making("first")));
  EXPECT_FALSE(registry_.Register("twice", Making("second")));
  EXPECT_EQ(Make("twice"), "first");
  EXPECT_FALSE(registry_.Register("twice", Making("third")));
  EXPECT_EQ(Make("twice"), "first");
  EXPECT_THAT(records_, IsEmpty());
}

TEST_F(RegistryTest, OfTwoConstantsTheFirstWins) {
  const std::string one = "twice";
  const std::string other = "twice";
  registry_.Register(&one, Making("first"));
  registry_.Register(&other, Making("second"));
  EXPECT_EQ(Make("twice"), "first");
  EXPECT_THAT(records_, IsEmpty());
}

TEST_F(RegistryTest, AnEarlierConstantWinsOverAString) {
  const std::string constant = "twice";
  registry_.Register(&constant, Making("constant"));
  EXPECT_TRUE(registry_.Register("twice", Making("string")));  // the constant is not read yet
  EXPECT_EQ(Make("twice"), "constant");
  EXPECT_FALSE(registry_.Register("twice", Making("string")));
  EXPECT_THAT(records_, IsEmpty());
}

TEST_F(RegistryTest, AnEarlierStringWinsOverAConstant) {
  const std::string constant = "twice";
  registry_.Register("twice", Making("string"));
  EXPECT_TRUE(registry_.Register(&constant, Making("constant")));
  EXPECT_EQ(Make("twice"), "string");
  EXPECT_THAT(records_, IsEmpty());
}

constexpr char kUnnamed[] =
    "40 a thing is registered under an empty name: its name constant has no text, or was read before main()";

TEST_F(RegistryTest, AnEmptyNameWorksAndIsSaidAtTheFirstUse) {
  const std::string empty;
  registry_.Register(&empty, Making("first"));
  registry_.Register("named", Making("named"));
  EXPECT_THAT(records_, IsEmpty());
  EXPECT_THAT(registry_.Names(), ElementsAre("", "named"));
  EXPECT_THAT(records_, ElementsAre(kUnnamed));
  EXPECT_EQ(Make(""), "first");
  EXPECT_EQ(Make("named"), "named");
  EXPECT_THAT(records_, ElementsAre(kUnnamed));
}

TEST_F(RegistryTest, EachEmptyNameIsSaidAndTheFirstWins) {
  const std::string empty;
  registry_.Register("", Making("first"));
  registry_.Register(&empty, Making("second"));
  EXPECT_EQ(Make(""), "first");
  EXPECT_THAT(records_, ElementsAre(kUnnamed, kUnnamed));
}

TEST_F(RegistryTest, AnObserverOfItsRecordMayUseIt) {
  std::vector<std::string> seen;
  KlLogSetObserver([this, &seen](const KlLogRecord&) { seen = registry_.Names(); });
  registry_.Register("", Making("unnamed"));
  registry_.Names();
  EXPECT_THAT(seen, ElementsAre(""));
}

TEST_F(RegistryTest, ThreadsMayBeTheFirstUsersTogether) {
  const std::string constant = "constant";
  registry_.Register(&constant, Making("thing"));
  std::vector<std::string> made(4);
  std::vector<std::thread> users;
  users.reserve(made.size());
  for (auto& product : made) users.emplace_back([this, &product] { product = Make("constant"); });
  for (auto& user : users) user.join();
  EXPECT_THAT(made, ElementsAre("thing", "thing", "thing", "thing"));
}

}  // namespace
}  // namespace klbase
