#include "example/rpc/messages/message_catalog.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "encoder/v1/encoder.pb.h"
#include "example/rpc/messages/word_refusal.h"
#include "example/v1/pubsub_test.pb.h"
#include "platform/testing/scratch_folder.h"
#include "player/v1/player.pb.h"

namespace rpc {
namespace {

using google::protobuf::DescriptorProto;
using google::protobuf::FieldDescriptorProto;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What `call` is refused with; "" when it isn't.
template <typename Function>
std::string RefusalOf(const Function& call) {
  try {
    call();
    return "";
  } catch (const WordRefusal& refusal) {
    return refusal.what();
  }
}

// A proto3 file with one message, which has one string field.
FileDescriptorProto FileWith(const std::string& name, const std::string& package, const std::string& message,
                             const std::string& field = "text") {
  FileDescriptorProto file;
  file.set_name(name);
  file.set_package(package);
  file.set_syntax("proto3");
  DescriptorProto& type = *file.add_message_type();
  type.set_name(message);
  FieldDescriptorProto& only = *type.add_field();
  only.set_name(field);
  only.set_number(1);
  only.set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  only.set_type(FieldDescriptorProto::TYPE_STRING);
  return file;
}

FileDescriptorSet SetOf(const std::vector<FileDescriptorProto>& files) {
  FileDescriptorSet set;
  for (const auto& file : files) *set.add_file() = file;
  return set;
}

class MessageCatalogTest : public testing::Test {
 protected:
  CurrentCatalog::Loaded Load(const std::vector<FileDescriptorProto>& files) {
    return catalog_.Load(folder_.Write("set.pb", SetOf(files).SerializeAsString()));
  }
  std::string Found(const std::string& name) { return catalog_.Get()->Find(name).full_name(); }
  std::string Refusal(const std::string& name) {
    return RefusalOf([&] { catalog_.Get()->Find(name); });
  }

  vextest::ScratchFolder folder_;
  CurrentCatalog catalog_;
};

TEST_F(MessageCatalogTest, HasEveryMessageOfTheSchemaAlsoThoseThatNoOtherCodeNames) {
  std::set<std::string> packages;
  for (const auto* type : catalog_.Get()->Types()) packages.insert(type->file()->package());
  EXPECT_THAT(packages, ElementsAre("common.v1", "encoder.v1", "example.v1", "lp.v1"));
  EXPECT_EQ(Found("PubTestMessage"), "example.v1.PubTestMessage");
}

TEST_F(MessageCatalogTest, AShortNameWillDoWhereItIsUnique) {
  EXPECT_EQ(Found("CreateUplayerReq"), "lp.v1.CreateUplayerReq");
  EXPECT_EQ(Found("v1.CreateUplayerReq"), "lp.v1.CreateUplayerReq");
  EXPECT_EQ(Found("lp.v1.CreateUplayerReq"), "lp.v1.CreateUplayerReq");
  EXPECT_EQ(catalog_.Get()->ShortName(*lp::v1::CreateUplayerReq::descriptor()), "CreateUplayerReq");
}

TEST_F(MessageCatalogTest, AnUnknownNameGetsTheNearest) {
  EXPECT_EQ(Refusal("CreateUplayer"), "\"CreateUplayer\" is not a message; the nearest is CreateUplayerReq");
  EXPECT_EQ(Refusal("lp.v1.CreateUplayerReqq"),
            "\"lp.v1.CreateUplayerReqq\" is not a message; the nearest are lp.v1.CreateUplayerReq, "
            "lp.v1.DeleteUplayerReq, lp.v1.CreateLiveReq");
  EXPECT_EQ(Refusal("xyzzy"), "\"xyzzy\" is not a message; \"rpc list\" shows them all");
  EXPECT_EQ(Refusal(""), "\"\" is not a message; \"rpc list\" shows them all");
}

TEST_F(MessageCatalogTest, AnAmbiguousNameGetsTheCandidates) {
  ASSERT_EQ(Load({FileWith("other.proto", "other.v1", "CreateUplayerReq")}).error, "");
  EXPECT_EQ(Refusal("CreateUplayerReq"),
            "\"CreateUplayerReq\" may be lp.v1.CreateUplayerReq, other.v1.CreateUplayerReq; write one of these");
  EXPECT_EQ(catalog_.Get()->ShortName(catalog_.Get()->Find("other.v1.CreateUplayerReq")), "other.v1.CreateUplayerReq");
}

TEST_F(MessageCatalogTest, ATypeUrlIsReadBehindItsLastSlash) {
  EXPECT_EQ(catalog_.Get()->FindByUrl("type.googleapis.com/lp.v1.UniversalResp"), lp::v1::UniversalResp::descriptor());
  EXPECT_EQ(catalog_.Get()->FindByUrl("lp.v1.UniversalResp"), nullptr);
  EXPECT_EQ(catalog_.Get()->FindByUrl("type.googleapis.com/lp.v1.Nothing"), nullptr);
}

TEST_F(MessageCatalogTest, ALoadedMessageIsThereBesideTheOthers) {
  const auto loaded = Load({FileWith("note.proto", "demo.v1", "Note")});
  EXPECT_EQ(loaded.error, "");
  EXPECT_THAT(loaded.types, ElementsAre("demo.v1.Note"));
  EXPECT_THAT(loaded.replaced, IsEmpty());
  EXPECT_EQ(Found("Note"), "demo.v1.Note");
  EXPECT_EQ(Found("SetVideoQualityRequest"), "encoder.v1.SetVideoQualityRequest");
}

TEST_F(MessageCatalogTest, WhatIsInUseStaysWhenSomethingIsLoaded) {
  const auto before = catalog_.Get();
  ASSERT_EQ(Load({FileWith("note.proto", "demo.v1", "Note")}).error, "");
  const auto first = catalog_.Get();
  const auto message = first->New(first->Find("Note"));
  ASSERT_EQ(Load({FileWith("note.proto", "demo.v1", "Note", "other")}).error, "");
  EXPECT_NE(message->GetDescriptor()->FindFieldByName("text"), nullptr);
  EXPECT_EQ(catalog_.Get()->Find("Note").FindFieldByName("text"), nullptr);
  EXPECT_EQ(&before->Find("CreateUplayerReq"), lp::v1::CreateUplayerReq::descriptor());
}

TEST_F(MessageCatalogTest, AnotherVersionOfAFileTakesItsPlaceAndIsNamed) {
  ASSERT_EQ(Load({FileWith("note.proto", "demo.v1", "Note")}).error, "");
  const auto loaded = Load({FileWith("note.proto", "demo.v1", "Memo")});
  EXPECT_EQ(loaded.error, "");
  EXPECT_THAT(loaded.replaced, ElementsAre("note.proto"));
  EXPECT_THAT(loaded.types, ElementsAre("demo.v1.Memo"));
  EXPECT_THAT(Refusal("Note"), HasSubstr("is not a message"));
}

TEST_F(MessageCatalogTest, ANewerSchemaTakesThePlaceOfTheCompiledInOne) {
  FileDescriptorProto player;
  lp::v1::CreateUplayerReq::descriptor()->file()->CopyTo(&player);
  player.add_message_type()->set_name("TurnUplayerReq");
  const auto loaded = Load({player});
  EXPECT_EQ(loaded.error, "");
  EXPECT_THAT(loaded.replaced, ElementsAre("player/v1/player.proto"));
  EXPECT_EQ(Found("TurnUplayerReq"), "lp.v1.TurnUplayerReq");
  EXPECT_EQ(Found("CreateUplayerReq"), "lp.v1.CreateUplayerReq");
}

TEST_F(MessageCatalogTest, TheSameFileAgainChangesNothing) {
  ASSERT_EQ(Load({FileWith("note.proto", "demo.v1", "Note")}).error, "");
  const auto before = catalog_.Get();
  FileDescriptorProto again = FileWith("note.proto", "demo.v1", "Note");
  again.mutable_message_type(0)->mutable_field(0)->set_json_name("text");  // as protoc writes it
  const auto loaded = Load({again});
  EXPECT_EQ(loaded.error, "");
  EXPECT_THAT(loaded.types, IsEmpty());
  EXPECT_EQ(catalog_.Get(), before);
}

// --- what can't be loaded

TEST_F(MessageCatalogTest, ConflictsNameTheMessageAndLoseNothing) {
  ASSERT_EQ(Load({FileWith("note.proto", "demo.v1", "Note")}).error, "");
  const auto before = catalog_.Get();
  const auto loaded = Load({FileWith("free.proto", "free.v1", "Free"), FileWith("twice.proto", "demo.v1", "Note")});
  EXPECT_THAT(
      loaded.error,
      HasSubstr("set.pb changes nothing: twice.proto: demo.v1.Note: \"demo.v1.Note\" is already defined in file "
                "\"note.proto\""));
  EXPECT_EQ(catalog_.Get(), before);
}

TEST_F(MessageCatalogTest, TwoVersionsOfAFileInOneSetAreRefused) {
  const auto loaded = Load({FileWith("note.proto", "a.v1", "Note"), FileWith("note.proto", "b.v1", "Note")});
  EXPECT_THAT(loaded.error, HasSubstr("set.pb changes nothing: it holds two versions of note.proto"));
}

TEST_F(MessageCatalogTest, AMissingImportIsNamedWithWhatToDo) {
  const auto before = catalog_.Get();
  FileDescriptorProto file = FileWith("note.proto", "demo.v1", "Note");
  file.add_dependency("not/there.proto");
  const auto loaded = Load({file});
  EXPECT_THAT(loaded.error, HasSubstr("not/there.proto"));
  EXPECT_THAT(loaded.error, HasSubstr("--include_imports"));
  EXPECT_EQ(catalog_.Get(), before);
}

TEST_F(MessageCatalogTest, ACircleOfImportsIsRefused) {
  FileDescriptorProto a = FileWith("a.proto", "a.v1", "A");
  FileDescriptorProto b = FileWith("b.proto", "b.v1", "B");
  a.add_dependency("b.proto");
  b.add_dependency("a.proto");
  EXPECT_THAT(Load({a, b}).error, HasSubstr("set.pb changes nothing: b.proto: a.proto: Import"));
}

TEST_F(MessageCatalogTest, AnEndlessChainOfImportsIsRefused) {
  std::vector<FileDescriptorProto> files;
  for (int i = 0; i < 20'000; ++i) {
    files.push_back(FileWith(std::to_string(i), "chain.v1", "M" + std::to_string(i)));
    files.back().add_dependency(std::to_string(i + 1));
  }
  EXPECT_THAT(Load(files).error, HasSubstr("the chain of imports is too long"));
}

TEST_F(MessageCatalogTest, ABrokenFileSaysHowOneIsMade) {
  for (const char* content : {"syntax = \"proto3\";", "", "\xff\xff\xff"}) {
    EXPECT_THAT(catalog_.Load(folder_.Write("x.proto", content)).error,
                HasSubstr("x.proto is not a FileDescriptorSet; protoc --include_imports --descriptor_set_out=FILE"));
  }
}

TEST_F(MessageCatalogTest, WhatIsNotAFileIsNamed) {
  EXPECT_EQ(catalog_.Load(folder_ / "nothing.pb").error,
            "can't open " + folder_.Path() + "/nothing.pb: No such file or directory");
  EXPECT_EQ(catalog_.Load(folder_.Path()).error, folder_.Path() + " is not a file");
  ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(catalog_.Load(folder_ / "pipe").error, folder_.Path() + "/pipe is not a file");
}

TEST_F(MessageCatalogTest, AHugeFileIsNotRead) {
  const std::string path = folder_.Write("huge.pb", "");
  ASSERT_EQ(truncate(path.c_str(), (64L << 20) + 1), 0);
  EXPECT_EQ(catalog_.Load(path).error, path + " has more than 64 MiB: it is not a FileDescriptorSet");
}

}  // namespace
}  // namespace rpc
